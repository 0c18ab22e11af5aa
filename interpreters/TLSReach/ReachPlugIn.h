// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELDependencies/VELPluginPrincipalClassProtocol.h"

#include <optional>
#include <string>
#include <string_view>

namespace sealscope {

/// The bundle's principal class: registers its probe and its format. Main thread only, apart from the class operations.
class ReachPlugIn final : public VELPluginPrincipalClassProtocol {
public:
    static constexpr std::string_view principalClassName = "ReachPlugIn";
    static const VELPrincipalClass& principalClass;

    static std::optional<std::string> pluginTitle();
    static std::optional<std::string> pluginDescription();
    static std::optional<std::string> pluginVersion();
    static std::optional<std::string> pluginAuthor();

    ReachPlugIn();
};

}  // namespace sealscope
