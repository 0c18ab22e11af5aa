// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Views.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace sealscope SEALSCOPE_API {

/// A switch on a plug-in's settings page.
struct AnalyzerToggleSpec {
    std::string title;
    std::string key;  ///< user-defaults key of a boolean
};

/// The colour controls: whether to colour the protocol, and the colour.
struct AnalyzerColorSpec {
    std::string usesColorKey;  ///< user-defaults key of a boolean
    std::string colorKey;      ///< user-defaults key of a colour's raw value
};

/// The ports editor.
struct AnalyzerPortsSpec {
    std::string protocolsKey;  ///< user-defaults key of an encoded list of `VELNetworkProtocol`
    std::string protocolName;  ///< the one in it whose ports are edited
};

/// What a plug-in's settings page holds, from top to bottom. The host makes the controls.
struct AnalyzerSettingsConfig {
    std::vector<AnalyzerToggleSpec> toggles;
    std::optional<AnalyzerColorSpec> color;
    std::optional<AnalyzerPortsSpec> ports;
    std::function<AnyView()> extraContent;  ///< makes the plug-in's own section; empty when there is none
};

/// The standard settings page of a configuration.
AnyView settingsPage(const AnalyzerSettingsConfig& config);

}  // namespace sealscope SEALSCOPE_API
