// SPDX-License-Identifier: Apache-2.0
#include "harness/Hex.h"
#include "interpreters/TLSReach/ReachSuite.h"
#include "tests/interpreters/TLSReach/GnuTLSSession.h"
#include "tests/interpreters/TLSReach/Opened.h"

#include <array>
#include <fmt/format.h>
#include <gnutls/crypto.h>
#include <gtest/gtest.h>

namespace sealscope {
namespace {

// What libssl does not speak, and the rest once more as another implementation speaks it.
TEST(GnuTLS, OpensWhatGnuTLSSpeaks)
{
    const std::vector<std::string> texts{"request", "reply", std::string(3'000, 'c'), std::string(9'000, 's'), "end", "end too"};
    const char* const ciphers[] = {
        "CAMELLIA-128-GCM", "CAMELLIA-256-GCM", "CAMELLIA-128-CBC", "CAMELLIA-256-CBC", "3DES-CBC", "ARCFOUR-128",      "AES-128-CCM",
        "AES-128-CCM-8",    "AES-256-CCM-8",    "AES-128-CBC",      "AES-128-GCM",      "NULL",     "CHACHA20-POLY1305"};
    int spoken = 0;
    for (const char* cipher : ciphers) {
        for (const char* version : {"TLS1.0", "TLS1.1", "TLS1.2", "TLS1.3"}) {
            const std::string priority = fmt::format(
                "NONE:+VERS-{}:+{}:+MAC-ALL:+MD5:+KX-ALL:+COMP-NULL:+SIGN-ALL:+SIGN-RSA-SHA1:+GROUP-ALL:+CTYPE-ALL:%VERIFY_ALLOW_BROKEN",
                version, cipher);
            TLSSession session;
            try {
                session = GnuTLSPeers::talk(priority, texts);
            } catch (const std::runtime_error&) {
                continue;
            }
            if (!session.isComplete) continue;
            ++spoken;
            const auto probe = probeWith(session.keyLog);
            for (const auto direction : {TCPSegment::Direction::clientToServer, TCPSegment::Direction::serverToClient})
                EXPECT_EQ(opened(*probe, vectorStream(session.flights), direction).plaintext, session.plaintext(direction).view().text())
                    << priority;
        }
    }
    EXPECT_GE(spoken, 18) << "the library offers fewer suites than it did";
}

// All that it lists, negotiated by anybody here or not.
TEST(GnuTLS, KnowsTheSuitesOfGnuTLS)
{
    std::array<std::uint8_t, 2> code{};
    gnutls_cipher_algorithm_t cipher{};
    gnutls_mac_algorithm_t mac{};
    int compared = 0;
    for (std::size_t i = 0; const char* const name = gnutls_cipher_suite_info(i, code.data(), nullptr, &cipher, &mac, nullptr); ++i) {
        if (std::string_view(name).starts_with("TLS_GOST")) continue;
        const auto suite = ReachSuite::of(static_cast<std::uint16_t>(code[0] << 8 | code[1]));
        ASSERT_TRUE(suite) << name;
        ++compared;
        EXPECT_EQ(suite->keyLength, static_cast<std::int64_t>(gnutls_cipher_get_key_size(cipher))) << name;
        if (suite->isAEAD()) {
            EXPECT_EQ(suite->tagLength, static_cast<std::int64_t>(gnutls_cipher_get_tag_size(cipher))) << name;
        } else {
            EXPECT_EQ(digestSize(suite->mac), static_cast<std::int64_t>(gnutls_hmac_get_len(mac))) << name;
        }
    }
    EXPECT_GE(compared, 150);
}

}  // namespace
}  // namespace sealscope
