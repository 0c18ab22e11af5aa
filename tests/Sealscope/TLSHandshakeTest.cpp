// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSHandshake.h"

#include "Sealscope/TLSDissector.h"
#include "harness/TLSSession.h"
#include "tests/Sealscope/TLSBytes.h"
#include "tests/Sealscope/TLSPrinters.h"

#include <gtest/gtest.h>
#include <random>

namespace sealscope {
namespace {

/// A hello in a line: version, session identifier, then each list with its place and content.
std::string described(const std::optional<ClientHelloInfo>& hello)
{
    if (!hello) return "nothing";
    std::string text =
        fmt::format("{:04x} session {} suites @{}+{} [{:04x}] compression @{}+{} extensions @{} [", hello->legacyVersion,
                    hello->sessionIDLength, hello->cipherSuitesOffset, hello->cipherBytes, fmt::join(hello->cipherSuites, " "),
                    hello->compressionOffset, hello->compressionLength, hello->extensionsOffset);
    for (const TLSExtension& extension : hello->extensions)
        text += fmt::format("{:04x}@{}+{} ", extension.extType, extension.bodyOffset, extension.length);
    if (text.back() == ' ') text.pop_back();
    text += ']';
    if (hello->serverName) text += fmt::format(" name \"{}\"", *hello->serverName);
    if (!hello->alpnProtocols.empty()) text += fmt::format(" alpn {}", fmt::join(hello->alpnProtocols, "|"));
    if (!hello->supportedVersions.empty()) text += fmt::format(" versions {:04x}", fmt::join(hello->supportedVersions, " "));
    return text;
}

std::string described(const std::optional<ServerHelloInfo>& hello)
{
    if (!hello) return "nothing";
    std::string text = fmt::format("{:04x} session {} suite @{} {:04x} extensions {}", hello->legacyVersion, hello->sessionIDLength,
                                   hello->cipherSuiteOffset, hello->cipherSuite, hello->extensions.size());
    if (hello->supportedVersion) text += fmt::format(" version {:04x}", *hello->supportedVersion);
    return text;
}

/// A Client Hello body of 0 bytes of session identifier and one suite, up to its extensions.
Data clientHelloWith(const Data& extensions) { return wire::clientHello(wire::helloStart(), {0x1301}, {extensions}); }

TEST(TLSHandshake, CutsARecordBodyIntoMessages)
{
    struct Case {
        const char* name;
        Data body;
        std::vector<TLSHandshakeMessage> expected;
    };
    const Case cases[] = {
        {"nothing", {}, {}},
        {"three bytes are no header", hex("01 00 00"), {}},
        {"an empty message is whole", hex("01 00 00 00"), {{1, 0, 104, false}}},
        {"a length has three bytes", joined({hex("0b 01 00 02"), wire::zeros(65538)}), {{11, 65538, 104, false}}},
        {"messages touch", hex("02 00 00 01 ff  0e 00 00 00"), {{2, 1, 104, false}, {14, 0, 109, false}}},
        {"a cut message is the last", hex("02 00 00 01 ff  0b 00 00 03 00 00"), {{2, 1, 104, false}, {11, 3, 109, true}}},
        {"stray bytes are left alone", hex("0e 00 00 00  01 02 03"), {{14, 0, 104, false}}},
    };
    for (const auto& [name, body, expected] : cases) EXPECT_EQ(TLSDissector::parseHandshakeMessages(body, 100), expected) << name;
}

TEST(TLSHandshake, ReadsAClientHello)
{
    struct Case {
        const char* name;
        Data body;
        std::string expected;
    };
    const Data start = wire::helloStart();
    const Case cases[] = {
        {"34 bytes", start.sub(0, 34), "nothing"},
        {"no room for the suite list's length", joined({start, hex("00")}), "nothing"},
        {"the session identifier moves everything", joined({wire::helloStart(0x0301, 32), hex("0002 002f 01 00")}),
         "0301 session 32 suites @67+2 [002f] compression @71+2 extensions @73 []"},
        {"68 bytes are too few for a session identifier of 32", joined({wire::helloStart(0x0303, 32), hex("00")}), "nothing"},
        {"69 bytes are enough for it", joined({wire::helloStart(0x0303, 32), hex("0000")}),
         "0303 session 32 suites @67+0 [] compression @69+0 extensions @69 []"},
        {"a body that ends with its suites", joined({start, hex("0004 1301 1302")}),
         "0303 session 0 suites @35+4 [1301 1302] compression @41+0 extensions @41 []"},
        {"an odd byte in the suite list is left alone", joined({start, hex("0005 1301 1302 ff 01 00")}),
         "0303 session 0 suites @35+5 [1301 1302] compression @42+2 extensions @44 []"},
        {"a suite list longer than the body", joined({start, hex("0100 1301 1302 ff")}),
         "0303 session 0 suites @35+256 [1301 1302] compression @42+0 extensions @42 []"},
        {"more compression methods than the body holds", joined({start, hex("0002 1301 05 00")}),
         "0303 session 0 suites @35+2 [1301] compression @39+6 extensions @45 []"},
        {"one byte is no extension list", joined({start, hex("0002 1301 01 00 ff")}),
         "0303 session 0 suites @35+2 [1301] compression @39+2 extensions @41 []"},
        {"an empty extension list", joined({start, hex("0002 1301 01 00 0000")}),
         "0303 session 0 suites @35+2 [1301] compression @39+2 extensions @41 []"},
        {"extensions count from the base offset", clientHelloWith(joined({wire::extension(23, {}), wire::extension(0x0a0a, hex("00"))})),
         "0303 session 0 suites @35+2 [1301] compression @39+2 extensions @41 [0017@1047+0 0a0a@1051+1]"},
        {"an extension that passes the list's end is dropped with all after it",
         joined({start, hex("0002 1301 01 00 000a  0017 0000  0023 0003 0000  0017 0000")}),
         "0303 session 0 suites @35+2 [1301] compression @39+2 extensions @41 [0017@1047+0]"},
        {"an extension list longer than the body", joined({start, hex("0002 1301 01 00 ffff  0017 0000  0023 0001")}),
         "0303 session 0 suites @35+2 [1301] compression @39+2 extensions @41 [0017@1047+0]"},
        {"an extension list shorter than the body", joined({start, hex("0002 1301 01 00 0004  0017 0000  0023 0000")}),
         "0303 session 0 suites @35+2 [1301] compression @39+2 extensions @41 [0017@1047+0]"},
        {"the first extension of a type counts",
         clientHelloWith(joined({wire::serverNameExtension("a.example"), wire::serverNameExtension("b.example"),
                                 wire::alpnExtension({Data::fromText("h2")}), wire::alpnExtension({Data::fromText("h3")}),
                                 wire::supportedVersionsExtension({0x0304}), wire::supportedVersionsExtension({0x0303})})),
         "0303 session 0 suites @35+2 [1301] compression @39+2 extensions @41 "
         "[0000@1047+14 0000@1065+14 0010@1083+5 0010@1092+5 002b@1101+3 002b@1108+3] name \"a.example\" alpn h2 versions 0304"},
    };
    for (const auto& [name, body, expected] : cases) EXPECT_EQ(described(TLSDissector::parseClientHello(body, 1000)), expected) << name;
}

TEST(TLSHandshake, EveryPrefixOfAClientHelloHasWhatFits)
{
    const Data whole = wire::browserClientHello().sub(9, 508);
    const auto complete = TLSDissector::parseClientHello(whole, 0);
    ASSERT_TRUE(complete);
    ASSERT_EQ(complete->cipherSuites.size(), 17);
    ASSERT_EQ(complete->extensions.size(), 12);
    for (std::int64_t size = 0; size <= whole.size(); ++size) {
        const auto hello = TLSDissector::parseClientHello(whole.sub(0, size), 0);
        ASSERT_EQ(hello.has_value(), size >= 69) << size;
        if (!hello) continue;
        const auto suites = std::min<std::size_t>(17, static_cast<std::size_t>(size - 69) / 2);
        EXPECT_EQ(hello->cipherSuites, std::vector(complete->cipherSuites.begin(), complete->cipherSuites.begin() + suites)) << size;
        EXPECT_EQ(hello->clientRandom, complete->clientRandom) << size;
        std::vector<TLSExtension> extensions;
        for (const TLSExtension& extension : complete->extensions)
            if (extension.bodyOffset + extension.length <= size) extensions.push_back(extension);
        EXPECT_EQ(hello->extensions, extensions) << size;
        EXPECT_EQ(hello->serverName.has_value(), !extensions.empty()) << size;
    }
}

TEST(TLSHandshake, ReadsAServerName)
{
    struct Case {
        const char* name;
        Data body;  ///< the extension's data begin at 2
        std::optional<std::string> expected;
    };
    const Case cases[] = {
        {"a name", hex("ffff 0006 00 0003 612e62"), "a.b"},
        {"an empty name", hex("ffff 0003 00 0000"), ""},
        {"the first entry counts, whatever the list's length", hex("ffff 0001 00 0001 61 00 0001 62"), "a"},
        {"another kind of name", hex("ffff 0006 01 0003 612e62"), std::nullopt},
        {"four bytes", hex("ffff 0003 00 00"), std::nullopt},
        {"a name that the body does not hold", hex("ffff 0006 00 0004 612e62"), std::nullopt},
        {"no UTF-8", hex("ffff 0006 00 0003 61ff62"), std::nullopt},
        {"a surrogate is no UTF-8", hex("ffff 0006 00 0003 eda080"), std::nullopt},
        {"an overlong form is no UTF-8", hex("ffff 0005 00 0002 c0af"), std::nullopt},
        {"a byte order mark stays", hex("ffff 0007 00 0004 efbbbf61"),
         "\xEF\xBB\xBF"
         "a"},
        {"a control character stays", hex("ffff 0005 00 0002 1b00"), std::string("\x1B\0", 2)},
    };
    for (const auto& [name, body, expected] : cases) EXPECT_EQ(TLSDissector::parseServerName(body, 102, 100), expected) << name;
    EXPECT_EQ(TLSDissector::parseServerName(cases[0].body, 99, 100), std::nullopt) << "before the body";
    EXPECT_EQ(TLSDissector::parseServerName(cases[0].body, 1'000, 100), std::nullopt) << "behind the body";
}

TEST(TLSHandshake, TheHelloBodyAloneBoundsAServerName)
{
    // The extension ends behind the list's length; kind, length and name stand in what follows it.
    EXPECT_EQ(described(TLSDissector::parseClientHello(clientHelloWith(hex("0000 0002 0000  0000 0361 2e62")), 0)),
              "0303 session 0 suites @35+2 [1301] compression @39+2 extensions @41 [0000@47+2] name \"a.b\"");
}

TEST(TLSHandshake, ReadsALPN)
{
    struct Case {
        const char* name;
        Data body;
        std::vector<std::string> expected;
    };
    const Case cases[] = {
        {"one byte", hex("00"), {}},
        {"an empty list", hex("0000"), {}},
        {"two names", hex("0006 02 6832 02 6833"), {"h2", "h3"}},
        {"a name that is no UTF-8 is left out", hex("0009 02 6832 02 c328 02 6833"), {"h2", "h3"}},
        {"an empty name", hex("0004 00 02 6832"), {"", "h2"}},
        {"a name that passes the list's end ends it", hex("0005 02 6832 02 68 33"), {"h2"}},
        {"a list that passes the body's end", hex("00ff 02 6832 02 6833"), {"h2", "h3"}},
        {"a list shorter than the body", hex("0003 02 6832 02 6833"), {"h2"}},
    };
    for (const auto& [name, body, expected] : cases) EXPECT_EQ(TLSDissector::parseALPN(body, 7, 7), expected) << name;
}

TEST(TLSHandshake, ReadsTheVersionsOfAClient)
{
    struct Case {
        const char* name;
        Data body;
        std::vector<std::uint16_t> expected;
    };
    const Case cases[] = {
        {"nothing", {}, {}},
        {"an empty list", hex("00 0304"), {}},
        {"one byte is no version", hex("01 0304"), {}},
        {"two versions", hex("04 0304 0303"), {0x0304, 0x0303}},
        {"an odd byte is left alone", hex("05 0304 0303 03"), {0x0304, 0x0303}},
        {"a list that passes the body's end", hex("ff 0304 03"), {0x0304}},
    };
    for (const auto& [name, body, expected] : cases) EXPECT_EQ(TLSDissector::parseSupportedVersions(body, 7, 7), expected) << name;
}

TEST(TLSHandshake, ReadsAServerHello)
{
    const Data start = wire::helloStart();
    struct Case {
        const char* name;
        Data body;
        std::string expected;
    };
    const Case cases[] = {
        {"37 bytes", joined({start, hex("c02f")}), "nothing"},
        {"38 bytes", joined({start, hex("c02f 00")}), "0303 session 0 suite @35 c02f extensions 0"},
        {"the compression method does not matter", joined({start, hex("c02f 77")}), "0303 session 0 suite @35 c02f extensions 0"},
        {"an empty extension list", joined({start, hex("c02f 00 0000")}), "0303 session 0 suite @35 c02f extensions 0"},
        {"a session identifier of 32 needs 70 bytes", joined({wire::helloStart(0x0303, 32), hex("1301")}), "nothing"},
        {"the session identifier moves everything", joined({wire::helloStart(0x0303, 32), hex("1301 00 0006 002b 0002 0304")}),
         "0303 session 32 suite @67 1301 extensions 1 version 0304"},
        {"the selected version is read from the body, whatever the extension declares",
         joined({start, hex("1301 00 0009 002b 0000 0017 0001 00")}), "0303 session 0 suite @35 1301 extensions 2 version 0017"},
        {"one byte is no version", joined({start, hex("1301 00 0005 002b 0001 03")}), "0303 session 0 suite @35 1301 extensions 1"},
        {"the first extension of a type counts", joined({start, hex("1301 00 000c 002b 0002 0304 002b 0002 0303")}),
         "0303 session 0 suite @35 1301 extensions 2 version 0304"},
    };
    for (const auto& [name, body, expected] : cases) EXPECT_EQ(described(TLSDissector::parseServerHello(body, 1000)), expected) << name;
}

TEST(TLSHandshake, TheServerNameAloneIsThatOfTheWholeHello)
{
    // Broken at random: most bodies still parse, with lengths that lead anywhere.
    const Data whole = wire::browserClientHello().sub(9, 508);
    std::mt19937 random(7);
    int named = 0;
    for (int round = 0; round < 20'000; ++round) {
        std::vector<std::uint8_t> bytes(whole.view().begin(), whole.view().end());
        bytes.resize(random() % 4 == 0 ? random() % bytes.size() : bytes.size());
        for (std::uint32_t flips = random() % 4; flips > 0 && !bytes.empty(); --flips)
            bytes[random() % std::min<std::size_t>(bytes.size(), 160)] = static_cast<std::uint8_t>(random());
        const auto hello = TLSDissector::parseClientHello(bytes, 0);
        const auto name = TLSDissector::clientHelloServerName(bytes);
        ASSERT_EQ(TLSDissector::isClientHello(bytes), hello.has_value()) << hexText(bytes);
        ASSERT_EQ(name.has_value(), hello && hello->serverName) << hexText(bytes);
        if (name) {
            ASSERT_EQ(*name, *hello->serverName) << hexText(bytes);
            ++named;
        }
    }
    EXPECT_GT(named, 1'000);
}

TEST(TLSHandshake, ReadsWhatARealLibraryWrote)
{
    const TLSSession session = runTLS({.version = 0x0304,
                                       .lowestVersion = 0x0303,
                                       .suites = "TLS_AES_128_GCM_SHA256:ECDHE-ECDSA-AES128-GCM-SHA256",
                                       .serverName = "shop.example.net",
                                       .clientProtocols = {"h2", "http/1.1"},
                                       .serverProtocols = {"h2"}},
                                      {});
    ASSERT_TRUE(session.isComplete) << session.failure;
    const auto firstBody = [&](TCPSegment::Direction direction) {
        const Data bytes = session.wire(direction);
        const TLSRecord record = TLSDissector::parseRecords(bytes).at(0);
        const TLSHandshakeMessage message =
            TLSDissector::parseHandshakeMessages(bytes.view().sub(record.bodyOffset, record.declaredLength), record.bodyOffset).at(0);
        return bytes.sub(message.bodyOffset, message.length);
    };
    const auto client = TLSDissector::parseClientHello(firstBody(TCPSegment::Direction::clientToServer), 0);
    ASSERT_TRUE(client);
    EXPECT_EQ(client->legacyVersion, 0x0303);
    EXPECT_EQ(client->serverName, "shop.example.net");
    EXPECT_EQ(client->alpnProtocols, (std::vector<std::string>{"h2", "http/1.1"}));
    EXPECT_EQ(client->supportedVersions, (std::vector<std::uint16_t>{0x0304, 0x0303}));
    EXPECT_EQ(client->cipherSuites, (std::vector<std::uint16_t>{0x1301, 0xC02B, 0x00FF}));
    EXPECT_TRUE(session.keyLog.contains(' ' + hexText(client->clientRandom) + ' ')) << "the random is the one the key log names";
    const auto server = TLSDissector::parseServerHello(firstBody(TCPSegment::Direction::serverToClient), 0);
    ASSERT_TRUE(server);
    EXPECT_EQ(server->cipherSuite, session.cipherSuite);
    EXPECT_EQ(server->supportedVersion, 0x0304);
}

}  // namespace
}  // namespace sealscope
