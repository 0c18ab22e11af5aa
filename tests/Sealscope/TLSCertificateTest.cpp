// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSCertificate.h"

#include "Sealscope/TLSDissector.h"
#include "harness/Certificates.h"
#include "tests/Sealscope/TLSBytes.h"
#include "tests/Sealscope/TLSPrinters.h"

#include <gtest/gtest.h>

namespace sealscope {
namespace {

TEST(TLSCertificate, CutsAMessageIntoEntries)
{
    struct Case {
        const char* name;
        Data body;
        std::vector<TLSCertEntry> expected;
    };
    const Case cases[] = {
        {"two bytes", hex("00 00"), {}},
        {"an empty list", hex("000000"), {}},
        {"a list that ends inside a length", hex("000002 0000"), {}},
        {"an empty entry", hex("000003 000000"), {{{}, 106, 0}}},
        {"two entries", hex("00000a 000002 aabb 000002 ccdd"), {{hex("aabb"), 106, 2}, {hex("ccdd"), 111, 2}}},
        {"an entry that passes the list's end", hex("00000a 000002 aabb 000003 ccdd ee"), {{hex("aabb"), 106, 2}}},
        {"a list that passes the body's end", hex("ffffff 000002 aabb 000002 cc"), {{hex("aabb"), 106, 2}}},
        {"a body longer than its list", hex("000005 000002 aabb 000001 cc"), {{hex("aabb"), 106, 2}}},
        {"a TLS 1.3 message is read the same way", hex("00 000009 000004 30020500 0000"), {}},
    };
    for (const auto& [name, body, expected] : cases) EXPECT_EQ(TLSDissector::parseCertificates(body, 100), expected) << name;
}

TEST(TLSCertificate, SumsUpWhatPeersSend)
{
    const auto chain = CertificateChain::make(
        {.subject = {{"CN", "Example Shop"}, {"O", "Example"}, {"CN", "shop.example.org"}},
         .alternativeNames = {"DNS:shop.example.org", "IP:192.0.2.1", "email:a@example.org", "RID:1.2.3", "URI:https://example.org/"},
         .serial = "FF00",
         .notBefore = "19500101000000Z",
         .notAfter = "20500101000000Z",
         .authorities = 2,
         .sendsRoot = true});
    ASSERT_EQ(chain->certificates.size(), 3);
    const CertSummary leaf{"shop.example.org",
                           "Example Authority 1",
                           "1950-01-01T00:00:00Z",
                           "2050-01-01T00:00:00Z",
                           "00:FF:00",
                           {"shop.example.org", "a@example.org", "https://example.org/"}};
    const CertSummary root{"Example Root", "Example Root", "2024-01-01T00:00:00Z", "2049-12-31T23:59:59Z", "00:A0", {}};
    EXPECT_EQ(TLSDissector::certSummary(chain->certificates[0]), leaf);
    EXPECT_EQ(TLSDissector::certSummary(chain->certificates[2]), root);
    EXPECT_EQ(TLSDissector::certSummary({}), std::nullopt);
    EXPECT_EQ(TLSDissector::certSummary(hex("30 00")), std::nullopt);
}

TEST(TLSCertificate, TheIssuerIsItsFirstCommonName)
{
    const Data der =
        makeCertificate({.subject = {{"O", "Example"}, {"CN", "first"}, {"CN", "last"}}, .alternativeNames = {}, .authorities = 0});
    const auto summary = TLSDissector::certSummary(der);
    ASSERT_TRUE(summary);
    EXPECT_EQ(summary->issuerCN, "first");
    EXPECT_EQ(summary->subjectCN, "last");
}

}  // namespace
}  // namespace sealscope
