// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Export.h"

#include <atomic>
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
        auto observer = std::make_shared<Observer>(std::move(function));
        const std::lock_guard lock(mutex_);
        std::erase_if(observers_, [](const auto& other) { return !other->isActive; });
        observers_.push_back(observer);
        return {observer.get(), [observer](void*) { observer->isActive = false; }};
    }

    void notify(Arguments... arguments) const
    {
        std::vector<std::shared_ptr<const Observer>> observers;
        {
            const std::lock_guard lock(mutex_);
            observers.assign(observers_.begin(), observers_.end());
        }
        for (const auto& observer : observers)
            if (observer->isActive) observer->function(arguments...);
    }

private:
    struct Observer {
        explicit Observer(Function called) : function(std::move(called)) {}
        Function function;
        std::atomic<bool> isActive = true;
    };

    mutable std::mutex mutex_;
    std::vector<std::shared_ptr<Observer>> observers_;
};

}  // namespace sealscope SEALSCOPE_API
