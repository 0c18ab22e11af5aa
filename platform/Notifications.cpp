// SPDX-License-Identifier: Apache-2.0
#include "platform/Notifications.h"

namespace sealscope {

NotificationCenter& NotificationCenter::standard()
{
    static auto& center = *new NotificationCenter;
    return center;
}

void NotificationCenter::post(const Notification& notification)
{
    std::shared_ptr<Observers> observers;
    {
        const std::lock_guard lock(mutex_);
        if (const auto found = observers_.find(notification.name); found != observers_.end()) observers = found->second;
    }
    if (observers) observers->notify(notification);
}

ObservationToken NotificationCenter::observe(std::string_view name, std::function<void(const Notification&)> received)
{
    const std::lock_guard lock(mutex_);
    auto& observers = observers_.try_emplace(std::string(name), nullptr).first->second;
    if (!observers) observers = std::make_shared<Observers>();
    return observers->add(std::move(received));
}

}  // namespace sealscope
