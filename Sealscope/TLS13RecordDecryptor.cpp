// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLS13RecordDecryptor.h"

#include "Sealscope/TLSHandshake.h"
#include "Sealscope/TLSNames.h"
#include "platform/HKDF.h"

#include <algorithm>
#include <array>
#include <span>
#include <utility>

namespace sealscope {

namespace {

constexpr std::int64_t ivLength = 12;  // of every suite

/// Whether the last message of an opened record is a Finished (RFC 8446 §4.4.4): type, length, a hash.
bool endsInFinished(DataView content, const TLS13RecordDecryptor::Opened& opened, std::int64_t hashSize)
{
    const std::int64_t start = content.size() - TLSHandshakeMessage::headerLength - hashSize;
    return opened.innerType == std::to_underlying(TLSContentType::handshake) && start >= 0 &&
           content[start] == std::to_underlying(TLSHandshakeType::finished) && content.u24(start + 1) == hashSize;
}

}  // namespace

std::optional<TLS13SuiteParameters> TLS13RecordDecryptor::suiteParameters(std::uint16_t cipherSuite)
{
    switch (cipherSuite) {
    case 0x1301: return TLS13SuiteParameters{AEADCipher::aesGCM, 16, ivLength, HashFunction::sha256};
    case 0x1302: return TLS13SuiteParameters{AEADCipher::aesGCM, 32, ivLength, HashFunction::sha384};
    case 0x1303: return TLS13SuiteParameters{AEADCipher::chaCha20Poly1305, 32, ivLength, HashFunction::sha256};
    default: return std::nullopt;
    }
}

absl::InlinedVector<std::uint8_t, 32> TLS13RecordDecryptor::hkdfLabel(std::uint16_t length, std::string_view label, DataView context,
                                                                      std::string_view prefix)
{
    const std::size_t labelLength = prefix.size() + label.size();
    absl::InlinedVector<std::uint8_t, 32> bytes(4 + labelLength + static_cast<std::size_t>(context.size()));
    bytes[0] = static_cast<std::uint8_t>(length >> 8);
    bytes[1] = static_cast<std::uint8_t>(length);
    bytes[2] = static_cast<std::uint8_t>(labelLength);
    auto next = std::copy(prefix.begin(), prefix.end(), bytes.begin() + 3);
    next = std::copy(label.begin(), label.end(), next);
    *next++ = static_cast<std::uint8_t>(context.size());
    std::copy(context.begin(), context.end(), next);
    return bytes;
}

SecretBytes TLS13RecordDecryptor::expandLabel(HMAC& secret, std::string_view label, std::int64_t length, std::string_view prefix)
{
    SecretBytes output(static_cast<std::size_t>(length));
    const auto info = hkdfLabel(static_cast<std::uint16_t>(length), label, {}, prefix);
    // Far from all that HKDF can give.
    (void)hkdfExpand(secret, std::span(info), output);
    return output;
}

TLS13TrafficKeys TLS13RecordDecryptor::trafficKeys(DataView secret, const TLS13SuiteParameters& suite, std::string_view prefix)
{
    HMAC keyed(suite.hash, secret);
    SecretBytes key = expandLabel(keyed, "key", suite.keyLength, prefix);
    return {.key = SymmetricKey(std::move(key)), .iv = expandLabel(keyed, "iv", suite.ivLength, prefix)};
}

TLS12RecordDecryptor::Nonce TLS13RecordDecryptor::recordNonce(DataView iv, std::uint64_t sequence)
{
    return TLS12RecordDecryptor::mixedNonce(iv, sequence);
}

std::optional<Data> TLS13RecordDecryptor::open(const TLS13CipherRecord& record, const SymmetricKey& key, DataView nonce, AEADCipher cipher)
{
    const DataView body = record.body;
    const std::int64_t length = body.size() - AEADOpener::tagSize;
    if (length < 0) return std::nullopt;
    std::vector<std::uint8_t> plaintext(static_cast<std::size_t>(length));
    if (!AEADOpener(cipher, key.bytes()).open(nonce, record.header, body.sub(0, length), body.from(length), plaintext.data()))
        return std::nullopt;
    return Data(std::move(plaintext));
}

std::optional<std::pair<std::uint8_t, DataView>> TLS13RecordDecryptor::innerPlaintext(DataView bytes)
{
    std::int64_t typeAt = bytes.size() - 1;
    while (typeAt >= 0 && bytes[typeAt] == 0) --typeAt;
    if (typeAt < 0) return std::nullopt;
    return std::pair(bytes[typeAt], bytes.sub(0, typeAt));
}

TLS13RecordDecryptor::RecordSequence::RecordSequence(std::optional<DataView> handshakeSecret, DataView applicationSecret,
                                                     const TLS13SuiteParameters& suite)
    : application_{.keys = trafficKeys(applicationSecret, suite)}, hashSize_(digestSize(suite.hash)),
      handshake_(handshakeSecret ? std::optional(Epoch{.keys = trafficKeys(*handshakeSecret, suite)}) : std::nullopt),
      aead_(suite.cipher, (handshake_ ? *handshake_ : application_).keys.key.bytes()), hasApplicationKey_(!handshake_)
{}

// A record that one of the two keys opens the other does not, so it makes no difference which is tried first. The handshake
// keys come first until a Finished message, their last, went by: trying them on a long record of data costs as much as opening
// it.
std::optional<TLS13RecordDecryptor::Opened> TLS13RecordDecryptor::RecordSequence::open(DataView header, const ScatteredView& body,
                                                                                       std::uint8_t* plaintext)
{
    // Too short for a tag: no key is given up over it.
    if (body.size() < AEADOpener::tagSize) return std::nullopt;
    if (!handshake_) return open(application_, header, body, plaintext);
    if (isFinished_) {
        if (const auto opened = open(application_, header, body, plaintext)) {
            handshake_.reset();
            return opened;
        }
    }
    if (const auto opened = open(*handshake_, header, body, plaintext)) {
        isFinished_ = isFinished_ || endsInFinished({plaintext, opened->length}, *opened, hashSize_);
        return opened;
    }
    handshake_.reset();
    if (isFinished_) return std::nullopt;
    return open(application_, header, body, plaintext);
}

TLS13RecordDecryptor::RecordSequence::Position TLS13RecordDecryptor::RecordSequence::position() const
{
    return {.applicationSequence = application_.sequence,
            .handshakeSequence = handshake_ ? std::optional(handshake_->sequence) : std::nullopt,
            .isFinished = isFinished_};
}

void TLS13RecordDecryptor::RecordSequence::goTo(const Position& position)
{
    application_.sequence = position.applicationSequence;
    if (!position.handshakeSequence)
        handshake_.reset();
    else if (handshake_)
        handshake_->sequence = *position.handshakeSequence;
    isFinished_ = position.isFinished;
}

std::optional<TLS13RecordDecryptor::Opened> TLS13RecordDecryptor::RecordSequence::open(Epoch& epoch, DataView header,
                                                                                       const ScatteredView& body, std::uint8_t* plaintext)
{
    const bool isApplication = &epoch == &application_;
    if (std::exchange(hasApplicationKey_, isApplication) != isApplication) aead_.setKey(epoch.keys.key.bytes());
    const std::int64_t length = body.size() - AEADOpener::tagSize;
    const auto nonce = recordNonce(viewOf(epoch.keys.iv), epoch.sequence);
    std::array<std::uint8_t, AEADOpener::tagSize> tag;
    body.from(length).copy(tag);
    // A record that does not open leaves the sequence number as it is.
    if (!aead_.open(std::span(nonce), header, body.sub(0, length), DataView(tag), plaintext)) return std::nullopt;
    const auto inner = innerPlaintext({plaintext, length});
    if (!inner) return std::nullopt;
    ++epoch.sequence;
    return Opened{.innerType = inner->first, .length = inner->second.size()};
}

std::optional<std::vector<TLS13DecryptedRecord>> TLS13RecordDecryptor::decryptRecords(const std::vector<TLS13CipherRecord>& records,
                                                                                      std::optional<DataView> handshakeSecret,
                                                                                      DataView applicationSecret, std::uint16_t cipherSuite)
{
    const auto suite = suiteParameters(cipherSuite);
    if (!suite) return std::nullopt;
    RecordSequence sequence(handshakeSecret, applicationSecret, *suite);
    std::vector<TLS13DecryptedRecord> decrypted;
    for (const TLS13CipherRecord& record : records) {
        std::vector<std::uint8_t> plaintext(static_cast<std::size_t>(record.body.size()));
        const auto opened = sequence.open(record.header, record.body.view(), plaintext.data());
        if (!opened) break;
        plaintext.resize(static_cast<std::size_t>(opened->length));
        decrypted.push_back({opened->innerType, Data(std::move(plaintext)), record.packetIds, record.timestamp});
    }
    return decrypted;
}

}  // namespace sealscope
