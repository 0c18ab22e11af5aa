// SPDX-License-Identifier: Apache-2.0
#include "interpreters/TLSReach/HelloFingerprints.h"

#include "harness/Hex.h"
#include "interpreters/TLSReach/ReachDescriber.h"
#include "platform/HMAC.h"
#include "tests/interpreters/TLSReach/Opened.h"

#include <gtest/gtest.h>
#include <utility>

namespace sealscope {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Extension = std::pair<std::uint16_t, std::string>;  ///< type, and data in hexadecimal

void put16(Bytes& bytes, std::size_t number) { bytes.insert(bytes.end(), {static_cast<std::uint8_t>(number >> 8), static_cast<std::uint8_t>(number)}); }

void putExtensions(Bytes& body, const std::vector<Extension>& extensions)
{
    Bytes list;
    for (const auto& [type, text] : extensions) {
        const Data data = hex(text);
        put16(list, type);
        put16(list, static_cast<std::size_t>(data.size()));
        list.insert(list.end(), data.view().begin(), data.view().end());
    }
    if (extensions.empty()) return;
    put16(body, list.size());
    body.insert(body.end(), list.begin(), list.end());
}

Bytes clientHello(std::uint16_t version, const std::vector<std::uint16_t>& suites, const std::vector<Extension>& extensions)
{
    Bytes body;
    put16(body, version);
    body.resize(2 + 32 + 1);
    put16(body, 2 * suites.size());
    for (const std::uint16_t suite : suites) put16(body, suite);
    body.insert(body.end(), {1, 0});
    putExtensions(body, extensions);
    return body;
}

// The first two examples, with their hashes, are those of the method's description.
TEST(HelloFingerprints, TellJA3OfAClient)
{
    const Bytes published = clientHello(0x0301, {47, 53, 5, 10, 49161, 49162, 49171, 49172, 50, 56, 19, 4},
                                        {{0, "0000"}, {10, "0006 0017 0018 0019"}, {11, "01 00"}});
    const Bytes greased = clientHello(0x0301, {0x1A1A, 47, 53, 5, 10, 49161, 49162, 49171, 49172, 50, 56, 19, 4},
                                      {{0xCACA, ""}, {0, "0000"}, {10, "0008 FAFA 0017 0018 0019"}, {11, "01 00"}, {0x0A0A, "00"}});
    const Bytes bare = clientHello(0x0301, {4, 5, 10, 9, 100, 98, 3, 6, 19, 18, 99}, {});
    EXPECT_EQ(HelloFingerprints::ja3(published), "ada70206e40642a3e4461f35503241d5");
    EXPECT_EQ(HelloFingerprints::ja3(greased), "ada70206e40642a3e4461f35503241d5");
    EXPECT_EQ(HelloFingerprints::ja3(bare), "de350869b8c85de67a350c8d186f11e6");
    EXPECT_EQ(HelloFingerprints::ja3(DataView(bare).sub(0, 33)), std::nullopt);
}

// All digests but the first are published with the method's description, as those of three servers. The first hello is its example of the
// text that is digested, "769,47,65281-0-11-35-5-16"; what it prints for that, 4835b19f14997673071435cb321f5445, is the digest of the text
// with a line end.
TEST(HelloFingerprints, TellJA3SOfAServer)
{
    struct Case { std::uint16_t version; std::uint16_t suite; std::vector<Extension> extensions; const char* expected; };
    const Case cases[] = {
        {769, 47,    {{65281, "00"}, {0, ""}, {11, "01 00"}, {35, ""}, {5, ""}, {16, "0003 02 6832"}}, "836ce314215654b5b1f85f97c73e506f"},
        {769, 49172, {{65281, "00"}, {11, "01 00"}},                                                   "623de93db17d313345d7ea481e7443cf"},
        {771, 60,    {{65281, "00"}},                                                                  "80b3a14bccc8598a1f3bbe83e71f735f"},
        {771, 49199, {{65281, "00"}, {11, "01 00"}, {15, "01"}},                                       "a95ca7eab4d47d051a5cd4fb7b6005dc"},
    };
    for (const auto& [version, suite, extensions, expected] : cases) {
        Bytes hello;
        put16(hello, version);
        hello.resize(2 + 32 + 1);
        put16(hello, suite);
        hello.push_back(0);
        putExtensions(hello, extensions);
        EXPECT_EQ(HelloFingerprints::ja3s(hello), expected) << suite;
    }
}

// The first example is that of the method's description, and so are the protocols' characters.
TEST(HelloFingerprints, TellJA4OfAClient)
{
    const std::vector<std::uint16_t> suites{0x5A5A, 0x1301, 0x1302, 0x1303, 0xC02B, 0xC02F, 0xC02C, 0xC030,
                                            0xCCA9, 0xCCA8, 0xC013, 0xC014, 0x009C, 0x009D, 0x002F, 0x0035};
    const auto extensions = [](std::string_view protocols, bool isNamed, std::string_view versions, std::string_view algorithms) {
        std::vector<Extension> list{{0x7A7A, ""}, {0x001B, ""}, {0x000A, "0002 001D"}, {0xFF01, "00"}, {0x4469, ""}, {0x0033, ""}};
        if (isNamed) list.push_back({0x0000, "0000"});
        list.insert(list.end(), {{0x0017, ""}, {0x002D, ""}, {0x0005, ""}, {0x0023, ""}, {0x0012, ""}, {0x000B, "01 00"}});
        list.push_back({0x000D, std::string(algorithms)});
        list.push_back({0x002B, std::string(versions)});
        list.push_back({0x0010, std::string(protocols)});
        list.insert(list.end(), {{0x0015, ""}, {0xDADA, "00"}});
        return list;
    };
    constexpr std::string_view algorithms = "0010 0403 0804 0401 0503 0805 0501 0806 0601", versions = "06 9A9A 0304 0303";
    struct Case { const char* name; std::string_view protocols; bool isNamed; std::string_view versions; std::string_view algorithms; const char* expected; };
    const Case cases[] = {
        {"as published",              "000C 02 6832 08 687474702F312E31", true,  versions,     algorithms, "t13d1516h2_8daaf6152771_e5627efa2ab1"},
        {"no signature algorithms",   "0003 02 6832",                     true,  versions,     "0000",     "t13d1516h2_8daaf6152771_6d807ffa2a79"},
        {"no server name",            "0003 02 6832",                     false, versions,     algorithms, "t13i1515h2_8daaf6152771_e5627efa2ab1"},
        {"no versions to choose",     "0003 02 6832",                     true,  "00",         algorithms, "t12d1516h2_8daaf6152771_e5627efa2ab1"},
        {"older versions",            "0003 02 6832",                     true,  "04 0302 0301", algorithms, "t11d1516h2_8daaf6152771_e5627efa2ab1"},
        {"no protocol",               "0000",                             true,  versions,     algorithms, "t13d151600_8daaf6152771_e5627efa2ab1"},
        {"one letter",                "0002 01 68",                       true,  versions,     algorithms, "t13d1516hh_8daaf6152771_e5627efa2ab1"},
        {"0xAB",                      "0002 01 AB",                       true,  versions,     algorithms, "t13d1516ab_8daaf6152771_e5627efa2ab1"},
        {"0xAB 0xCD",                 "0003 02 ABCD",                     true,  versions,     algorithms, "t13d1516ad_8daaf6152771_e5627efa2ab1"},
        {"0x30 0xAB",                 "0003 02 30AB",                     true,  versions,     algorithms, "t13d15163b_8daaf6152771_e5627efa2ab1"},
        {"0x30 0x31 0xAB 0xCD",       "0005 04 3031ABCD",                 true,  versions,     algorithms, "t13d15163d_8daaf6152771_e5627efa2ab1"},
        {"0x30 0xAB 0xCD 0x31",       "0005 04 30ABCD31",                 true,  versions,     algorithms, "t13d151601_8daaf6152771_e5627efa2ab1"},
    };
    for (const Case& c : cases)
        EXPECT_EQ(HelloFingerprints::ja4(clientHello(0x0303, suites, extensions(c.protocols, c.isNamed, c.versions, c.algorithms))), c.expected)
            << c.name;
    EXPECT_EQ(HelloFingerprints::ja4(clientHello(0x0301, {}, {})), "t10i000000_000000000000_000000000000");
    const Bytes whole = clientHello(0x0303, suites, extensions("0003 02 6832", true, versions, algorithms));
    constexpr std::int64_t lastGREASE = 5;  // its length in bytes; without it the fingerprint is the same
    for (std::int64_t length = 0; length < std::ssize(whole) - lastGREASE; ++length)
        EXPECT_NE(HelloFingerprints::ja4(DataView(whole).sub(0, length)), "t13d1516h2_8daaf6152771_e5627efa2ab1") << length;
}

/// Facts of a stream as one text each; "" for none.
std::map<std::string, std::string> factsOf(const TCPStream& stream, std::string_view keyLog)
{
    const std::vector<std::shared_ptr<const TLSStreamDecryptionProbing>> probes{probeWith(keyLog)};
    std::map<std::string, std::string> texts;
    const auto add = [&](const auto& self, const std::string& prefix, const std::vector<StreamFact>& facts) -> void {
        for (const StreamFact& fact : facts) {
            const std::string name = prefix + fact.name;
            if (const auto* inner = std::get_if<std::vector<StreamFact>>(&fact.value)) {
                self(self, name + '.', *inner);
            } else if (const auto* list = std::get_if<std::vector<std::string>>(&fact.value)) {
                for (const std::string& text : *list) texts[name] += text + ' ';
            } else {
                const auto* const text = std::get_if<std::string>(&fact.value);
                texts[name] = text ? *text : "";
            }
        }
    };
    add(add, "", ReachDescriber().facts(stream, probes));
    return texts;
}

TEST(ReachDescriber, TellsTheServersCertificate)
{
    const CertificateOptions options{.subject = {{"C", "DE"}, {"O", "Example, \"Inc\""}, {"CN", "www.example.org"}},
                                     .alternativeNames = {"DNS:www.example.org", "DNS:*.example.org"},
                                     .authorities = 2};
    const std::map<std::string, std::string> expected{
        {"sha256", hexText(viewOf(digest(HashFunction::sha256, {makeCertificate(options)})))},
        {"subject", "CN=www.example.org,O=Example\\, \\\"Inc\\\",C=DE"},
        {"notBefore", "2024-01-01T00:00:00Z"},
        {"notAfter", "2049-12-31T23:59:59Z"},
        {"names", "www.example.org *.example.org "},
    };
    struct Case { const char* name; std::uint16_t version; bool hasKeys; bool isTold; };
    for (const Case& c : {Case{"in the clear", 0x0303, false, true}, {"opened", 0x0304, true, true}, {"closed", 0x0304, false, false}}) {
        const TLSSession session = runTLS({.version = c.version, .certificates = {options}}, {clientSends("x"), serverSends("y")});
        auto facts = factsOf(vectorStream(session.flights), c.hasKeys ? session.keyLog : "");
        for (const auto& [name, text] : expected) EXPECT_EQ(facts["certificate." + name], c.isTold ? text : "") << c.name << ", " << name;
        EXPECT_EQ(facts.contains("certificate"), !c.isTold) << c.name;
    }
}

TEST(ReachDescriber, FindsHellosHoweverTheyLie)
{
    for (const std::uint16_t version : {0x0303, 0x0304}) {
        const TLSSession plain = runTLS({.version = version, .clientProtocols = {"h2"}}, {clientSends("x")});
        const auto expected = factsOf(vectorStream(plain.flights), plain.keyLog);
        EXPECT_EQ(expected.at("ja4").substr(0, 4), version == 0x0304 ? "t13d" : "t12d");
        EXPECT_EQ(expected.at("ja3s").size(), 32);
        const TLSSession cut = runTLS({.version = version, .clientProtocols = {"h2"}, .handshakeRecordLength = 50}, {clientSends("x")});
        EXPECT_EQ(factsOf(vectorStream(cut.flights, {.segmentSize = 7, .isScattered = true}), cut.keyLog), expected) << version;
        // Not of a stream that is none, and not of a hello that was lost in part.
        EXPECT_EQ(factsOf(vectorStream(Data::fromText("GET / HTTP/1.0\r\n\r\n"), {}), "").at("ja4"), "");
        auto pieces = streamPieces(plain.flights, {.segmentSize = 60, .isScattered = true});
        pieces[0].lostBytes = pieces[1].bytes.size();
        pieces.erase(pieces.begin() + 1);
        EXPECT_EQ(factsOf(vectorStream(pieces, StreamLayout::inPieces), "").at("ja3"), "");
    }
    // The hello that a retry asks for is another one; the first is the client's own choice.
    const auto direct = runTLS({.clientGroups = "P-256"}, {clientSends("x")});
    const auto retried = runTLS({.clientGroups = "X25519:P-256", .serverGroups = "P-256"}, {clientSends("x")});
    EXPECT_EQ(factsOf(vectorStream(retried.flights), retried.keyLog).at("ja3s"), factsOf(vectorStream(direct.flights), "").at("ja3s"));
}

}  // namespace
}  // namespace sealscope
