// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Data.h"
#include "platform/SecretMemory.h"

#include <cstdint>
#include <expected>
#include <memory>
#include <optional>

struct evp_pkey_st;

namespace sealscope SEALSCOPE_API {

/// A private RSA key, as a server has one. Cheap to copy; copies share the key, which libcrypto wipes with the last of them. Any
/// thread may use it.
class PrivateKey {
public:
    enum class Problem : std::uint8_t {
        noKey,            ///< neither PEM with a private key in it nor PKCS #12
        needsPassphrase,  ///< is encrypted, and no passphrase was given
        wrongPassphrase,
        notRSA,
    };
    /// The key in a file's bytes: PEM, encrypted or not (RFC 7468 §10, §11), or PKCS #12 (RFC 7292).
    static std::expected<PrivateKey, Problem> read(DataView file, const std::optional<SecretBytes>& passphrase);

    /// Decrypts by RSAES-PKCS1-v1_5 (RFC 8017 §7.2.2); nothing when it is not for this key.
    std::optional<SecretBytes> decrypt(DataView ciphertext) const;
    /// Of the modulus, in bytes.
    std::int64_t size() const;
    /// Whether a certificate, in DER, has the public key that belongs to it.
    bool isOf(DataView certificate) const;

private:
    explicit PrivateKey(std::shared_ptr<evp_pkey_st> key) : key_(std::move(key)) {}
    std::shared_ptr<evp_pkey_st> key_;
};

}  // namespace sealscope SEALSCOPE_API
