// SPDX-License-Identifier: Apache-2.0
#include "interpreters/TLSReach/ReachSuite.h"

#include "Sealscope/TLSCipherSuiteRegistry.h"
#include "Sealscope/TLSNames.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
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
    {0x001B, "TLS_DH_anon_WITH_3DES_EDE_CBC_SHA"},
    {0x0066, "TLS_DHE_DSS_WITH_RC4_128_SHA"},
    {0x008A, "TLS_PSK_WITH_RC4_128_SHA"},
    {0x008B, "TLS_PSK_WITH_3DES_EDE_CBC_SHA"},
    {0x008E, "TLS_DHE_PSK_WITH_RC4_128_SHA"},
    {0x008F, "TLS_DHE_PSK_WITH_3DES_EDE_CBC_SHA"},
    {0x0092, "TLS_RSA_PSK_WITH_RC4_128_SHA"},
    {0x0093, "TLS_RSA_PSK_WITH_3DES_EDE_CBC_SHA"},
    {0x0096, "TLS_RSA_WITH_SEED_CBC_SHA"},
    {0x0097, "TLS_DH_DSS_WITH_SEED_CBC_SHA"},
    {0x0098, "TLS_DH_RSA_WITH_SEED_CBC_SHA"},
    {0x0099, "TLS_DHE_DSS_WITH_SEED_CBC_SHA"},
    {0x009A, "TLS_DHE_RSA_WITH_SEED_CBC_SHA"},
    {0x009B, "TLS_DH_anon_WITH_SEED_CBC_SHA"},
    {0xC016, "TLS_ECDH_anon_WITH_RC4_128_SHA"},
    {0xC017, "TLS_ECDH_anon_WITH_3DES_EDE_CBC_SHA"},
    {0xC01A, "TLS_SRP_SHA_WITH_3DES_EDE_CBC_SHA"},
    {0xC01B, "TLS_SRP_SHA_RSA_WITH_3DES_EDE_CBC_SHA"},
    {0xC01C, "TLS_SRP_SHA_DSS_WITH_3DES_EDE_CBC_SHA"},
    {0xC033, "TLS_ECDHE_PSK_WITH_RC4_128_SHA"},
    {0xC034, "TLS_ECDHE_PSK_WITH_3DES_EDE_CBC_SHA"},
    {0xCC13, "TLS_ECDHE_RSA_WITH_CHACHA20_OLD_POLY1305_SHA256"},
    {0xCC14, "TLS_ECDHE_ECDSA_WITH_CHACHA20_OLD_POLY1305_SHA256"},
    {0xCC15, "TLS_DHE_RSA_WITH_CHACHA20_OLD_POLY1305_SHA256"},
};

/// Suites whose code points follow one another: of each key exchange one with keys of 128 bits and SHA-256, one with 256 and SHA-384.
struct SuiteFamily {
    std::uint16_t first = 0;
    std::string_view cipher;
    std::string_view mode;
    std::array<std::string_view, 10> exchanges;  ///< empty behind the last
};

constexpr std::array<std::string_view, 10> exchangesOfGCM{"RSA",     "DHE_RSA",     "DH_RSA",     "DHE_DSS",   "DH_DSS",
                                                          "DH_anon", "ECDHE_ECDSA", "ECDH_ECDSA", "ECDHE_RSA", "ECDH_RSA"};

// RFC 6209 §2 and RFC 6367 §2.
constexpr SuiteFamily suiteFamilies[] = {
    {0xC03C,
     "ARIA",
     "CBC",
     {"RSA", "DH_DSS", "DH_RSA", "DHE_DSS", "DHE_RSA", "DH_anon", "ECDHE_ECDSA", "ECDH_ECDSA", "ECDHE_RSA", "ECDH_RSA"}},
    {0xC050, "ARIA", "GCM", exchangesOfGCM},
    {0xC064, "ARIA", "CBC", {"PSK", "DHE_PSK", "RSA_PSK"}},
    {0xC06A, "ARIA", "GCM", {"PSK", "DHE_PSK", "RSA_PSK"}},
    {0xC070, "ARIA", "CBC", {"ECDHE_PSK"}},
    {0xC072, "CAMELLIA", "CBC", {"ECDHE_ECDSA", "ECDH_ECDSA", "ECDHE_RSA", "ECDH_RSA"}},
    {0xC07A, "CAMELLIA", "GCM", exchangesOfGCM},
    {0xC08E, "CAMELLIA", "GCM", {"PSK", "DHE_PSK", "RSA_PSK"}},
    {0xC094, "CAMELLIA", "CBC", {"PSK", "DHE_PSK", "RSA_PSK", "ECDHE_PSK"}},
};

std::string nameOf(std::uint16_t codePoint)
{
    if (const auto registered = registeredCipherSuiteName(codePoint)) return std::string(*registered);
    const auto found = std::ranges::find(furtherSuites, codePoint, &NamedSuite::codePoint);
    if (found != std::end(furtherSuites)) return std::string(found->name);
    for (const auto& [first, cipher, mode, exchanges] : suiteFamilies) {
        const auto index = static_cast<std::size_t>((codePoint - first) / 2);
        if (codePoint < first || index >= exchanges.size() || exchanges[index].empty()) continue;
        const bool isLong = (codePoint - first) % 2 == 1;
        return fmt::format("TLS_{}_WITH_{}_{}_{}_{}", exchanges[index], cipher, isLong ? 256 : 128, mode, isLong ? "SHA384" : "SHA256");
    }
    return {};
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

std::int64_t ReachSuite::costPerByte() const
{
    if (isAEAD()) return block == BlockCipher::aes ? 2 : 14;
    switch (bulk) {
    case BulkAlgorithm::aesCBC: return 2;
    case BulkAlgorithm::rc4: return 4;
    case BulkAlgorithm::camelliaCBC:
    case BulkAlgorithm::ariaCBC:
    case BulkAlgorithm::seedCBC: return 14;
    case BulkAlgorithm::ideaCBC:
    case BulkAlgorithm::desCBC: return 20;
    case BulkAlgorithm::tripleDESCBC: return 40;
    }
    std::unreachable();
}

std::optional<ReachSuite> ReachSuite::of(std::uint16_t codePoint) { return ofName(nameOf(codePoint)); }

std::string ReachSuite::name(std::uint16_t codePoint)
{
    std::string known = nameOf(codePoint);
    return known.empty() ? cipherSuiteName(codePoint) : known;
}

}  // namespace sealscope
