// SPDX-License-Identifier: Apache-2.0
#include "tests/interpreters/TLSReach/GnuTLSSession.h"
#include "tests/interpreters/TLSReach/Opened.h"

#include "harness/Hex.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace sealscope {
namespace {

// What libssl does not speak, and the rest once more as another implementation speaks it.
TEST(ReachProbe, OpensWhatGnuTLSSpeaks)
{
    const std::vector<std::string> texts{"request", "reply", std::string(3'000, 'c'), std::string(9'000, 's'), "end", "end too"};
    const char* const ciphers[] = {"CAMELLIA-128-GCM", "CAMELLIA-256-GCM", "CAMELLIA-128-CBC", "CAMELLIA-256-CBC", "3DES-CBC", "ARCFOUR-128",
                                   "AES-128-CCM",      "AES-128-CCM-8",    "AES-256-CCM-8",    "AES-128-CBC",      "AES-128-GCM", "NULL",
                                   "CHACHA20-POLY1305"};
    int spoken = 0;
    for (const char* cipher : ciphers) {
        for (const char* version : {"TLS1.0", "TLS1.1", "TLS1.2", "TLS1.3"}) {
            const std::string priority =
                fmt::format("NONE:+VERS-{}:+{}:+MAC-ALL:+MD5:+KX-ALL:+COMP-NULL:+SIGN-ALL:+SIGN-RSA-SHA1:+GROUP-ALL:+CTYPE-ALL:%VERIFY_ALLOW_BROKEN",
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

}  // namespace
}  // namespace sealscope
