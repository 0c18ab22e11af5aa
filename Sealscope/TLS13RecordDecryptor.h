// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Sealscope/TLS12RecordDecryptor.h"
#include "platform/HMAC.h"

#include <absl/container/inlined_vector.h>
#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

namespace sealscope {

/// What decryption needs to know of a TLS 1.3 cipher suite. Lengths are bytes.
struct TLS13SuiteParameters {
    AEADCipher cipher = AEADCipher::aesGCM;
    std::int64_t keyLength = 0;
    std::int64_t ivLength = 12;
    HashFunction hash = HashFunction::sha256;
    bool operator==(const TLS13SuiteParameters&) const = default;
};

/// One protected record as it was captured.
struct TLS13CipherRecord {
    Data header;  ///< the 5 bytes of the record header, which are the additional data
    Data body;    ///< tag included
    std::vector<std::int64_t> packetIds;
    double timestamp = 0;  ///< seconds since 1970; 0 when unknown
};

/// One opened record, with the packets and the time of what it was opened from.
struct TLS13DecryptedRecord {
    std::uint8_t innerType = 0;  ///< content type within the protection (RFC 8446 §5.2)
    Data plaintext;              ///< without inner type and padding
    std::vector<std::int64_t> packetIds;
    double timestamp = 0;
};

/// The record keys of one traffic secret.
struct TLS13TrafficKeys {
    SymmetricKey key;
    SecretBytes iv;
};

/// Opens the records of TLS 1.3 connections. Stateless; any thread may call any operation.
struct TLS13RecordDecryptor {
    TLS13RecordDecryptor() = delete;

    /// Nothing for a suite that cannot be opened.
    static std::optional<TLS13SuiteParameters> suiteParameters(std::uint16_t cipherSuite);
    /// In front of every label (RFC 8446 §7.1). Drafts up to 19 had another.
    static constexpr std::string_view labelPrefix = "tls13 ";
    /// The HkdfLabel of RFC 8446 §7.1. The label without its prefix has at most 249 bytes, the context at most 255.
    static absl::InlinedVector<std::uint8_t, 32> hkdfLabel(std::uint16_t length, std::string_view label, DataView context,
                                                           std::string_view prefix = labelPrefix);
    /// HKDF-Expand-Label with an empty context (RFC 8446 §7.1), of a secret that keys the HMAC.
    static SecretBytes expandLabel(HMAC& secret, std::string_view label, std::int64_t length, std::string_view prefix = labelPrefix);
    /// The keys of a traffic secret of any length (RFC 8446 §7.3).
    static TLS13TrafficKeys trafficKeys(DataView secret, const TLS13SuiteParameters& suite, std::string_view prefix = labelPrefix);
    /// RFC 8446 §5.3. An IV shorter than 8 bytes stays as it is.
    static TLS12RecordDecryptor::Nonce recordNonce(DataView iv, std::uint64_t sequence);
    /// The inner plaintext, or nothing when the record is too short or does not authenticate.
    static std::optional<Data> open(const TLS13CipherRecord& record, const SymmetricKey& key, DataView nonce, AEADCipher cipher);
    /// Inner content type and content of an inner plaintext, which ends in the type and any number of zeros (RFC 8446 §5.2);
    /// nothing when it is all zeros.
    static std::optional<std::pair<std::uint8_t, DataView>> innerPlaintext(DataView bytes);
    /// Opens a direction's records, first with the handshake keys, where there are any, and from the first that these do not
    /// open on with the application keys; ends at the first that does not open. Nothing when the suite cannot be opened.
    static std::optional<std::vector<TLS13DecryptedRecord>> decryptRecords(const std::vector<TLS13CipherRecord>& records,
                                                                           std::optional<DataView> handshakeSecret,
                                                                           DataView applicationSecret, std::uint16_t cipherSuite);

    /// What came out of a record.
    struct Opened {
        std::uint8_t innerType = 0;
        std::int64_t length = 0;  ///< bytes of content
    };
    class RecordSequence;
};

/// The records of a direction, one at a time.
class TLS13RecordDecryptor::RecordSequence {
public:
    RecordSequence(std::optional<DataView> handshakeSecret, DataView applicationSecret, const TLS13SuiteParameters& suite);

    /// Opens the direction's next protected record into `plaintext`, which has room for as many bytes as the body has. Nothing
    /// ends the sequence.
    std::optional<Opened> open(DataView header, const ScatteredView& body, std::uint8_t* plaintext);

    /// Where a direction stands between two records.
    struct Position {
        std::uint64_t applicationSequence = 0;
        std::optional<std::uint64_t> handshakeSequence;  ///< nothing once the handshake keys are done with
        bool isFinished = false;
    };
    Position position() const;
    /// Goes on from where another sequence of the same secrets stood; this one has opened nothing yet.
    void goTo(const Position& position);

private:
    /// The keys of one traffic secret, and how many records they have opened.
    struct Epoch {
        TLS13TrafficKeys keys;
        std::uint64_t sequence = 0;
    };

    std::optional<Opened> open(Epoch& epoch, DataView header, const ScatteredView& body, std::uint8_t* plaintext);

    Epoch application_;
    std::int64_t hashSize_ = 0;       ///< bytes
    std::optional<Epoch> handshake_;  ///< until the first record that it does not open
    bool isFinished_ = false;         ///< the handshake keys opened a Finished message
    AEADOpener aead_;                 ///< serves both: to make one costs as much as to derive a key
    bool hasApplicationKey_ = false;
};

}  // namespace sealscope
