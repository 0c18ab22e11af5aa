// SPDX-License-Identifier: Apache-2.0
#include "host/VELModels/VELPlugInsController.h"

#include "host/VELModels/VELStreamInterpreting.h"

#include <algorithm>
#include <iterator>

namespace sealscope {

VELPlugInsController& VELPlugInsController::sharedManager()
{
    static VELPlugInsController manager;
    return manager;
}

namespace {

std::vector<const VELStreamInterpreting*> interpretersOf(const VELPlugInStructure& plugIn)
{
    std::vector<const VELStreamInterpreting*> interpreters = plugIn.plugInStreamInterpreters;
    if (plugIn.plugInAnalyzerClass && plugIn.plugInAnalyzerClass->streamInterpreter)
        interpreters.insert(interpreters.begin(), plugIn.plugInAnalyzerClass->streamInterpreter);
    return interpreters;
}

}  // namespace

bool VELPlugInsController::registerVELPlugIn(VELPlugInStructure plugIn, const Bundle& forBundle)
{
    const auto interpreters = interpretersOf(plugIn);
    if (!plugIn.plugInAnalyzerClass && interpreters.empty() && plugIn.plugInExportFormats.empty()) return false;

    const std::lock_guard lock(mutex_);
    const auto same = std::ranges::find_if(plugIns_, [&](const Registration& other) {
        return other.bundle == &forBundle && other.plugIn.plugInPrincipalClass == plugIn.plugInPrincipalClass;
    });
    if (same != plugIns_.end()) {
        for (const VELStreamInterpreting* interpreter : interpretersOf(same->plugIn))
            if (std::ranges::find(interpreters, interpreter) == interpreters.end()) VELStreamInterpreterRegistry::shared().remove(interpreter);
        same->plugIn = std::move(plugIn);
    } else {
        plugIns_.push_back({std::move(plugIn), &forBundle});
    }
    for (const VELStreamInterpreting* interpreter : interpreters) VELStreamInterpreterRegistry::shared().add(interpreter);
    return true;
}

void VELPlugInsController::unregisterVELPlugIn(const UUID& id)
{
    const std::lock_guard lock(mutex_);
    const auto found = std::ranges::find_if(plugIns_, [&](const Registration& other) { return other.plugIn.id == id; });
    if (found == plugIns_.end()) return;
    for (const VELStreamInterpreting* interpreter : interpretersOf(found->plugIn)) VELStreamInterpreterRegistry::shared().remove(interpreter);
    plugIns_.erase(found);
}

std::vector<VELPlugInsController::Registration> VELPlugInsController::plugIns() const
{
    const std::lock_guard lock(mutex_);
    return plugIns_;
}

std::vector<const StreamExportFormat*> VELPlugInsController::exportFormats() const
{
    const std::lock_guard lock(mutex_);
    std::vector<const StreamExportFormat*> formats;
    for (const Registration& registration : plugIns_) std::ranges::copy(registration.plugIn.plugInExportFormats, std::back_inserter(formats));
    return formats;
}

}  // namespace sealscope
