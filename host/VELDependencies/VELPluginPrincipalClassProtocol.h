// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Export.h"

#include <any>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace sealscope SEALSCOPE_API {

/// A plug-in's principal object: created once on the main thread when its bundle has been loaded; it registers what
/// the plug-in offers while it is being created, and lives as long as the host.
class VELPluginPrincipalClassProtocol {
public:
    virtual ~VELPluginPrincipalClassProtocol() = default;
};

/// A principal class as a value.
struct VELPrincipalClass {
    std::string_view name;
    std::unique_ptr<VELPluginPrincipalClassProtocol> (*create)() = nullptr;
    std::unique_ptr<VELPluginPrincipalClassProtocol> (*createWithPlugInsController)(const std::any& controller) = nullptr;
    std::unique_ptr<VELPluginPrincipalClassProtocol> (*createWithPlugInManager)(const std::any& manager) = nullptr;
    std::optional<std::string> (*pluginTitle)() = nullptr;
    std::optional<std::string> (*pluginDescription)() = nullptr;
    std::optional<std::string> (*pluginVersion)() = nullptr;
    std::optional<std::string> (*pluginAuthor)() = nullptr;
    /// A read-only property of the class by its name; nothing for one that it does not have. Null for a class without any.
    std::optional<std::string> (*property)(std::string_view name) = nullptr;
};

/// Version of the contract that a bundle was built against. It changes whenever a record or protocol of `host/` or
/// `platform/` changes its layout or meaning; a bundle of another version is refused by name.
inline constexpr int velContractVersion = 2;

/// What a bundle's loadable module exports under the symbol `velBundleEntry`.
struct VELBundleEntry {
    int contractVersion = 0;
    const VELPrincipalClass* principalClass = nullptr;
};

/// Defined by each bundle's module, and the only symbol that it exports.
extern "C" const VELBundleEntry velBundleEntry;

}  // namespace sealscope SEALSCOPE_API
