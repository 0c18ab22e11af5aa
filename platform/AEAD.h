// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Data.h"
#include "platform/ScatteredView.h"

#include <cstdint>
#include <memory>
#include <optional>

struct evp_cipher_ctx_st;

namespace sealscope SEALSCOPE_API {

enum class AEADAlgorithm : std::uint8_t {
    aesGCM,            ///< NIST SP 800-38D with a key of 16, 24 or 32 bytes and a nonce of 12 to 128
    chaCha20Poly1305,  ///< RFC 8439 with a key of 32 bytes and a nonce of 12
    ariaGCM,           ///< as aesGCM, over ARIA (RFC 5794)
};

/// Opens messages that one key protects. Keeps what depends on the key from message to message; wipes it in the end.
/// Used by one thread at a time.
class AEADOpener {
public:
    static constexpr std::int64_t tagSize = 16;

    AEADOpener(AEADAlgorithm algorithm, DataView key);

    /// Goes on with messages that another key protects.
    void setKey(DataView key);
    /// Opens into `plaintext`, which has room for as many bytes as the ciphertext has and does not touch it. False when the
    /// message does not authenticate, or key, nonce or tag have no length that the algorithm takes; what then stands in
    /// `plaintext` means nothing.
    [[nodiscard]] bool open(DataView nonce, DataView additionalData, const ScatteredView& ciphertext, DataView tag,
                            std::uint8_t* plaintext);

private:
    struct Free {
        void operator()(evp_cipher_ctx_st* context) const;
    };
    bool begin(DataView nonce, DataView tag);
    bool beginNext(DataView nonce, DataView tag);
    bool finish(DataView additionalData, const ScatteredView& ciphertext, std::uint8_t* plaintext);
    bool decrypt(const ScatteredView& ciphertext, std::uint8_t* plaintext);

    AEADAlgorithm algorithm_;
    std::int64_t nonceSize_ = 0;
    bool nextIsProven_ = false;
    std::optional<std::uint32_t> fixedNonce_;  ///< the first four bytes of the nonce, when they stand as those of TLS
    std::unique_ptr<evp_cipher_ctx_st, Free> context_;
    bool isKeyed_ = false;  ///< false when the key cannot be used
};

}  // namespace sealscope SEALSCOPE_API
