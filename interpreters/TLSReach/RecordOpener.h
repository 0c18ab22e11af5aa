// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Sealscope/TLSRecord.h"
#include "interpreters/TLSReach/ReachSuite.h"
#include "platform/Data.h"
#include "platform/ScatteredView.h"
#include "platform/SecretMemory.h"

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>

namespace sealscope {

/// A record under encryption. Everything is lent.
struct ProtectedRecord {
    std::array<std::uint8_t, TLSRecord::headerLength> header{};
    ScatteredView body;
    DataView bytesBefore;             ///< the last bytes in front of the header; empty where they were lost
    bool followsAuthentic = false;    ///< they end a record that authenticated
    std::int64_t offsetUnderKey = 0;  ///< bytes from the first header under the key to this body

    std::uint8_t type() const { return header[0]; }
    std::uint16_t version() const { return static_cast<std::uint16_t>(header[1] << 8 | header[2]); }
};

struct OpenedRecord {
    std::uint8_t type = 0;    ///< content type, of TLS 1.3 the one within the protection
    std::int64_t length = 0;  ///< bytes of content
    bool isReadable = true;   ///< false: it authenticates, but not what its first block is decrypted with, and so no content is given
    bool isOfCipher = true;   ///< false: it authenticates, but what comes out is none of this cipher's, and no content is given either
};

/// Opens the records that one key of one direction protects. What comes out has been authenticated. Used by one thread at a time.
class RecordOpener {
public:
    virtual ~RecordOpener() = default;

    /// Opens into `plaintext`, which has room for as many bytes as the body has, and for those of the longest record. Nothing for a
    /// record that does not authenticate under this sequence number, for whatever reason.
    virtual std::optional<OpenedRecord> open(std::uint64_t sequence, const ProtectedRecord& record, std::uint8_t* plaintext) = 0;
    /// The sequence number that a record says or shows it has; nothing where it does not.
    virtual std::optional<std::uint64_t> sequenceOf(const ProtectedRecord&) { return std::nullopt; }
    /// As many openings does it take to find that out. 0: it is only read, and may be wrong; else no other number opens the record.
    virtual std::int64_t openingsToSay() const { return 0; }
    /// Bytes that have to be gone through for an attempt, beyond the record's own.
    virtual std::int64_t extraCost(std::uint64_t, const ProtectedRecord&) const { return 0; }
    /// Whether a record opens whichever were opened before it.
    virtual bool canOpenAgain() const { return false; }
    /// Where they only open one behind another, an opener that goes on from here beside this one; else null.
    virtual std::unique_ptr<RecordOpener> fork() const { return nullptr; }
    /// The fewest bytes that a body has.
    virtual std::int64_t smallestBody() const = 0;
    /// Bytes of content that a record with a body of that length has, and whether that is certain: at most so many where it is not.
    struct ContentLength {
        std::int64_t bytes = 0;
        bool isExact = false;
    };
    virtual ContentLength contentLength(std::int64_t bodyLength) const = 0;
};

/// The parameters of one direction's keys.
struct RecordKeys {
    SecretBytes macKey;  ///< empty for an AEAD
    SecretBytes key;
    SecretBytes iv;
};

/// Where the MAC of a record of blocks stands: under the encryption, or behind it (RFC 7366).
enum class MACPlace : std::uint8_t { inside, behind };

/// For a version up to TLS 1.2 (0x0300 … 0x0303). Null where the library lacks the cipher.
std::unique_ptr<RecordOpener> makeRecordOpener(const ReachSuite& suite, std::uint16_t version, MACPlace place, const RecordKeys& keys);

/// The same for records that were compressed before they were protected. Null for null.
/// `mayGrow` is asked, where the content of all records so far comes to more than 16 times what was compressed, whether it may be so
/// many bytes more; what it refuses does not open, nor does what follows. Forks do not ask: they open what has been opened.
std::unique_ptr<RecordOpener> inflating(std::unique_ptr<RecordOpener> opener, std::function<bool(std::int64_t)> mayGrow);

/// What drafts of TLS 1.3 did otherwise than RFC 8446.
struct TLS13Draft {
    std::string_view labelPrefix;
    std::string_view updateLabel;     ///< of the next application traffic secret
    bool authenticatesHeader = true;  ///< from draft 25 on
    std::uint16_t recordVersion = 0x0303;

    /// Of the negotiated version: 0x0304, or 0x7f00 and the draft's number.
    static TLS13Draft of(std::uint16_t version);
};

/// The application traffic secret that follows one, after a KeyUpdate (RFC 8446 §7.2).
SecretBytes nextTrafficSecret(const ReachSuite& suite, const TLS13Draft& draft, DataView secret);
/// For TLS 1.3, from a traffic secret.
std::unique_ptr<RecordOpener> makeTLS13Opener(const ReachSuite& suite, const TLS13Draft& draft, DataView trafficSecret);

}  // namespace sealscope
