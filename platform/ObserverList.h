// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Export.h"

#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace sealscope SEALSCOPE_API {

/// An observation. It ends when its last copy is let go.
using ObservationToken = std::shared_ptr<void>;

/// Functions to call when something happens. Any thread may use it; functions run on the thread that notifies, in the
/// order in which they were added, and may themselves add observers or end observations.
template <class... Arguments> class ObserverList {
public:
    using Function = std::function<void(Arguments...)>;

    [[nodiscard]] ObservationToken add(Function function)
    {
        auto observer = std::make_shared<const Function>(std::move(function));
        const std::lock_guard lock(mutex_);
        std::erase_if(observers_, [](const auto& other) { return other.expired(); });
        observers_.push_back(observer);
        return std::const_pointer_cast<Function>(observer);
    }

    void notify(Arguments... arguments) const
    {
        std::vector<std::weak_ptr<const Function>> observers;
        {
            const std::lock_guard lock(mutex_);
            observers = observers_;
        }
        for (const auto& weak : observers)
            if (const auto observer = weak.lock()) (*observer)(arguments...);
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::weak_ptr<const Function>> observers_;
};

}  // namespace sealscope SEALSCOPE_API
