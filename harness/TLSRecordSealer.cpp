// SPDX-License-Identifier: Apache-2.0
#include "harness/TLSRecordSealer.h"

#include "harness/Hex.h"
#include "harness/OpenSSLPointers.h"

#include <array>
#include <openssl/core_names.h>
#include <openssl/kdf.h>
#include <openssl/params.h>

namespace sealscope {

namespace {

using Direction = TCPSegment::Direction;
using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t tagLength = 16;

struct SuiteKeys {
    const char* cipher;
    std::size_t keyLength;
    std::size_t ivLength;
    const char* digest;
};

SuiteKeys suiteKeys(std::uint16_t suite)
{
    // The cipher is named by libssl; the hash is SHA-384 for the suites with 256-bit AES (RFC 5289 §3, RFC 8446 §B.4).
    std::string name;
    for (const std::uint16_t version : {std::uint16_t{0x0303}, std::uint16_t{0x0304}})
        for (const TLSSuite& offered : availableSuites(version))
            if (offered.codePoint == suite) name = offered.standardName;
    const std::size_t ivLength = suite >> 8 == 0x13 ? 12 : 4;
    if (name.contains("AES_128_GCM")) return {"AES-128-GCM", 16, ivLength, "SHA256"};
    if (name.contains("AES_256_GCM")) return {"AES-256-GCM", 32, ivLength, "SHA384"};
    if (name.contains("CHACHA20_POLY1305")) return {"ChaCha20-Poly1305", 32, 12, "SHA256"};
    throw std::runtime_error("no keys for " + name);
}

Bytes derive(const char* function, std::vector<OSSL_PARAM> parameters, std::size_t length)
{
    parameters.push_back(OSSL_PARAM_construct_end());
    const OpenSSLPointer<EVP_KDF, EVP_KDF_free> kdf(EVP_KDF_fetch(nullptr, function, nullptr));
    const OpenSSLPointer<EVP_KDF_CTX, EVP_KDF_CTX_free> context(EVP_KDF_CTX_new(kdf.get()));
    Bytes result(length);
    check(context && EVP_KDF_derive(context.get(), result.data(), length, parameters.data()) == 1, "deriving a key");
    return result;
}

OSSL_PARAM octets(const char* name, Bytes& bytes) { return OSSL_PARAM_construct_octet_string(name, bytes.data(), bytes.size()); }
OSSL_PARAM text(const char* name, const char* value) { return OSSL_PARAM_construct_utf8_string(name, const_cast<char*>(value), 0); }

/// HKDF-Expand-Label without a context (RFC 8446 §7.1).
Bytes expandLabel(Bytes secret, std::string_view label, const char* digest, std::size_t length)
{
    const std::string full = "tls13 " + std::string(label);
    Bytes info = {static_cast<std::uint8_t>(length >> 8), static_cast<std::uint8_t>(length), static_cast<std::uint8_t>(full.size())};
    info.insert(info.end(), full.begin(), full.end());
    info.push_back(0);
    return derive("HKDF",
                  {text(OSSL_KDF_PARAM_DIGEST, digest), text(OSSL_KDF_PARAM_MODE, "EXPAND_ONLY"), octets(OSSL_KDF_PARAM_KEY, secret),
                   octets(OSSL_KDF_PARAM_INFO, info)},
                  length);
}

/// The random of a hello that begins its direction, in a record of its own or at the start of one.
Bytes helloRandom(const Data& wire)
{
    constexpr std::int64_t randomOffset = 5 + 4 + 2;  // record header, message header, version
    const Data random = wire.sub(randomOffset, 32);
    return {random.view().begin(), random.view().end()};
}

}  // namespace

Bytes keyLogSecret(const std::string& keyLog, std::string_view label)
{
    const std::size_t line = ("\n" + keyLog).find("\n" + std::string(label) + ' ');
    if (line == std::string::npos) throw std::runtime_error("the key log has no " + std::string(label));
    const std::size_t end = keyLog.find('\n', line);
    const std::size_t secret = keyLog.rfind(' ', end) + 1;
    const Data bytes = hex(std::string_view(keyLog).substr(secret, end - secret));
    return {bytes.view().begin(), bytes.view().end()};
}

TLSRecordSealer::TLSRecordSealer(const TLSSession& session, Direction direction, std::uint64_t sequenceNumber)
    : isTLS13_(session.version == 0x0304), sequenceNumber_(sequenceNumber)
{
    const SuiteKeys suite = suiteKeys(session.cipherSuite);
    cipher_ = suite.cipher;
    const bool isClient = direction == Direction::clientToServer;
    if (isTLS13_) {
        const Bytes secret = keyLogSecret(session.keyLog, isClient ? "CLIENT_TRAFFIC_SECRET_0" : "SERVER_TRAFFIC_SECRET_0");
        key_ = expandLabel(secret, "key", suite.digest, suite.keyLength);
        iv_ = expandLabel(secret, "iv", suite.digest, suite.ivLength);
        return;
    }
    // RFC 5246 §6.3: both write keys, then both IVs, the client's first.
    Bytes secret = keyLogSecret(session.keyLog, "CLIENT_RANDOM");
    Bytes seed = helloRandom(session.wire(Direction::serverToClient));
    const Bytes clientRandom = helloRandom(session.wire(Direction::clientToServer));
    seed.insert(seed.end(), clientRandom.begin(), clientRandom.end());
    Bytes label = {'k', 'e', 'y', ' ', 'e', 'x', 'p', 'a', 'n', 's', 'i', 'o', 'n'};
    label.insert(label.end(), seed.begin(), seed.end());
    const Bytes block = derive(
        "TLS1-PRF", {text(OSSL_KDF_PARAM_DIGEST, suite.digest), octets(OSSL_KDF_PARAM_SECRET, secret), octets(OSSL_KDF_PARAM_SEED, label)},
        2 * (suite.keyLength + suite.ivLength));
    const auto key = block.begin() + static_cast<std::ptrdiff_t>(isClient ? 0 : suite.keyLength);
    const auto iv = block.begin() + static_cast<std::ptrdiff_t>(2 * suite.keyLength + (isClient ? 0 : suite.ivLength));
    key_.assign(key, key + static_cast<std::ptrdiff_t>(suite.keyLength));
    iv_.assign(iv, iv + static_cast<std::ptrdiff_t>(suite.ivLength));
}

Data TLSRecordSealer::seal(std::uint8_t contentType, DataView plaintext, std::int64_t padding)
{
    std::array<std::uint8_t, 8> sequence;
    for (std::size_t at = 0; at < 8; ++at) sequence[at] = static_cast<std::uint8_t>(sequenceNumber_ >> (56 - 8 * at));
    ++sequenceNumber_;

    // AES-GCM of TLS 1.2 sends part of the nonce, here the sequence number (RFC 5288 §3); all others mix it into the IV.
    const bool sendsNonce = iv_.size() == 4;
    Bytes nonce = iv_;
    nonce.resize(12);
    for (std::size_t at = 0; at < 8; ++at) nonce[4 + at] ^= sequence[at];

    Bytes inner(plaintext.begin(), plaintext.end());
    if (isTLS13_) {
        inner.push_back(contentType);
        inner.insert(inner.end(), static_cast<std::size_t>(padding), 0);
    }
    const std::size_t length = inner.size() + tagLength + (sendsNonce ? 8 : 0);
    Bytes record = {isTLS13_ ? std::uint8_t{23} : contentType, 3, 3, static_cast<std::uint8_t>(length >> 8),
                    static_cast<std::uint8_t>(length)};
    Bytes additional;
    if (isTLS13_) {
        additional = record;
    } else {
        additional.assign(sequence.begin(), sequence.end());
        additional.insert(additional.end(),
                          {contentType, 3, 3, static_cast<std::uint8_t>(inner.size() >> 8), static_cast<std::uint8_t>(inner.size())});
    }
    if (sendsNonce) record.insert(record.end(), sequence.begin(), sequence.end());

    const OpenSSLPointer<EVP_CIPHER, EVP_CIPHER_free> cipher(EVP_CIPHER_fetch(nullptr, cipher_, nullptr));
    const OpenSSLPointer<EVP_CIPHER_CTX, EVP_CIPHER_CTX_free> context(EVP_CIPHER_CTX_new());
    int count = 0;
    std::array<std::uint8_t, tagLength> tag;
    const bool succeeded = EVP_EncryptInit_ex2(context.get(), cipher.get(), key_.data(), nonce.data(), nullptr) == 1 &&
                           EVP_EncryptUpdate(context.get(), nullptr, &count, additional.data(), static_cast<int>(additional.size())) == 1 &&
                           EVP_EncryptUpdate(context.get(), inner.data(), &count, inner.data(), static_cast<int>(inner.size())) == 1 &&
                           EVP_EncryptFinal_ex(context.get(), tag.data(), &count) == 1 &&
                           EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_GET_TAG, tagLength, tag.data()) == 1;
    check(succeeded, "sealing a record");
    record.insert(record.end(), inner.begin(), inner.end());
    record.insert(record.end(), tag.begin(), tag.end());
    return Data(std::move(record));
}

}  // namespace sealscope
