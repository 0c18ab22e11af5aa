// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLS12RecordDecryptor.h"

#include "Sealscope/TLSNames.h"
#include "platform/HMAC.h"

#include <algorithm>
#include <bit>
#include <functional>
#include <string_view>
#include <utility>

namespace sealscope {

namespace {

constexpr std::int64_t explicitNonceLength = 8;  // of AES-GCM (RFC 5288 §3)

HashFunction hashOf(bool usesSHA384) { return usesSHA384 ? HashFunction::sha384 : HashFunction::sha256; }

}  // namespace

std::optional<TLS12SuiteParameters> TLS12RecordDecryptor::suiteParameters(std::uint16_t cipherSuite)
{
    switch (cipherSuite) {
    // TLS_{RSA,DHE_RSA,DH_RSA}_WITH_AES_128_GCM_SHA256, TLS_ECDHE_{ECDSA,RSA}_WITH_AES_128_GCM_SHA256
    case 0x009C:
    case 0x009E:
    case 0x00A0:
    case 0xC02B:
    case 0xC02F: return TLS12SuiteParameters{AEADCipher::aesGCM, 16, 4, false};
    // The same with AES_256_GCM_SHA384.
    case 0x009D:
    case 0x009F:
    case 0x00A1:
    case 0xC02C:
    case 0xC030: return TLS12SuiteParameters{AEADCipher::aesGCM, 32, 4, true};
    // TLS_{ECDHE_RSA,ECDHE_ECDSA,DHE_RSA}_WITH_CHACHA20_POLY1305_SHA256
    case 0xCCA8:
    case 0xCCA9:
    case 0xCCAA: return TLS12SuiteParameters{AEADCipher::chaCha20Poly1305, 32, 12, false};
    default: return std::nullopt;
    }
}

SecretBytes TLS12RecordDecryptor::hmac(DataView key, DataView data, bool usesSHA384)
{
    return sealscope::hmac(hashOf(usesSHA384), key, data);
}

SecretBytes TLS12RecordDecryptor::pHash(HashFunction hash, DataView secret, DataView seed, std::size_t length)
{
    const auto blockSize = static_cast<std::size_t>(digestSize(hash));
    HMAC keyed(hash, secret);
    SecretBytes a(blockSize);
    SecretBytes output;
    output.reserve(length + blockSize);

    keyed.update(seed);
    keyed.finish(a);
    while (true) {
        const std::size_t filled = output.size();
        output.resize(filled + blockSize);
        keyed.update(viewOf(a));
        keyed.update(seed);
        keyed.finish(std::span(output).subspan(filled));
        if (output.size() >= length) break;
        keyed.update(viewOf(a));
        keyed.finish(a);
    }
    output.resize(length);
    return output;
}

std::optional<TLS12RecordDecryptor::DirectionKeys> TLS12RecordDecryptor::directionKeys(TCPSegment::Direction direction,
                                                                                       const TLS12SuiteParameters& parameters,
                                                                                       DataView clientRandom, DataView serverRandom,
                                                                                       DataView masterSecret)
{
    const std::int64_t needed = 2 * (parameters.keyLength + parameters.fixedIVLength);
    constexpr std::string_view label = "key expansion";
    std::vector<std::uint8_t> seed(label.begin(), label.end());
    for (const DataView random : {serverRandom, clientRandom}) seed.insert(seed.end(), random.begin(), random.end());

    const SecretBytes keyBlock = pHash(hashOf(parameters.usesSHA384), masterSecret, seed, static_cast<std::size_t>(needed));
    if (static_cast<std::int64_t>(keyBlock.size()) != needed) return std::nullopt;
    // Client key, server key, client IV, server IV: an AEAD has no MAC keys in front of them.
    const std::int64_t second = direction == TCPSegment::Direction::serverToClient ? 1 : 0;
    const DataView block = viewOf(keyBlock);
    const DataView key = block.sub(second * parameters.keyLength, parameters.keyLength);
    const DataView iv = block.sub(2 * parameters.keyLength + second * parameters.fixedIVLength, parameters.fixedIVLength);
    return DirectionKeys{.key = SymmetricKey(key), .fixedIV = SecretBytes(iv.begin(), iv.end())};
}

std::array<std::uint8_t, 8> TLS12RecordDecryptor::sequenceBytes(std::uint64_t sequence)
{
    if constexpr (std::endian::native == std::endian::little) sequence = std::byteswap(sequence);
    return std::bit_cast<std::array<std::uint8_t, 8>>(sequence);
}

std::array<std::uint8_t, 13> TLS12RecordDecryptor::additionalData(std::uint64_t sequence, std::uint8_t contentType, std::uint16_t version,
                                                                  std::uint16_t length)
{
    std::array<std::uint8_t, 13> bytes;
    std::ranges::copy(sequenceBytes(sequence), bytes.begin());
    bytes[8] = contentType;
    bytes[9] = static_cast<std::uint8_t>(version >> 8);
    bytes[10] = static_cast<std::uint8_t>(version);
    bytes[11] = static_cast<std::uint8_t>(length >> 8);
    bytes[12] = static_cast<std::uint8_t>(length);
    return bytes;
}

void TLS12RecordDecryptor::mixSequence(std::span<std::uint8_t> iv, std::uint64_t sequence)
{
    if (iv.size() < 8) return;
    const std::span last = iv.last<8>();
    std::ranges::transform(last, sequenceBytes(sequence), last.begin(), std::bit_xor());
}

TLS12RecordDecryptor::Nonce TLS12RecordDecryptor::mixedNonce(DataView iv, std::uint64_t sequence)
{
    Nonce nonce(iv.begin(), iv.end());
    mixSequence(std::span(nonce.data(), nonce.size()), sequence);
    return nonce;
}

TLS12RecordDecryptor::Nonce TLS12RecordDecryptor::chaChaNonce(DataView fixedIV, std::uint64_t sequence)
{
    return fixedIV.size() == 12 ? mixedNonce(fixedIV, sequence) : Nonce(fixedIV.begin(), fixedIV.end());
}

TLS12RecordDecryptor::Nonce TLS12RecordDecryptor::gcmNonce(DataView fixedIV, const ScatteredView& payload)
{
    Nonce nonce(static_cast<std::size_t>(fixedIV.size() + explicitNonceLength));
    const auto explicitPart = std::ranges::copy(fixedIV, nonce.begin()).out;
    payload.copy(std::span(explicitPart, nonce.end()));
    return nonce;
}

TLS12RecordDecryptor::Opener::Opener(const DirectionKeys& keys, AEADCipher cipher)
    : cipher_(cipher), fixedIV_(keys.fixedIV), aead_(cipher, keys.key.bytes())
{}

std::optional<std::int64_t> TLS12RecordDecryptor::Opener::open(std::uint64_t sequence, std::uint16_t version, const ScatteredView& payload,
                                                               std::uint8_t* plaintext)
{
    const bool isGCM = cipher_ == AEADCipher::aesGCM;
    const std::int64_t prefix = isGCM ? explicitNonceLength : 0;
    const std::int64_t length = payload.size() - prefix - AEADOpener::tagSize;
    if (length < 0) return std::nullopt;

    const DataView fixedIV = viewOf(fixedIV_);
    const Nonce nonce = isGCM ? gcmNonce(fixedIV, payload) : chaChaNonce(fixedIV, sequence);
    std::array<std::uint8_t, AEADOpener::tagSize> tag;
    payload.from(prefix + length).copy(tag);
    constexpr auto contentType = std::to_underlying(TLSContentType::applicationData);
    const auto header = additionalData(sequence, contentType, version, static_cast<std::uint16_t>(length));
    const bool isOpen = aead_.open(std::span(nonce), DataView(header), payload.sub(prefix, length), DataView(tag), plaintext);
    return isOpen ? std::optional(length) : std::nullopt;
}

bool TLS12RecordDecryptor::RecordSequence::advance(std::uint8_t contentType, std::int64_t count)
{
    const bool isChange = contentType == std::to_underlying(TLSContentType::changeCipherSpec);
    if (position_.changeCipherSpecs == 0) {
        if (isChange) ++position_.changeCipherSpecs;
        return false;
    }
    // Every record counts from here on, a further ChangeCipherSpec too.
    if (isChange) ++position_.changeCipherSpecs;
    position_.sequence += static_cast<std::uint64_t>(count);
    return contentType == std::to_underlying(TLSContentType::applicationData);
}

std::optional<Data> TLS12RecordDecryptor::decrypt(const TLS12Record& record, const DirectionKeys& keys, std::uint64_t sequence,
                                                  AEADCipher cipher)
{
    std::vector<std::uint8_t> plaintext(static_cast<std::size_t>(record.payload.size()));
    const auto length = Opener(keys, cipher).open(sequence, record.version, record.payload.view(), plaintext.data());
    if (!length) return std::nullopt;
    plaintext.resize(static_cast<std::size_t>(*length));
    return Data(std::move(plaintext));
}

std::vector<TLS12DecryptedRecord> TLS12RecordDecryptor::decryptDirection(const std::vector<TLS12Record>& records, const DirectionKeys& keys,
                                                                         AEADCipher cipher)
{
    std::vector<TLS12DecryptedRecord> opened;
    RecordSequence sequence(keys, cipher);
    for (const TLS12Record& record : records) {
        if (!sequence.advance(record.contentType)) continue;
        std::vector<std::uint8_t> plaintext(static_cast<std::size_t>(record.payload.size()));
        const auto length = sequence.open(record.version, record.payload.view(), plaintext.data());
        if (!length) continue;
        plaintext.resize(static_cast<std::size_t>(*length));
        opened.push_back({Data(std::move(plaintext)), record.packetIds, record.timestamp});
    }
    return opened;
}

}  // namespace sealscope
