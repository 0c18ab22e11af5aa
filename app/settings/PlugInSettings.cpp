// SPDX-License-Identifier: Apache-2.0
#include "app/settings/PlugInSettings.h"

#include "host/VELDependencies/VELPluginPreferencesProtocol.h"
#include "host/VELModels/VELPlugInsController.h"
#include "platform/UserDefaults.h"

namespace sealscope {

std::vector<PlugInSettings> plugInSettings()
{
    std::vector<PlugInSettings> all;
    for (const auto& registration : VELPlugInsController::sharedManager().plugIns())
        if (auto* const instance = registration.plugIn.plugInPreferencesInstance) all.push_back({registration.plugIn.plugInTitle, instance});
    return all;
}

bool resetSettings()
{
    UserDefaults& defaults = UserDefaults::standard();
    bool areKept = true;
    for (const auto& [key, value] : defaults.all()) areKept &= defaults.remove(key);
    for (const PlugInSettings& settings : plugInSettings()) settings.preferences->setDefaultSettings(true);
    return areKept;
}

}  // namespace sealscope
