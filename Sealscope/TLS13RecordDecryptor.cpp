// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLS13RecordDecryptor.h"

#include "Sealscope/TLSHandshake.h"
#include "Sealscope/TLSNames.h"
#include "platform/HKDF.h"

#include <array>
#include <utility>

namespace sealscope {

namespace {

std::optional<TLS13TrafficKeys> keysFrom(HMAC& secret, const TLS13SuiteParameters& suite)
{
    SecretBytes key(static_cast<std::size_t>(suite.keyLength));
    SecretBytes iv(static_cast<std::size_t>(suite.ivLength));
    const auto expand = [&](std::string_view label, SecretBytes& output) {
        return hkdfExpand(secret, TLS13RecordDecryptor::hkdfLabel(static_cast<std::uint16_t>(output.size()), label, {}), output);
    };
    if (!expand("key", key) || !expand("iv", iv)) return std::nullopt;
    return TLS13TrafficKeys{.key = SymmetricKey(viewOf(key)), .iv = std::move(iv)};
}

/// Whether the last message of an opened record is a Finished (RFC 8446 §4.4.4): type, length, a hash.
bool endsInFinished(DataView content, const TLS13RecordDecryptor::Opener::Opened& opened, std::int64_t hashSize)
{
    const std::int64_t start = content.size() - TLSHandshakeMessage::headerLength - hashSize;
    return opened.innerType == std::to_underlying(TLSContentType::handshake) && start >= 0 &&
           content[start] == std::to_underlying(TLSHandshakeType::finished) && content.u24(start + 1) == hashSize;
}

}  // namespace

std::optional<TLS13SuiteParameters> TLS13RecordDecryptor::suiteParameters(std::uint16_t cipherSuite)
{
    switch (cipherSuite) {
    case 0x1301: return TLS13SuiteParameters{AEADCipher::aesGCM, 16, 12, HashFunction::sha256};
    case 0x1302: return TLS13SuiteParameters{AEADCipher::aesGCM, 32, 12, HashFunction::sha384};
    case 0x1303: return TLS13SuiteParameters{AEADCipher::chaCha20Poly1305, 32, 12, HashFunction::sha256};
    default: return std::nullopt;
    }
}

std::vector<std::uint8_t> TLS13RecordDecryptor::hkdfLabel(std::uint16_t length, std::string_view label, DataView context)
{
    constexpr std::string_view prefix = "tls13 ";
    std::vector<std::uint8_t> bytes{static_cast<std::uint8_t>(length >> 8), static_cast<std::uint8_t>(length),
                                    static_cast<std::uint8_t>(prefix.size() + label.size())};
    bytes.insert(bytes.end(), prefix.begin(), prefix.end());
    bytes.insert(bytes.end(), label.begin(), label.end());
    bytes.push_back(static_cast<std::uint8_t>(context.size()));
    bytes.insert(bytes.end(), context.begin(), context.end());
    return bytes;
}

std::optional<TLS13TrafficKeys> TLS13RecordDecryptor::trafficKeys(DataView secret, const TLS13SuiteParameters& suite)
{
    HMAC keyed(suite.hash, secret);
    return keysFrom(keyed, suite);
}

std::vector<std::uint8_t> TLS13RecordDecryptor::recordNonce(DataView iv, std::uint64_t sequence)
{
    std::vector<std::uint8_t> nonce(iv.begin(), iv.end());
    TLS12RecordDecryptor::mixSequence(nonce, sequence);
    return nonce;
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

std::optional<TLS13RecordDecryptor::Opener::Opened> TLS13RecordDecryptor::Opener::open(DataView header, const ScatteredView& body,
                                                                                       std::uint8_t* plaintext)
{
    const std::int64_t length = body.size() - AEADOpener::tagSize;
    if (length < 0) return std::nullopt;
    nonce_.assign(iv_.begin(), iv_.end());
    TLS12RecordDecryptor::mixSequence(nonce_, sequence_);
    std::array<std::uint8_t, AEADOpener::tagSize> tag;
    body.from(length).copy(tag);
    if (!aead_.open(nonce_, header, body.sub(0, length), DataView(tag), plaintext)) return std::nullopt;
    const auto inner = innerPlaintext({plaintext, length});
    if (!inner) return std::nullopt;
    ++sequence_;
    return Opened{.innerType = inner->first, .length = inner->second.size()};
}

std::optional<TLS13RecordDecryptor::Walk> TLS13RecordDecryptor::Walk::begin(std::optional<DataView> handshakeSecret,
                                                                            DataView applicationSecret, const TLS13SuiteParameters& suite)
{
    HMAC keyed(suite.hash, applicationSecret);
    const auto applicationKeys = keysFrom(keyed, suite);
    if (!applicationKeys) return std::nullopt;
    Walk walk(Opener(*applicationKeys, suite.cipher), digestSize(suite.hash));
    if (!handshakeSecret) return walk;
    keyed.setKey(*handshakeSecret);
    const auto handshakeKeys = keysFrom(keyed, suite);
    if (!handshakeKeys) return std::nullopt;
    walk.handshake_.emplace(*handshakeKeys, suite.cipher);
    return walk;
}

// A record that one of the two keys opens the other does not, so it makes no difference which is tried first. The handshake
// keys come first until a Finished message, their last, went by: trying them on a long record of data costs as much as opening
// it.
std::optional<TLS13RecordDecryptor::Opener::Opened> TLS13RecordDecryptor::Walk::open(DataView header, const ScatteredView& body,
                                                                                     std::uint8_t* plaintext)
{
    // Too short for a tag: no key is given up over it.
    if (body.size() < AEADOpener::tagSize) return std::nullopt;
    if (!handshake_) return application_.open(header, body, plaintext);
    if (isFinished_) {
        if (const auto opened = application_.open(header, body, plaintext)) {
            handshake_.reset();
            return opened;
        }
    }
    if (const auto opened = handshake_->open(header, body, plaintext)) {
        isFinished_ = isFinished_ || endsInFinished({plaintext, opened->length}, *opened, hashSize_);
        return opened;
    }
    handshake_.reset();
    if (isFinished_) return std::nullopt;
    return application_.open(header, body, plaintext);
}

std::optional<std::vector<TLS13DecryptedRecord>> TLS13RecordDecryptor::decryptRecords(const std::vector<TLS13CipherRecord>& records,
                                                                                      std::optional<DataView> handshakeSecret,
                                                                                      DataView applicationSecret, std::uint16_t cipherSuite)
{
    const auto suite = suiteParameters(cipherSuite);
    if (!suite) return std::nullopt;
    auto walk = Walk::begin(handshakeSecret, applicationSecret, *suite);
    if (!walk) return std::nullopt;
    std::vector<TLS13DecryptedRecord> decrypted;
    for (const TLS13CipherRecord& record : records) {
        std::vector<std::uint8_t> plaintext(static_cast<std::size_t>(record.body.size()));
        const auto opened = walk->open(record.header, record.body.view(), plaintext.data());
        if (!opened) break;
        plaintext.resize(static_cast<std::size_t>(opened->length));
        decrypted.push_back({opened->innerType, Data(std::move(plaintext)), record.packetIds, record.timestamp});
    }
    return decrypted;
}

}  // namespace sealscope
