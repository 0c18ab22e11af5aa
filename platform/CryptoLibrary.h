// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Export.h"

#include <filesystem>

namespace sealscope SEALSCOPE_API {

/// libcrypto as a whole: it reads a configuration file, and loads what that names, when a cipher is first wanted.
struct CryptoLibrary {
    CryptoLibrary() = delete;
    /// Does that now, for a process which may not do it later.
    static void configure();
    /// The configuration file; it need not exist.
    static std::filesystem::path configurationFile();
};

}  // namespace sealscope SEALSCOPE_API
