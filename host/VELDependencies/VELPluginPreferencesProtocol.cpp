// SPDX-License-Identifier: Apache-2.0
#include "host/VELDependencies/VELPluginPreferencesProtocol.h"

namespace sealscope {

VELPluginPreferencesProtocol::~VELPluginPreferencesProtocol() = default;

AnyView VELPluginPreferencesProtocol::settingsView(const Binding<Size>&)
{
    const auto config = analyzerSettingsConfig();
    return config ? settingsPage(*config) : AnyView();
}

}  // namespace sealscope
