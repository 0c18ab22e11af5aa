// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

namespace sealscope {

class VELPluginPreferencesProtocol;

/// A plug-in that has settings.
struct PlugInSettings {
    std::string title;
    VELPluginPreferencesProtocol* preferences = nullptr;  ///< lives as long as the plug-in
};

/// Those of the registered plug-ins, in order of registration. Main thread only.
std::vector<PlugInSettings> plugInSettings();

/// Forgets everything that is set and has each plug-in set its defaults. False when that could not be stored; the user
/// defaults then say why.
bool resetSettings();

}  // namespace sealscope
