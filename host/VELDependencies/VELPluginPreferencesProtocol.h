// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELDependencies/AnalyzerSettingsConfig.h"
#include "platform/Color.h"
#include "platform/Views.h"

#include <optional>

namespace sealscope SEALSCOPE_API {

/// What the host asks about a plug-in's settings, on the main thread.
class VELPluginPreferencesProtocol {
public:
    virtual ~VELPluginPreferencesProtocol();

    /// The settings page, for a page of the bound size. By default the host's standard page of `analyzerSettingsConfig`,
    /// and an empty view without one.
    virtual AnyView settingsView(const Binding<Size>& size);
    /// A window of the plug-in's own instead, if any.
    virtual std::optional<Window> preferencesSheet() { return std::nullopt; }
    /// Whether the host shall colour the plug-in's protocol.
    virtual bool usesColor() = 0;
    virtual Color protocolColor() = 0;
    virtual std::optional<AnalyzerSettingsConfig> analyzerSettingsConfig() = 0;
    /// Stores the plug-in's defaults where nothing is stored; with `reset` in place of what is stored too.
    virtual void setDefaultSettings(bool reset) = 0;
};

}  // namespace sealscope SEALSCOPE_API
