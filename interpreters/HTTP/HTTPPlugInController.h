// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELDependencies/VELPluginPrincipalClassProtocol.h"

#include <optional>
#include <string>
#include <string_view>

namespace sealscope {

/// The plug-in's principal class: describes the plug-in to the host. It has no settings.
class HTTPPlugInController final : public VELPluginPrincipalClassProtocol {
public:
    static constexpr std::string_view principalClassName = "HTTPPlugInController";
    /// The class as the bundle exports it.
    static const VELPrincipalClass& principalClass;

    static std::optional<std::string> pluginTitle();
    static std::optional<std::string> pluginDescription();
    static std::optional<std::string> pluginVersion();
    static std::optional<std::string> pluginAuthor();

    /// Registers the plug-in.
    HTTPPlugInController();
};

}  // namespace sealscope
