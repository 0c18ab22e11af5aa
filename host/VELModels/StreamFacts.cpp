// SPDX-License-Identifier: Apache-2.0
#include "host/VELModels/StreamFacts.h"

#include <utility>

namespace sealscope {

StreamDescriberRegistry& StreamDescriberRegistry::shared()
{
    static StreamDescriberRegistry registry;
    return registry;
}

void StreamDescriberRegistry::add(std::shared_ptr<const StreamDescribing> describer)
{
    const std::lock_guard lock(mutex_);
    describers_.push_back(std::move(describer));
}

void StreamDescriberRegistry::remove(const std::shared_ptr<const StreamDescribing>& describer)
{
    const std::lock_guard lock(mutex_);
    std::erase(describers_, describer);
}

std::vector<std::shared_ptr<const StreamDescribing>> StreamDescriberRegistry::snapshot() const
{
    const std::lock_guard lock(mutex_);
    return describers_;
}

}  // namespace sealscope
