// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Export.h"

#include <array>
#include <cstdint>
#include <string_view>
#include <utility>

namespace sealscope SEALSCOPE_API {

/// What the host tells its plug-ins, and they it, through the notification centre.
enum class VELProtocolKonstants : std::uint8_t {
    captureOpened,
    captureClosed,
    packetsAppended,
    reloadStreams,  ///< whoever shows streams asks their interpreters again
    reloadPackets,  ///< whoever shows packets asks their analyzers again
    plugInRegistered,
    protocolsChanged,
    colorsChanged,
    columnsChanged,
    keylogChanged,  ///< the secrets at hand may be others
};

/// The notification's name.
constexpr std::string_view rawValue(VELProtocolKonstants konstant)
{
    constexpr std::array<std::string_view, 10> names{"VELCaptureOpened",  "VELCaptureClosed",    "VELPacketsAppended",  "VELReloadStreams",
                                                     "VELReloadPackets",  "VELPlugInRegistered", "VELProtocolsChanged", "VELColorsChanged",
                                                     "VELColumnsChanged", "VELKeylogChanged"};
    return names[std::to_underlying(konstant)];
}

}  // namespace sealscope SEALSCOPE_API
