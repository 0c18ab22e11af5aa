// SPDX-License-Identifier: Apache-2.0
#include "interpreters/TLSReach/RecordOpener.h"

#include "Sealscope/TLS12RecordDecryptor.h"
#include "Sealscope/TLS13RecordDecryptor.h"
#include "interpreters/TLSReach/RecordAEAD.h"
#include "platform/BulkCipher.h"
#include "platform/HMAC.h"

#include <algorithm>
#include <utility>
#include <vector>
#include <zlib.h>

namespace sealscope {

namespace {

constexpr std::uint16_t ssl3 = 0x0300;
constexpr std::uint16_t tls10 = 0x0301;
constexpr std::int64_t longestTag = 16;
constexpr std::int64_t longestMAC = 48;
constexpr std::int64_t longestBlock = 16;

DataView tagOf(const ScatteredView& body, std::int64_t offset, std::span<std::uint8_t> room)
{
    body.from(offset).copy(room);
    return DataView(room.data(), std::ssize(room));
}

/// The MAC of SSL 3.0 (RFC 6101 §5.2.3.1): a hash of key and padding around another.
SecretBytes ssl3MAC(HashFunction hash, DataView key, std::uint64_t sequence, std::uint8_t type, DataView content)
{
    const std::size_t padLength = hash == HashFunction::md5 ? 48 : 40;
    const std::vector<std::uint8_t> first(padLength, 0x36), second(padLength, 0x5C);
    const auto number = TLS12RecordDecryptor::sequenceBytes(sequence);
    const std::array<std::uint8_t, 3> rest{type, static_cast<std::uint8_t>(content.size() >> 8), static_cast<std::uint8_t>(content.size())};
    const SecretBytes inner = digest(hash, {key, first, DataView(number), DataView(rest), content});
    return digest(hash, {key, second, viewOf(inner)});
}

/// The MACs of a direction's records: of what is protected with the header that TLS makes for it.
class RecordMAC {
public:
    RecordMAC(HashFunction hash, std::uint16_t version, DataView key)
        : hash_(hash), version_(version), key_(key.begin(), key.end()), keyed_(hash, key)
    {}

    std::int64_t length() const { return digestSize(hash_); }

    /// Whether `mac` is that of content of `length` bytes, of which `pieces` come one behind another.
    bool isOf(DataView mac, std::uint64_t sequence, const ProtectedRecord& record, const ScatteredView& content)
    {
        std::array<std::uint8_t, longestMAC> computed;
        const auto code = std::span(computed).first(static_cast<std::size_t>(length()));
        if (version_ == ssl3) {
            std::vector<std::uint8_t> gathered(static_cast<std::size_t>(content.size()));
            content.copy(gathered);
            return viewOf(ssl3MAC(hash_, viewOf(key_), sequence, record.type(), gathered)) == mac;
        }
        const auto header =
            TLS12RecordDecryptor::additionalData(sequence, record.type(), record.version(), static_cast<std::uint16_t>(content.size()));
        keyed_.update(DataView(header));
        content.forEach([&](DataView part) {
            keyed_.update(part);
            return true;
        });
        keyed_.finish(code);
        return DataView(code.data(), std::ssize(code)) == mac;
    }

private:
    HashFunction hash_;
    std::uint16_t version_;
    SecretBytes key_;
    HMAC keyed_;
};

/// A MAC alone, or behind a stream cipher.
class StreamOpener final : public RecordOpener {
public:
    StreamOpener(const ReachSuite& suite, std::uint16_t version, const RecordKeys& keys) : mac_(suite.mac, version, viewOf(keys.macKey))
    {
        if (suite.protection == RecordProtection::stream) cipher_.emplace(suite.bulk, viewOf(keys.key));
    }
    bool isUsable() const { return !cipher_ || cipher_->isUsable(); }

    std::optional<OpenedRecord> open(std::uint64_t sequence, const ProtectedRecord& record, std::uint8_t* plaintext) override
    {
        const std::int64_t length = record.body.size() - mac_.length();
        if (length < 0) return std::nullopt;
        if (!cipher_) {
            std::array<std::uint8_t, longestMAC> room;
            const DataView mac = tagOf(record.body, length, std::span(room).first(static_cast<std::size_t>(mac_.length())));
            if (!mac_.isOf(mac, sequence, record, record.body.sub(0, length))) return std::nullopt;
            record.body.sub(0, length).copy(std::span(plaintext, static_cast<std::size_t>(length)));
            return OpenedRecord{record.type(), length};
        }
        const std::int64_t position = positionOf(sequence, record);
        if (position < 0 || !cipher_->decryptStream(position, record.body, plaintext)) return std::nullopt;
        const DataView content(plaintext, length);
        if (!mac_.isOf({plaintext + length, mac_.length()}, sequence, record, content)) return std::nullopt;
        return OpenedRecord{record.type(), length};
    }
    std::int64_t extraCost(std::uint64_t sequence, const ProtectedRecord& record) const override
    {
        const std::int64_t position = positionOf(sequence, record);
        return cipher_ && position >= 0 ? cipher_->costOfMoving(position) : 0;
    }
    bool canOpenAgain() const override { return true; }
    std::int64_t smallestBody() const override { return mac_.length(); }
    ContentLength contentLength(std::int64_t bodyLength) const override
    {
        return {std::max<std::int64_t>(bodyLength - mac_.length(), 0), true};
    }

private:
    /// Where in the key stream a body lies: behind all bodies before it, each of which had a header.
    static std::int64_t positionOf(std::uint64_t sequence, const ProtectedRecord& record)
    {
        const std::int64_t most = record.offsetUnderKey / TLSRecord::headerLength;
        if (sequence >= static_cast<std::uint64_t>(most)) return -1;
        return record.offsetUnderKey - TLSRecord::headerLength * (static_cast<std::int64_t>(sequence) + 1);
    }

    RecordMAC mac_;
    std::optional<BulkDecryptor> cipher_;
};

/// Blocks in CBC mode, with the MAC inside (RFC 5246 §6.2.3.2) or behind (RFC 7366).
class BlockOpener final : public RecordOpener {
public:
    BlockOpener(const ReachSuite& suite, std::uint16_t version, MACPlace place, const RecordKeys& keys)
        : version_(version), encryptsThenMACs_(place == MACPlace::behind), block_(blockSize(suite.bulk)),
          cipher_(suite.bulk, viewOf(keys.key)), mac_(suite.mac, version, viewOf(keys.macKey)), firstIV_(keys.iv)
    {}
    bool isUsable() const { return cipher_.isUsable(); }

    std::optional<OpenedRecord> open(std::uint64_t sequence, const ProtectedRecord& record, std::uint8_t* plaintext) override
    {
        ScatteredView sealed = record.body;
        if (encryptsThenMACs_) {
            const std::int64_t length = sealed.size() - mac_.length();
            if (length < block_) return std::nullopt;
            std::array<std::uint8_t, longestMAC> room;
            const DataView mac = tagOf(sealed, length, std::span(room).first(static_cast<std::size_t>(mac_.length())));
            sealed = sealed.sub(0, length);
            if (!mac_.isOf(mac, sequence, record, sealed)) return std::nullopt;
        }
        std::array<std::uint8_t, longestBlock> room;
        DataView iv;
        if (hasExplicitIV()) {
            if (sealed.size() < 2 * block_) return std::nullopt;
            iv = tagOf(sealed, 0, std::span(room).first(static_cast<std::size_t>(block_)));
            sealed = sealed.from(block_);
        } else {
            // The last block of the record before (RFC 2246 §6.2.3.2), which stands right in front of the header.
            iv = sequence == 0 ? viewOf(firstIV_) : record.bytesBefore.from(record.bytesBefore.size() - block_);
            if (encryptsThenMACs_ && sequence > 0 && iv.size() == block_) {
                // With a MAC behind the blocks that is where the MAC stands; the block lies before it.
                const std::int64_t end = record.bytesBefore.size() - mac_.length();
                iv = record.bytesBefore.sub(end - block_, block_);
            }
            // That MAC does not cover an IV that the record does not carry (RFC 7366 §3): one that is changed changes the first block.
            if (encryptsThenMACs_ && sequence > 0 && !record.followsAuthentic) return OpenedRecord{record.type(), 0, false};
        }
        if (sealed.size() == 0 || !cipher_.decryptBlocks(iv, sealed, plaintext)) return std::nullopt;
        // The bytes of a padding say how many stand in front of the last; those of SSL 3.0 say nothing but in the last one.
        const std::int64_t size = sealed.size();
        const std::int64_t padding = plaintext[size - 1] + 1;
        const std::int64_t macLength = encryptsThenMACs_ ? 0 : mac_.length();
        const std::int64_t length = size - padding - macLength;
        const auto isPadding = [&] {
            if (version_ == ssl3) return padding <= block_;
            return std::all_of(plaintext + size - padding, plaintext + size, [&](std::uint8_t byte) { return byte == padding - 1; });
        };
        if (length < 0 || !isPadding())
            return encryptsThenMACs_ ? std::optional(OpenedRecord{record.type(), 0, false, false}) : std::nullopt;
        if (!encryptsThenMACs_ && !mac_.isOf({plaintext + length, macLength}, sequence, record, DataView(plaintext, length)))
            return std::nullopt;
        return OpenedRecord{record.type(), length};
    }
    bool canOpenAgain() const override { return true; }
    std::int64_t smallestBody() const override { return (hasExplicitIV() ? block_ : 0) + std::max(block_, mac_.length()); }
    ContentLength contentLength(std::int64_t bodyLength) const override
    {
        return {std::max<std::int64_t>(bodyLength - (hasExplicitIV() ? block_ : 0) - mac_.length() - 1, 0), false};
    }

private:
    bool hasExplicitIV() const { return version_ > tls10; }

    std::uint16_t version_;
    bool encryptsThenMACs_;
    std::int64_t block_;
    BulkDecryptor cipher_;
    RecordMAC mac_;
    SecretBytes firstIV_;
};

/// An AEAD of TLS 1.2 (RFC 5246 §6.2.3.3).
class AEAD12Opener final : public RecordOpener {
public:
    AEAD12Opener(const ReachSuite& suite, const RecordKeys& keys)
        : explicitNonce_(suite.explicitNonceLength()), tagLength_(suite.tagLength),
          hasOldNonce_(suite.protection == RecordProtection::chaCha20OldNonce), aead_(suite, viewOf(keys.key)), fixedIV_(keys.iv)
    {}

    std::optional<OpenedRecord> open(std::uint64_t sequence, const ProtectedRecord& record, std::uint8_t* plaintext) override
    {
        const std::int64_t length = record.body.size() - explicitNonce_ - tagLength_;
        if (length < 0) return std::nullopt;
        std::array<std::uint8_t, 12> nonce{};
        std::copy(fixedIV_.begin(), fixedIV_.end(), nonce.begin());
        if (explicitNonce_ > 0)
            record.body.copy(std::span(nonce).last<8>());
        else
            TLS12RecordDecryptor::mixSequence(nonce, sequence);
        std::array<std::uint8_t, longestTag> room;
        const DataView tag = tagOf(record.body, explicitNonce_ + length, std::span(room).first(static_cast<std::size_t>(tagLength_)));
        const auto header =
            TLS12RecordDecryptor::additionalData(sequence, record.type(), record.version(), static_cast<std::uint16_t>(length));
        // The old nonce is the sequence number, which the mixing has put at the end.
        const DataView used = hasOldNonce_ ? DataView(nonce).from(4) : DataView(nonce);
        if (!aead_.open(used, DataView(header), record.body.sub(explicitNonce_, length), tag, plaintext)) return std::nullopt;
        if (explicitNonce_ > 0) nonceAhead_ = nonceOf(record) - sequence;
        return OpenedRecord{record.type(), length};
    }
    // Nearly everybody counts the explicit nonce up with the sequence number, from zero or from anywhere.
    std::optional<std::uint64_t> sequenceOf(const ProtectedRecord& record) override
    {
        if (explicitNonce_ == 0 || record.body.size() < 8) return std::nullopt;
        return nonceOf(record) - nonceAhead_.value_or(0);
    }
    bool canOpenAgain() const override { return true; }
    std::int64_t smallestBody() const override { return explicitNonce_ + tagLength_; }
    ContentLength contentLength(std::int64_t bodyLength) const override
    {
        return {std::max<std::int64_t>(bodyLength - explicitNonce_ - tagLength_, 0), true};
    }

private:
    static std::uint64_t nonceOf(const ProtectedRecord& record)
    {
        std::array<std::uint8_t, 8> bytes;
        record.body.copy(bytes);
        std::uint64_t value = 0;
        for (const std::uint8_t byte : bytes) value = value << 8 | byte;
        return value;
    }

    std::int64_t explicitNonce_;
    std::int64_t tagLength_;
    bool hasOldNonce_;
    RecordAEAD aead_;
    SecretBytes fixedIV_;
    std::optional<std::uint64_t> nonceAhead_;  ///< of the sequence number, in the last record that opened
};

class TLS13Opener final : public RecordOpener {
public:
    TLS13Opener(const ReachSuite& suite, const TLS13Draft& draft, const TLS13TrafficKeys& keys)
        : tagLength_(suite.tagLength), authenticatesHeader_(draft.authenticatesHeader),
          isAESGCM_(suite.protection == RecordProtection::gcm && suite.block == ReachSuite::BlockCipher::aes),
          key_(keys.key.bytes().begin(), keys.key.bytes().end()), aead_(suite, keys.key.bytes()), iv_(keys.iv)
    {}

    std::optional<OpenedRecord> open(std::uint64_t sequence, const ProtectedRecord& record, std::uint8_t* plaintext) override
    {
        const std::int64_t length = record.body.size() - tagLength_;
        if (length < 0) return std::nullopt;
        std::array<std::uint8_t, 12> nonce{};
        std::copy_n(iv_.begin(), std::min(iv_.size(), nonce.size()), nonce.begin());
        TLS12RecordDecryptor::mixSequence(nonce, sequence);
        std::array<std::uint8_t, longestTag> room;
        const DataView tag = tagOf(record.body, length, std::span(room).first(static_cast<std::size_t>(tagLength_)));
        const DataView header = authenticatesHeader_ ? DataView(record.header) : DataView();
        if (!aead_.open(DataView(nonce), header, record.body.sub(0, length), tag, plaintext)) return std::nullopt;
        const auto inner = TLS13RecordDecryptor::innerPlaintext({plaintext, length});
        return inner ? std::optional(OpenedRecord{inner->first, inner->second.size()}) : std::nullopt;
    }
    // Of AES-GCM the nonce comes out of the tag, and the sequence number out of the nonce, without trying any.
    std::optional<std::uint64_t> sequenceOf(const ProtectedRecord& record) override
    {
        const std::int64_t length = record.body.size() - tagLength_;
        if (!isAESGCM_ || length < 0) return std::nullopt;
        std::array<std::uint8_t, longestTag> room;
        const DataView tag = tagOf(record.body, length, room);
        const DataView header = authenticatesHeader_ ? DataView(record.header) : DataView();
        const auto nonce = aesGCMNonce(viewOf(key_), header, record.body.sub(0, length), tag);
        if (!nonce) return std::nullopt;
        std::uint64_t sequence = 0;
        for (std::size_t i = 0; i < nonce->size(); ++i) {
            const auto byte = static_cast<std::uint8_t>((*nonce)[i] ^ iv_[i]);
            if (i < 4 && byte != 0) return std::nullopt;
            sequence = sequence << 8 | byte;
        }
        return sequence;
    }
    std::int64_t openingsToSay() const override { return isAESGCM_ ? 2 : 0; }
    bool canOpenAgain() const override { return true; }
    std::int64_t smallestBody() const override { return tagLength_ + 1; }
    ContentLength contentLength(std::int64_t bodyLength) const override
    {
        return {std::max<std::int64_t>(bodyLength - tagLength_ - 1, 0), false};  // how much of it is padding nobody knows
    }

private:
    std::int64_t tagLength_;
    bool authenticatesHeader_;
    bool isAESGCM_;
    SecretBytes key_;
    RecordAEAD aead_;
    SecretBytes iv_;
};

/// Undoes the compression under the protection (RFC 3749): one stream of DEFLATE for all records under a key, so that behind a lost
/// record nothing comes out any more.
class InflatingOpener final : public RecordOpener {
public:
    InflatingOpener(std::unique_ptr<RecordOpener> inner, std::function<bool(std::int64_t)> mayGrow)
        : inner_(std::move(inner)), mayGrow_(std::move(mayGrow))
    {
        isUsable_ = inflateInit(&stream_) == Z_OK;
    }
    InflatingOpener(const InflatingOpener& other) : inner_(other.inner_), next_(other.next_)
    {
        isUsable_ = other.isUsable_ && inflateCopy(&stream_, const_cast<z_stream*>(&other.stream_)) == Z_OK;
    }
    InflatingOpener& operator=(const InflatingOpener&) = delete;
    ~InflatingOpener() override { inflateEnd(&stream_); }

    std::optional<OpenedRecord> open(std::uint64_t sequence, const ProtectedRecord& record, std::uint8_t* plaintext) override
    {
        if (!isUsable_ || sequence != next_) return std::nullopt;
        compressed_.resize(static_cast<std::size_t>(record.body.size()));
        auto opened = inner_->open(sequence, record, compressed_.data());
        if (!opened || !opened->isReadable) return std::nullopt;
        ++next_;
        stream_.next_in = compressed_.data();
        stream_.avail_in = static_cast<unsigned>(opened->length);
        stream_.next_out = plaintext;
        stream_.avail_out = longestContent;
        const int result = inflate(&stream_, Z_SYNC_FLUSH);
        isUsable_ = stream_.avail_in == 0 && (result == Z_OK || result == Z_STREAM_END || result == Z_BUF_ERROR);
        if (!isUsable_) return std::nullopt;
        growth_ -= mostTimes * opened->length;
        opened->length = longestContent - static_cast<std::int64_t>(stream_.avail_out);
        growth_ += opened->length;
        if (growth_ > 0) isUsable_ = !mayGrow_ || mayGrow_(std::exchange(growth_, 0));
        if (!isUsable_) return std::nullopt;
        return opened;
    }
    std::unique_ptr<RecordOpener> fork() const override
    {
        auto forked = std::make_unique<InflatingOpener>(*this);
        if (!forked->isUsable_) return nullptr;
        return forked;
    }
    std::int64_t smallestBody() const override { return inner_->smallestBody(); }
    ContentLength contentLength(std::int64_t) const override { return {}; }

private:
    static constexpr unsigned longestContent = 16'384;  // RFC 5246 §6.2.1
    static constexpr std::int64_t mostTimes = 16;
    std::shared_ptr<RecordOpener> inner_;  ///< which opens records in any order
    std::function<bool(std::int64_t)> mayGrow_;
    std::int64_t growth_ = 0;  ///< bytes of content, less what goes without asking and what was asked for
    z_stream stream_{};
    bool isUsable_ = false;
    std::uint64_t next_ = 0;
    std::vector<std::uint8_t> compressed_;
};

template <class Opener> std::unique_ptr<RecordOpener> ifUsable(std::unique_ptr<Opener> opener)
{
    if (!opener->isUsable()) return nullptr;
    return opener;
}

}  // namespace

std::unique_ptr<RecordOpener> inflating(std::unique_ptr<RecordOpener> opener, std::function<bool(std::int64_t)> mayGrow)
{
    if (!opener) return nullptr;
    return std::make_unique<InflatingOpener>(std::move(opener), std::move(mayGrow));
}

std::unique_ptr<RecordOpener> makeRecordOpener(const ReachSuite& suite, std::uint16_t version, MACPlace place, const RecordKeys& keys)
{
    switch (suite.protection) {
    case RecordProtection::none:
    case RecordProtection::stream: return ifUsable(std::make_unique<StreamOpener>(suite, version, keys));
    case RecordProtection::cbc: return ifUsable(std::make_unique<BlockOpener>(suite, version, place, keys));
    case RecordProtection::gcm:
    case RecordProtection::ccm:
    case RecordProtection::chaCha20:
    case RecordProtection::chaCha20OldNonce: break;
    }
    return std::make_unique<AEAD12Opener>(suite, keys);
}

TLS13Draft TLS13Draft::of(std::uint16_t version)
{
    const bool isDraft = version >> 8 == 0x7F;
    const int number = isDraft ? version & 0xFF : 28;
    // Draft 20 shortened the labels, draft 22 gave records and hellos the look of TLS 1.2, draft 25 authenticates the header.
    const bool hasLongLabels = number < 20;
    return {.labelPrefix = hasLongLabels ? std::string_view("TLS 1.3, ") : TLS13RecordDecryptor::labelPrefix,
            .updateLabel = hasLongLabels ? "application traffic secret" : "traffic upd",
            .authenticatesHeader = number >= 25,
            .recordVersion = static_cast<std::uint16_t>(number < 22 ? 0x0301 : 0x0303)};
}

SecretBytes nextTrafficSecret(const ReachSuite& suite, const TLS13Draft& draft, DataView secret)
{
    HMAC keyed(suite.prf, secret);
    return TLS13RecordDecryptor::expandLabel(keyed, draft.updateLabel, digestSize(suite.prf), draft.labelPrefix);
}

std::unique_ptr<RecordOpener> makeTLS13Opener(const ReachSuite& suite, const TLS13Draft& draft, DataView trafficSecret)
{
    const TLS13SuiteParameters parameters{.keyLength = suite.keyLength, .ivLength = 12, .hash = suite.prf};
    const TLS13TrafficKeys keys = TLS13RecordDecryptor::trafficKeys(trafficSecret, parameters, draft.labelPrefix);
    return std::make_unique<TLS13Opener>(suite, draft, keys);
}

}  // namespace sealscope
