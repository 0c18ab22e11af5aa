// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/BulkCipher.h"
#include "platform/HMAC.h"

#include <cstdint>
#include <optional>
#include <string>

namespace sealscope {

/// How a cipher suite protects records.
enum class RecordProtection : std::uint8_t {
    none,              ///< a MAC alone
    stream,            ///< RC4 and a MAC
    cbc,               ///< blocks and a MAC (RFC 5246 §6.2.3.2, RFC 7366)
    gcm,               ///< RFC 5288, RFC 8446
    ccm,               ///< RFC 6655
    chaCha20,          ///< RFC 7905, RFC 8446
    chaCha20OldNonce,  ///< draft-agl-tls-chacha20poly1305-04: the sequence number alone is the nonce
};

/// What decryption needs to know of a cipher suite. Lengths are bytes.
struct ReachSuite {
    enum class BlockCipher : std::uint8_t { aes, aria, camellia };

    RecordProtection protection = RecordProtection::none;
    BulkAlgorithm bulk = BulkAlgorithm::aesCBC;   ///< of stream and cbc
    BlockCipher block = BlockCipher::aes;         ///< of gcm and ccm
    std::int64_t keyLength = 0;
    std::int64_t tagLength = 16;                  ///< of an AEAD
    HashFunction mac = HashFunction::sha1;        ///< of what is no AEAD
    HashFunction prf = HashFunction::sha256;      ///< of TLS 1.2 and later
    bool isTLS13 = false;                         ///< the suite names no key exchange
    bool isRSAKeyExchange = false;                ///< the client encrypts the premaster secret to the server's certificate

    /// How long a byte takes to decrypt, about, where one of AES-GCM takes 1.
    std::int64_t costPerByte() const;
    bool isAEAD() const { return protection >= RecordProtection::gcm; }
    /// Bytes of the write IV that the key block gives an AEAD of TLS 1.2: all of the nonce, or its first part.
    std::int64_t fixedIVLength() const;
    /// Bytes of the nonce that a record of TLS 1.2 carries in front.
    std::int64_t explicitNonceLength() const { return protection == RecordProtection::gcm || protection == RecordProtection::ccm ? 8 : 0; }
    bool operator==(const ReachSuite&) const = default;

    /// The parameters of a code point, read off its registered name; nothing for what no library at hand can open.
    static std::optional<ReachSuite> of(std::uint16_t codePoint);
    /// Those of a name such as "TLS_ECDHE_RSA_WITH_AES_128_GCM_SHA256".
    static std::optional<ReachSuite> ofName(std::string_view name);
    /// The registered name of a code point; the code point in hexadecimal where it has none.
    static std::string name(std::uint16_t codePoint);
};

}  // namespace sealscope
