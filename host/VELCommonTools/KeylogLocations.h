// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Export.h"

#include <filesystem>

namespace sealscope SEALSCOPE_API {

/// Where key logs are kept.
struct KeylogLocations {
    KeylogLocations() = delete;
    /// The managed key log, to which the application lets programs write their secrets: `sealscope/keylog.txt` under
    /// `$XDG_DATA_HOME`, by default `~/.local/share`. It need not exist.
    static std::filesystem::path liveKeylog();
};

}  // namespace sealscope SEALSCOPE_API
