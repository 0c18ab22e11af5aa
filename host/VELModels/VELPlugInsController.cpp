// SPDX-License-Identifier: Apache-2.0
#include "host/VELModels/VELPlugInsController.h"

#include "host/VELModels/VELStreamInterpreting.h"

#include <algorithm>

namespace sealscope {

VELPlugInsController& VELPlugInsController::sharedManager()
{
    static VELPlugInsController manager;
    return manager;
}

bool VELPlugInsController::registerVELPlugIn(VELPlugInStructure plugIn, const Bundle& forBundle)
{
    if (!plugIn.plugInAnalyzerClass) return false;
    if (const auto* interpreter = plugIn.plugInAnalyzerClass->streamInterpreter) VELStreamInterpreterRegistry::shared().add(interpreter);

    const std::lock_guard lock(mutex_);
    const auto same = std::ranges::find_if(plugIns_, [&](const Registration& other) {
        return other.bundle == &forBundle && other.plugIn.plugInPrincipalClass == plugIn.plugInPrincipalClass;
    });
    if (same != plugIns_.end())
        same->plugIn = std::move(plugIn);
    else
        plugIns_.push_back({std::move(plugIn), &forBundle});
    return true;
}

void VELPlugInsController::unregisterVELPlugIn(const UUID& id)
{
    const std::lock_guard lock(mutex_);
    const auto found = std::ranges::find_if(plugIns_, [&](const Registration& other) { return other.plugIn.id == id; });
    if (found == plugIns_.end()) return;
    VELStreamInterpreterRegistry::shared().remove(found->plugIn.plugInAnalyzerClass->streamInterpreter);
    plugIns_.erase(found);
}

std::vector<VELPlugInsController::Registration> VELPlugInsController::plugIns() const
{
    const std::lock_guard lock(mutex_);
    return plugIns_;
}

}  // namespace sealscope
