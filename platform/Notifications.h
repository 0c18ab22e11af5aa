// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/ObserverList.h"

#include <any>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

namespace sealscope SEALSCOPE_API {

/// Something that happened, told to whoever listens for its name.
struct Notification {
    std::string name;
    const void* object = nullptr;  ///< who it is about; null when it is about nobody
    std::map<std::string, std::any> userInfo;
};

/// Brings notifications from those who post them to those who observe them. Any thread may use it; observers run on the
/// posting thread before `post` returns.
class NotificationCenter {
public:
    static NotificationCenter& standard();

    void post(const Notification& notification);
    [[nodiscard]] ObservationToken observe(std::string_view name, std::function<void(const Notification&)> received);

    NotificationCenter() = default;
    NotificationCenter(const NotificationCenter&) = delete;
    NotificationCenter& operator=(const NotificationCenter&) = delete;

private:
    using Observers = ObserverList<const Notification&>;
    std::mutex mutex_;
    std::map<std::string, std::shared_ptr<Observers>, std::less<>> observers_;
};

}  // namespace sealscope SEALSCOPE_API
