// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELDependencies/VELNetworkProtocol.h"
#include "host/VELDependencies/VELPlugInStructure.h"
#include "host/VELDependencies/VELPluginPreferencesProtocol.h"
#include "host/VELDependencies/VELPluginPrincipalClassProtocol.h"
#include "platform/ObservableObject.h"

#include <any>
#include <optional>
#include <string>
#include <string_view>

namespace sealscope {

/// The plug-in's principal class and its preferences object: describes the plug-in to the host, and answers for its settings.
/// It caches none of them; they live in the standard user defaults. Main thread only, apart from the four class operations
/// that describe the plug-in.
class TLSPlugInController final : public VELPluginPrincipalClassProtocol, public VELPluginPreferencesProtocol, public ObservableObject {
public:
    /// User-defaults keys: the protocol list (data), whether to colour (boolean) and the colour (its raw value).
    static constexpr const char* kTLSPlugInNetworkProtocol = "com_quillmarshworks_vel_tls_protocols";
    static constexpr const char* kTLSUsesColor = "com_quillmarshworks_vel_tls_color_use";
    static constexpr const char* kTLSColor = "com_quillmarshworks_vel_tls_color";

    static constexpr std::string_view principalClassName = "TLSPlugInController";
    /// The class as the bundle exports it.
    static const VELPrincipalClass& principalClass;

    static std::optional<std::string> pluginTitle();
    static std::optional<std::string> pluginDescription();
    /// "1.4 (27)": short version and build of the bundle's information dictionary; "0" when either is missing.
    static std::optional<std::string> pluginVersion();
    static std::optional<std::string> pluginAuthor();
    /// The user-defaults keys above by their names.
    static std::optional<std::string> property(std::string_view name);

    /// Writes the default settings and registers the plug-in.
    TLSPlugInController();

    /// Describes the plug-in anew, registers the description and a decryption probe; gives the host's answer to the description.
    bool setupPlugIn();
    /// Writes the protocol list, and the colour settings that are missing; with `reset` those that are there too.
    void setDefaultSettings(bool reset) override;

    /// Absent until `setupPlugIn` has run.
    const std::optional<VELPlugInStructure>& pluginStruct() const { return pluginStruct_; }
    void setPluginStruct(std::optional<VELPlugInStructure> pluginStruct);

    bool usesColor() override;
    Color protocolColor() override;
    std::optional<AnalyzerSettingsConfig> analyzerSettingsConfig() override;

    /// A stored protocol as the description names it.
    static VELPlugInNetworkProtocol targetProtocol(const VELNetworkProtocol& stored);

private:
    std::optional<VELPlugInStructure> pluginStruct_;
};

}  // namespace sealscope
