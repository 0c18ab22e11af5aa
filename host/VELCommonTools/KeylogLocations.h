// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/FileDescriptor.h"

#include <expected>
#include <filesystem>
#include <string>

namespace sealscope SEALSCOPE_API {

/// Where key logs are kept.
struct KeylogLocations {
    KeylogLocations() = delete;
    /// The managed key log, to which the application lets programs write their secrets: `sealscope/keylog.txt` under
    /// `$XDG_DATA_HOME`, by default `~/.local/share`. It need not exist.
    static std::filesystem::path liveKeylog();
    /// Makes it, for its owner alone, with the folders above it; leaves one that is there as it is.
    static std::expected<void, FileError> makeLiveKeylog();
};

}  // namespace sealscope SEALSCOPE_API
