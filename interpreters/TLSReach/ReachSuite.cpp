// SPDX-License-Identifier: Apache-2.0
#include "interpreters/TLSReach/ReachSuite.h"

#include "Sealscope/TLSCipherSuiteRegistry.h"
#include "Sealscope/TLSNames.h"

#include <algorithm>
#include <string_view>
#include <utility>

// The name of a cipher suite says all that there is to know of it:
//
//     TLS_ECDHE_RSA_WITH_AES_256_CBC_SHA384
//         `-------'      `---------' `----'   key exchange; cipher, key bits, mode; MAC, or the PRF's hash of an AEAD
//
// What the name leaves out is the PRF's hash of suites that are older than TLS 1.2: SHA-256 (RFC 5246 §5).

namespace sealscope {

namespace {

struct NamedSuite {
    std::uint16_t codePoint = 0;
    std::string_view name;
};

/// Suites in use somewhere that the list of names beside the TLS plug-in leaves out. In order of their code points.
constexpr NamedSuite furtherSuites[] = {
    {0x0096, "TLS_RSA_WITH_SEED_CBC_SHA"},
    {0x0099, "TLS_DHE_DSS_WITH_SEED_CBC_SHA"},
    {0x009A, "TLS_DHE_RSA_WITH_SEED_CBC_SHA"},
    {0x009B, "TLS_DH_anon_WITH_SEED_CBC_SHA"},
    {0xC060, "TLS_ECDHE_RSA_WITH_ARIA_128_GCM_SHA256"},
    {0xC061, "TLS_ECDHE_RSA_WITH_ARIA_256_GCM_SHA384"},
    {0xC03C, "TLS_RSA_WITH_ARIA_128_CBC_SHA256"},
    {0xC03D, "TLS_RSA_WITH_ARIA_256_CBC_SHA384"},
    {0xC048, "TLS_ECDHE_ECDSA_WITH_ARIA_128_CBC_SHA256"},
    {0xC049, "TLS_ECDHE_ECDSA_WITH_ARIA_256_CBC_SHA384"},
    {0xC04C, "TLS_ECDHE_RSA_WITH_ARIA_128_CBC_SHA256"},
    {0xC04D, "TLS_ECDHE_RSA_WITH_ARIA_256_CBC_SHA384"},
    {0xC050, "TLS_RSA_WITH_ARIA_128_GCM_SHA256"},
    {0xC051, "TLS_RSA_WITH_ARIA_256_GCM_SHA384"},
    {0xC05C, "TLS_ECDHE_ECDSA_WITH_ARIA_128_GCM_SHA256"},
    {0xC05D, "TLS_ECDHE_ECDSA_WITH_ARIA_256_GCM_SHA384"},
    {0xC072, "TLS_ECDHE_ECDSA_WITH_CAMELLIA_128_CBC_SHA256"},
    {0xC073, "TLS_ECDHE_ECDSA_WITH_CAMELLIA_256_CBC_SHA384"},
    {0xC076, "TLS_ECDHE_RSA_WITH_CAMELLIA_128_CBC_SHA256"},
    {0xC077, "TLS_ECDHE_RSA_WITH_CAMELLIA_256_CBC_SHA384"},
    {0xC07A, "TLS_RSA_WITH_CAMELLIA_128_GCM_SHA256"},
    {0xC07B, "TLS_RSA_WITH_CAMELLIA_256_GCM_SHA384"},
    {0xC086, "TLS_ECDHE_ECDSA_WITH_CAMELLIA_128_GCM_SHA256"},
    {0xC087, "TLS_ECDHE_ECDSA_WITH_CAMELLIA_256_GCM_SHA384"},
    {0xC08A, "TLS_ECDHE_RSA_WITH_CAMELLIA_128_GCM_SHA256"},
    {0xC08B, "TLS_ECDHE_RSA_WITH_CAMELLIA_256_GCM_SHA384"},
    {0xCC13, "TLS_ECDHE_RSA_WITH_CHACHA20_OLD_POLY1305_SHA256"},
    {0xCC14, "TLS_ECDHE_ECDSA_WITH_CHACHA20_OLD_POLY1305_SHA256"},
    {0xCC15, "TLS_DHE_RSA_WITH_CHACHA20_OLD_POLY1305_SHA256"},
};

std::string_view nameOf(std::uint16_t codePoint)
{
    if (const auto registered = registeredCipherSuiteName(codePoint)) return *registered;
    const auto found = std::ranges::find(furtherSuites, codePoint, &NamedSuite::codePoint);
    return found == std::end(furtherSuites) ? std::string_view() : found->name;
}

struct CipherWord {
    std::string_view name;  ///< as it stands in names, with the "_" behind it
    RecordProtection protection;
    std::int64_t keyLength = 0;
    BulkAlgorithm bulk = BulkAlgorithm::aesCBC;
    ReachSuite::BlockCipher block = ReachSuite::BlockCipher::aes;
    std::int64_t tagLength = 16;
};

using enum RecordProtection;
using enum ReachSuite::BlockCipher;

// Of words that begin alike the longer stands first.
constexpr CipherWord cipherWords[] = {
    {"NULL", none},
    {"RC4_128", stream, 16, BulkAlgorithm::rc4},
    {"IDEA_CBC", cbc, 16, BulkAlgorithm::ideaCBC},
    {"DES_CBC", cbc, 8, BulkAlgorithm::desCBC},
    {"3DES_EDE_CBC", cbc, 24, BulkAlgorithm::tripleDESCBC},
    {"SEED_CBC", cbc, 16, BulkAlgorithm::seedCBC},
    {"AES_128_CBC", cbc, 16, BulkAlgorithm::aesCBC},
    {"AES_256_CBC", cbc, 32, BulkAlgorithm::aesCBC},
    {"CAMELLIA_128_CBC", cbc, 16, BulkAlgorithm::camelliaCBC},
    {"CAMELLIA_256_CBC", cbc, 32, BulkAlgorithm::camelliaCBC},
    {"ARIA_128_CBC", cbc, 16, BulkAlgorithm::ariaCBC},
    {"ARIA_256_CBC", cbc, 32, BulkAlgorithm::ariaCBC},
    {"AES_128_GCM", gcm, 16},
    {"AES_256_GCM", gcm, 32},
    {"ARIA_128_GCM", gcm, 16, BulkAlgorithm::ariaCBC, aria},
    {"ARIA_256_GCM", gcm, 32, BulkAlgorithm::ariaCBC, aria},
    {"CAMELLIA_128_GCM", gcm, 16, BulkAlgorithm::camelliaCBC, camellia},
    {"CAMELLIA_256_GCM", gcm, 32, BulkAlgorithm::camelliaCBC, camellia},
    {"AES_128_CCM_8", ccm, 16, BulkAlgorithm::aesCBC, aes, 8},
    {"AES_256_CCM_8", ccm, 32, BulkAlgorithm::aesCBC, aes, 8},
    {"AES_128_CCM", ccm, 16},
    {"AES_256_CCM", ccm, 32},
    {"CHACHA20_OLD_POLY1305", chaCha20OldNonce, 32},
    {"CHACHA20_POLY1305", chaCha20, 32},
};

std::optional<HashFunction> hashOf(std::string_view word)
{
    if (word == "SHA384") return HashFunction::sha384;
    if (word == "SHA256" || word.empty()) return HashFunction::sha256;
    if (word == "SHA") return HashFunction::sha1;
    if (word == "MD5") return HashFunction::md5;
    return std::nullopt;
}

}  // namespace

std::int64_t ReachSuite::fixedIVLength() const
{
    switch (protection) {
    case gcm:
    case ccm: return 4;
    case chaCha20: return 12;
    default: return 0;
    }
}

std::optional<ReachSuite> ReachSuite::ofName(std::string_view name)
{
    constexpr std::string_view prefix = "TLS_", with = "_WITH_";
    if (!name.starts_with(prefix)) return std::nullopt;
    const std::size_t exchangeEnd = name.find(with);
    const bool isTLS13 = exchangeEnd == std::string_view::npos;
    const std::string_view exchange = isTLS13 ? std::string_view() : name.substr(prefix.size(), exchangeEnd - prefix.size());
    const std::string_view rest = name.substr(isTLS13 ? prefix.size() : exchangeEnd + with.size());
    // The keys of export suites have lengths and a derivation of their own.
    if (exchange.ends_with("EXPORT") || exchange.ends_with("EXPORT1024")) return std::nullopt;
    const auto word = std::ranges::find_if(cipherWords, [&](const CipherWord& candidate) { return rest.starts_with(candidate.name); });
    if (word == std::end(cipherWords)) return std::nullopt;
    std::string_view hashWord = rest.substr(word->name.size());
    if (hashWord.starts_with('_')) hashWord.remove_prefix(1);
    const auto hash = hashOf(hashWord);
    if (!hash) return std::nullopt;

    ReachSuite suite{.protection = word->protection,
                     .bulk = word->bulk,
                     .block = word->block,
                     .keyLength = word->keyLength,
                     .tagLength = word->tagLength,
                     .mac = *hash,
                     .prf = *hash == HashFunction::sha384 ? HashFunction::sha384 : HashFunction::sha256,
                     .isTLS13 = isTLS13,
                     .isRSAKeyExchange = exchange == "RSA"};
    if (isTLS13 && !suite.isAEAD()) return std::nullopt;
    return suite;
}

std::optional<ReachSuite> ReachSuite::of(std::uint16_t codePoint) { return ofName(nameOf(codePoint)); }

std::string ReachSuite::name(std::uint16_t codePoint)
{
    const std::string_view known = nameOf(codePoint);
    return known.empty() ? cipherSuiteName(codePoint) : std::string(known);
}

}  // namespace sealscope
