// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/PrivateKey.h"
#include "platform/SecretMemory.h"

#include <expected>
#include <optional>
#include <string>

namespace sealscope {

/// Why a file gives no private key.
struct PrivateKeyFileProblem {
    int error = 0;                               ///< `errno`, when it could not be read
    std::optional<PrivateKey::Problem> problem;  ///< with what was read
};

/// Reads a file of secrets, which may be a pipe, into memory that is wiped: `errno` when it cannot be, EFBIG for more than a megabyte.
std::expected<SecretBytes, int> readSecretFile(const std::string& file);
/// Reads a private key, in PEM or in PKCS #12.
std::expected<PrivateKey, PrivateKeyFileProblem> readPrivateKeyFile(const std::string& file, const std::optional<SecretBytes>& passphrase);
/// The first line of a file that holds a passphrase.
std::expected<SecretBytes, int> readPassphraseFile(const std::string& file);

}  // namespace sealscope
