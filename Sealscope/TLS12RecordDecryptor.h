// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/TCPSegment.h"
#include "platform/AEAD.h"
#include "platform/HMAC.h"
#include "platform/SymmetricKey.h"

#include <absl/container/inlined_vector.h>
#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace sealscope {

/// How a cipher suite protects records. The tag has 16 bytes in both cases.
using AEADCipher = AEADAlgorithm;

/// What decryption needs to know of a TLS 1.2 cipher suite. Lengths are bytes.
struct TLS12SuiteParameters {
    AEADCipher cipher = AEADCipher::aesGCM;
    std::int64_t keyLength = 0;      ///< of each write key
    std::int64_t fixedIVLength = 0;  ///< of each write IV in the key block
    bool usesSHA384 = false;         ///< in the PRF; otherwise SHA-256
    bool operator==(const TLS12SuiteParameters&) const = default;
};

/// One record of a direction as it was captured.
struct TLS12Record {
    std::uint8_t contentType = 0;
    std::uint16_t version = 0x0303;  ///< of the record header
    Data payload;                    ///< everything after the header
    std::vector<std::int64_t> packetIds;
    double timestamp = 0;  ///< seconds since 1970; 0 when unknown
};

/// One opened record, with the packets and the time of what it was opened from.
struct TLS12DecryptedRecord {
    Data plaintext;
    std::vector<std::int64_t> packetIds;
    double timestamp = 0;
};

/// Opens the application data of TLS 1.2 connections whose suite is an AEAD. Stateless; any thread may call any operation.
struct TLS12RecordDecryptor {
    TLS12RecordDecryptor() = delete;

    struct DirectionKeys {
        SymmetricKey key;
        SecretBytes fixedIV;  ///< AES-GCM: the 4 implicit bytes of the nonce; ChaCha20-Poly1305: 12 bytes, to mix with the sequence number
    };

    /// Nothing for a suite that cannot be opened.
    static std::optional<TLS12SuiteParameters> suiteParameters(std::uint16_t cipherSuite);
    static SecretBytes hmac(DataView key, DataView data, bool usesSHA384);
    /// P_hash of RFC 5246 §5: A(i) = HMAC(secret, A(i-1)) from A(0) = seed on, and the output is HMAC(secret, A(i) | seed) for
    /// i = 1, 2, … The seed begins with the label.
    static SecretBytes pHash(HashFunction hash, DataView secret, DataView seed, std::size_t length);
    /// The key expansion of RFC 5246 §6.3. Both randoms have 32 bytes, the master secret 48.
    static std::optional<DirectionKeys> directionKeys(TCPSegment::Direction direction, const TLS12SuiteParameters& parameters,
                                                      DataView clientRandom, DataView serverRandom, DataView masterSecret);

    static std::array<std::uint8_t, 8> sequenceBytes(std::uint64_t sequence);
    /// Additional data of a record (RFC 5246 §6.2.3.3); `length` is that of the plaintext.
    static std::array<std::uint8_t, 13> additionalData(std::uint64_t sequence, std::uint8_t contentType, std::uint16_t version,
                                                       std::uint16_t length);
    /// The bytes of a nonce: 12 as a rule.
    using Nonce = absl::InlinedVector<std::uint8_t, 16>;
    /// Makes an IV the nonce of RFC 7905 §2 and RFC 8446 §5.3: the sequence number is mixed into its last 8 bytes. Fewer stay as they
    /// are.
    static void mixSequence(std::span<std::uint8_t> iv, std::uint64_t sequence);
    /// The same of a copy.
    static Nonce mixedNonce(DataView iv, std::uint64_t sequence);
    /// RFC 7905 §2. An IV that does not have 12 bytes stays as it is.
    static Nonce chaChaNonce(DataView fixedIV, std::uint64_t sequence);
    /// RFC 5288 §3: the IV, then the explicit nonce that the record begins with.
    static Nonce gcmNonce(DataView fixedIV, const ScatteredView& payload);
    /// The plaintext, or nothing when the record is too short or does not authenticate.
    static std::optional<Data> decrypt(const TLS12Record& record, const DirectionKeys& keys, std::uint64_t sequence, AEADCipher cipher);
    /// Opens what opens of a direction's application data, from its ChangeCipherSpec on; what does not open is left out.
    static std::vector<TLS12DecryptedRecord> decryptDirection(const std::vector<TLS12Record>& records, const DirectionKeys& keys,
                                                              AEADCipher cipher);

    class Opener;
    class RecordSequence;
};

/// Opens single records under one key.
class TLS12RecordDecryptor::Opener {
public:
    Opener(const DirectionKeys& keys, AEADCipher cipher);

    /// Opens a record's payload into `plaintext`, which has room for as many bytes as the payload has, and returns how many
    /// the plaintext has; nothing when the record is too short or does not authenticate.
    std::optional<std::int64_t> open(std::uint64_t sequence, std::uint16_t version, const ScatteredView& payload, std::uint8_t* plaintext);

private:
    AEADCipher cipher_;
    SecretBytes fixedIV_;
    AEADOpener aead_;
};

/// The records of a direction, one at a time: which records are protected, and which sequence number each has.
class TLS12RecordDecryptor::RecordSequence {
public:
    RecordSequence(const DirectionKeys& keys, AEADCipher cipher) : opener_(keys, cipher) {}

    /// Moves on to a direction's next record. True when it is protected application data, which `open` opens. `count` of one
    /// type in a row may be passed at once where nobody opens them.
    bool advance(std::uint8_t contentType, std::int64_t count = 1);
    std::optional<std::int64_t> open(std::uint16_t version, const ScatteredView& payload, std::uint8_t* plaintext)
    {
        return opener_.open(position_.sequence - 1, version, payload, plaintext);
    }
    /// Where a direction stands between two records: another sequence of the same keys goes on from there.
    struct Position {
        std::int64_t changeCipherSpecs = 0;
        std::uint64_t sequence = 0;  ///< of the next protected record
    };
    Position position() const { return position_; }
    void goTo(const Position& position) { position_ = position; }

    /// ChangeCipherSpec records so far. The second begins another epoch, whose keys come from a handshake that is encrypted.
    std::int64_t changeCipherSpecs() const { return position_.changeCipherSpecs; }

private:
    Opener opener_;
    Position position_;
};

}  // namespace sealscope
