// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/UserDefaults.h"

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace sealscope SEALSCOPE_API {

/// The key log file that the user chose. Any thread may call any operation.
struct KeylogUserFile {
    KeylogUserFile() = delete;

    /// Under which the path is stored in the user defaults, as a string.
    static std::string_view pathDefaultsKey();
    /// The path to open: the stored one with "~" resolved; nothing when none is set, or an empty one.
    static std::optional<std::string> resolvedPath(const UserDefaults& defaults);
    /// Stores the user's choice. False when it could not be stored; the defaults then say why.
    static bool remember(const std::filesystem::path& file, UserDefaults& defaults);
};

}  // namespace sealscope SEALSCOPE_API
