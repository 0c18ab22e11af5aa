// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Data.h"
#include "platform/ScatteredView.h"
#include "platform/SecretMemory.h"

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

struct evp_cipher_ctx_st;

namespace sealscope SEALSCOPE_API {

/// Ciphers that do not authenticate what they protect, those that nobody should use any more among them.
enum class BulkAlgorithm : std::uint8_t { aesCBC, camelliaCBC, ariaCBC, seedCBC, ideaCBC, desCBC, tripleDESCBC, rc4 };

/// Opens the files that hold ciphers now, for a process that may open none later. Who does not call it opens them when one of those is
/// first wanted.
void loadBulkCiphers();

/// Bytes of a block; 1 for a stream cipher.
std::int64_t blockSize(BulkAlgorithm algorithm);

/// Decrypts what one key encrypted. Keeps what depends on the key from message to message; wipes it in the end. Used by one thread
/// at a time.
class BulkDecryptor {
public:
    BulkDecryptor(BulkAlgorithm algorithm, DataView key);

    /// False when the library lacks the cipher, or it takes no key of that length.
    bool isUsable() const { return isUsable_; }
    /// Decrypts whole blocks in CBC mode into `plaintext`, which has room for as many bytes; padding stays. False for a length
    /// that is no multiple of the block's.
    [[nodiscard]] bool decryptBlocks(DataView iv, const ScatteredView& ciphertext, std::uint8_t* plaintext);
    /// Decrypts what stands at `position` in all that a stream cipher's key encrypted. To go on from the last call costs nothing, to
    /// step elsewhere as much as to decrypt what lies between a place before it and it: the start, where it is, and those every
    /// `betweenPlaces` bytes that it has passed.
    [[nodiscard]] bool decryptStream(std::int64_t position, const ScatteredView& ciphertext, std::uint8_t* plaintext);
    /// What the next call for a position costs before it decrypts anything: bytes of key stream.
    std::int64_t costOfMoving(std::int64_t position) const;

private:
    struct Free {
        void operator()(evp_cipher_ctx_st* context) const;
    };
    using Context = std::unique_ptr<evp_cipher_ctx_st, Free>;
    struct Place {
        std::int64_t position = 0;
        Context context;
    };
    static constexpr std::int64_t betweenPlaces = 1 << 20;

    /// The last place that was kept before a position, or the end.
    std::vector<Place>::const_iterator placeBefore(std::int64_t position) const;
    void keepPlace();
    bool moveTo(std::int64_t position);
    bool update(const ScatteredView& ciphertext, std::uint8_t* plaintext);

    BulkAlgorithm algorithm_;
    Context context_;
    SecretBytes key_;
    bool isUsable_ = false;
    std::int64_t position_ = 0;
    std::vector<Place> places_;  ///< in ascending order
};

/// Opens messages in CCM mode with AES (RFC 3610, NIST SP 800-38C) and a nonce of 12 bytes. Used by one thread at a time.
class CCMOpener {
public:
    /// A key of 16 or 32 bytes, a tag of 8 or 16.
    CCMOpener(DataView key, std::int64_t tagSize);

    /// As `AEADOpener::open`.
    [[nodiscard]] bool open(DataView nonce, DataView additionalData, const ScatteredView& ciphertext, DataView tag, std::uint8_t* plaintext);

private:
    struct Free {
        void operator()(evp_cipher_ctx_st* context) const;
    };
    std::unique_ptr<evp_cipher_ctx_st, Free> context_;
    std::int64_t tagSize_;
    bool isUsable_ = false;
};

/// The nonce of 12 bytes under which AES-GCM gave a message its tag, found out without trying any: the tag is the hash of additional
/// data and ciphertext, which the key alone determines, and an encrypted counter block that begins with the nonce (NIST SP 800-38D
/// §7.1). Nothing where no nonce of that length comes out, as for a message that was changed. Costs twice as much as opening.
std::optional<std::array<std::uint8_t, 12>> aesGCMNonce(DataView key, DataView additionalData, const ScatteredView& ciphertext, DataView tag);

}  // namespace sealscope SEALSCOPE_API
