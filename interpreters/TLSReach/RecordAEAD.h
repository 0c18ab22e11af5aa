// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "interpreters/TLSReach/ReachSuite.h"
#include "platform/AEAD.h"
#include "platform/BulkCipher.h"

#include <memory>
#include <variant>

struct gcry_cipher_handle;

namespace sealscope {

/// Camellia in Galois/Counter Mode (RFC 6367 §4.2), which libcrypto does not have. Used by one thread at a time.
class CamelliaGCM {
public:
    explicit CamelliaGCM(DataView key);
    [[nodiscard]] bool open(DataView nonce, DataView additionalData, const ScatteredView& ciphertext, DataView tag, std::uint8_t* plaintext);

private:
    struct Close {
        void operator()(gcry_cipher_handle* handle) const;
    };
    std::unique_ptr<gcry_cipher_handle, Close> handle_;
};

/// ChaCha20 and Poly1305 as they were put together before RFC 7539 (draft-agl-tls-chacha20poly1305-04 §5): a nonce of 8 bytes, and
/// nothing is padded before it is hashed. Used by one thread at a time.
class OldChaCha20Poly1305 {
public:
    explicit OldChaCha20Poly1305(DataView key);
    [[nodiscard]] bool open(DataView nonce, DataView additionalData, const ScatteredView& ciphertext, DataView tag, std::uint8_t* plaintext);

private:
    struct Close {
        void operator()(gcry_cipher_handle* handle) const;
    };
    std::unique_ptr<gcry_cipher_handle, Close> handle_;
};

/// The AEAD of a suite.
class RecordAEAD {
public:
    RecordAEAD(const ReachSuite& suite, DataView key);
    /// Makes the libraries ready, for a process that may open no files later.
    static void prepare();

    /// As `AEADOpener::open`.
    [[nodiscard]] bool open(DataView nonce, DataView additionalData, const ScatteredView& ciphertext, DataView tag, std::uint8_t* plaintext)
    {
        return std::visit([&](auto& cipher) { return cipher.open(nonce, additionalData, ciphertext, tag, plaintext); }, cipher_);
    }

private:
    using Cipher = std::variant<AEADOpener, CCMOpener, CamelliaGCM, OldChaCha20Poly1305>;
    static Cipher make(const ReachSuite& suite, DataView key);
    Cipher cipher_;
};

}  // namespace sealscope
