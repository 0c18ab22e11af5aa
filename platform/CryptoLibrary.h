// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Export.h"

#include <filesystem>

struct ossl_lib_ctx_st;

namespace sealscope SEALSCOPE_API {

/// libcrypto as a whole: it reads a configuration file, and loads what that names, when a cipher is first wanted. The ciphers of old
/// come in a module of their own.
struct CryptoLibrary {
    CryptoLibrary() = delete;
    /// Does all of that now, for a process which may load no code later.
    static void configure();
    /// The configuration file; it need not exist.
    static std::filesystem::path configurationFile();
    /// A library context with the ciphers of old, apart from all others: what the process fetches elsewhere shall not depend on
    /// whether somebody needed one.
    static ossl_lib_ctx_st* legacyContext();
};

}  // namespace sealscope SEALSCOPE_API
