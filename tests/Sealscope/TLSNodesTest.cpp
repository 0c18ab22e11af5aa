// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSDissector.h"
#include "harness/Certificates.h"
#include "harness/TempDirectory.h"
#include "tests/Sealscope/TLSBytes.h"
#include "tests/support/TreeText.h"

#include <algorithm>
#include <cstdlib>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <set>
#include <sstream>

namespace sealscope {
namespace {

std::string tree(const Data& payload, const Bundle& bundle = Bundle("")) { return treeText(TLSDissector::nodes(payload, bundle)); }

/// The lines of a tree without the first `lines` of them, and `columns` less indented.
std::string below(const std::string& text, int lines, std::size_t columns)
{
    std::istringstream stream(text);
    std::string rest;
    for (std::string line; std::getline(stream, line); --lines)
        if (lines <= 0) rest += line.substr(columns) + '\n';
    return rest;
}

/// What stands under the only record of a payload, without the record's three header fields.
std::string recordTree(const Data& record) { return below(tree(record), 5, 4); }

/// What stands under the only message of a record, likewise.
std::string messageTree(std::uint8_t type, const Data& body)
{
    return below(recordTree(wire::record(22, wire::message(type, body))), 3, 2);
}

TEST(TLSNodes, ShowEveryRecordAtItsPlace)
{
    EXPECT_EQ(tree({}), "TLS @0+0\n  No TLS records\n");
    EXPECT_EQ(tree(hex("16 03 03 00")), "TLS @0+4\n  No TLS records\n");
    EXPECT_EQ(tree(joined({wire::record(22, wire::message(13, wire::zeros(96))), wire::record(20, hex("01"), 0x0301), hex("17 03")})),
              R"(TLS @0+113
  TLS Record @0+105
    Content Type: Handshake (0x16) @0+1
    Version: TLS 1.2 (0x0303) @1+2
    Length: 100 @3+2
    Certificate Request @5+100
      Handshake Type: Certificate Request (13) @0+1
      Length: 96 @1+3
  TLS Record @105+6
    Content Type: Change Cipher Spec (0x14) @0+1
    Version: TLS 1.0 (0x0301) @1+2
    Length: 1 @3+2
    Change Cipher Spec @5+1
      Value: 1 @0+1
)");
    EXPECT_EQ(tree(hex("18 02 00 00 64 0102")), R"(TLS @0+7
  TLS Record @0+7
    Content Type: Unknown (0x18) (0x18) @0+1
    Version: Unknown (0x0200) (0x0200) @1+2
    Length: 100 @3+2
    Continues in next segment
)");
}

TEST(TLSNodes, ShowWhatARecordHolds)
{
    struct Case {
        const char* name;
        Data record;
        std::string expected;
    };
    const Case cases[] = {
        {"an empty change cipher spec", hex("14 03 03 00 00"), "Change Cipher Spec @5+0\n"},
        {"a longer change cipher spec", hex("14 03 03 00 02 ff 01"), "Change Cipher Spec @5+2\n  Value: 255 @0+1\n"},
        {"a fatal alert", hex("15 03 03 00 02 02 28"), "Alert @5+2\n  Level: Fatal (2) @0+1\n  Description: 40 @1+1\n"},
        {"an unknown level", hex("15 03 03 00 02 07 00"), "Alert @5+2\n  Level: Warning (7) @0+1\n  Description: 0 @1+1\n"},
        {"one byte of an alert", hex("15 03 03 00 01 02"), ""},
        {"a long alert", hex("15 03 03 00 04 01 00 ff ff"), "Alert @5+4\n  Level: Warning (1) @0+1\n  Description: 0 @1+1\n"},
        {"application data", wire::record(23, wire::zeros(517)),
         "Application Data @5+517\n  Length: 517 bytes @0+517\n  Encrypted: encrypted @0+517\n"},
        {"empty application data", hex("17 03 03 00 00"), "Application Data @5+0\n  Length: 0 bytes @0+0\n  Encrypted: encrypted @0+0\n"},
        {"a handshake record too short for a message", hex("16 03 03 00 02 01 00"), ""},
        {"an unknown content type", hex("19 03 03 00 02 01 00"), ""},
        {"a cut record", hex("16 03 03 00 08 01 00 00 00 01 00"), "Continues in next segment\n"},
        {"messages one after another, the last cut", hex("16 03 03 00 0b  0e 00 00 00  18 00 00 00  0b 00 01"),
         "Server Hello Done @5+4\n  Handshake Type: Server Hello Done (14) @0+1\n  Length: 0 @1+3\n"
         "Unknown (0x18) @9+4\n  Handshake Type: Unknown (0x18) (24) @0+1\n  Length: 0 @1+3\n"},
        {"a cut message", hex("16 03 03 00 06  0b 01 00 00  00 00"),
         "Certificate @5+65535\n  Handshake Type: Certificate (11) @0+1\n  Length: 65536 @1+3\n  Continues in next segment\n"},
        {"a clear session ticket", wire::record(22, wire::message(4, wire::zeros(6))),
         "New Session Ticket @5+10\n  Handshake Type: New Session Ticket (4) @0+1\n  Length: 6 @1+3\n"
         "  Encrypted (TLS 1.3 — keys required, Phase B)\n"},
    };
    for (const auto& [name, record, expected] : cases) EXPECT_EQ(recordTree(record), expected) << name;
}

TEST(TLSNodes, AnAlertReadsOnIntoTheNextRecord)
{
    EXPECT_TRUE(tree(hex("15 03 03 00 01 01  17 03 03 00 00"))
                    .contains("    Alert @5+1\n      Level: Warning (1) @0+1\n      Description: 23 @1+1\n  TLS Record @6+5\n"));
}

TEST(TLSNodes, EncryptedMessagesAreMarked)
{
    for (const std::uint8_t type : {4, 8, 15, 20})
        EXPECT_EQ(messageTree(type, wire::zeros(3)), "Encrypted (TLS 1.3 — keys required, Phase B)\n") << int{type};
    for (const std::uint8_t type : {0, 3, 12, 13, 14, 16, 21, 24, 255}) EXPECT_EQ(messageTree(type, wire::zeros(3)), "") << int{type};
}

TEST(TLSNodes, TakeAClientHelloApart)
{
    EXPECT_EQ(messageTree(1, wire::zeros(36)), "") << "a hello that does not parse";
    EXPECT_EQ(messageTree(1, joined({wire::helloStart(0x0301), hex("0003 1301 ff")})), R"(Version: TLS 1.0 @4+2
Random:  @6+32
Session ID: 0 @38+1
Cipher Suites: 1 @39+5
  Cipher Suite: TLS_AES_128_GCM_SHA256 @2+2
)") << "no compression, no extensions";
    EXPECT_EQ(messageTree(1, wire::browserClientHello().sub(9, 508)), R"(Version: TLS 1.2 @4+2
Random:  @6+32
Session ID: 32 @38+33
Cipher Suites: 17 @71+36
  Cipher Suite: 0x1A1A @2+2
  Cipher Suite: TLS_AES_128_GCM_SHA256 @4+2
  Cipher Suite: TLS_AES_256_GCM_SHA384 @6+2
  Cipher Suite: TLS_CHACHA20_POLY1305_SHA256 @8+2
  Cipher Suite: TLS_ECDHE_ECDSA_WITH_AES_128_GCM_SHA256 @10+2
  Cipher Suite: TLS_ECDHE_RSA_WITH_AES_128_GCM_SHA256 @12+2
  Cipher Suite: 0xC02C @14+2
  Cipher Suite: TLS_ECDHE_RSA_WITH_AES_256_GCM_SHA384 @16+2
  Cipher Suite: 0xCCA9 @18+2
  Cipher Suite: TLS_ECDHE_RSA_WITH_CHACHA20_POLY1305_SHA256 @20+2
  Cipher Suite: 0xC013 @22+2
  Cipher Suite: 0xC014 @24+2
  Cipher Suite: 0x009C @26+2
  Cipher Suite: 0x009D @28+2
  Cipher Suite: 0x002F @30+2
  Cipher Suite: 0x0035 @32+2
  Cipher Suite: TLS_EMPTY_RENEGOTIATION_INFO_SCSV @34+2
Compression:  @107+2
Extensions @109+403
  server_name: www.example.org @2+24
  Extension (0x0017):  @26+4
  Extension (0xFF01):  @30+5
  supported_groups:  @35+14
  Extension (0x000B):  @49+6
  Extension (0x0023):  @55+4
  ALPN: h2, http/1.1 @59+18
  signature_algorithms:  @77+22
  key_share:  @99+42
  Extension (0x002D):  @141+6
  supported_versions: TLS 1.3, TLS 1.2 @147+9
  Extension (0x0015):  @156+247
)");
}

TEST(TLSNodes, ExtensionTextsComeFromTheHello)
{
    // A second extension of a type shows what the first one says; a missing or broken text shows nothing.
    const Data body = wire::clientHello(wire::helloStart(), {},
                                        {wire::extension(0, hex("0003 01 0000")), wire::serverNameExtension("b.example"),
                                         wire::supportedVersionsExtension({0x7F1C, 0x0304}), wire::extension(16, hex("00"))});
    EXPECT_EQ(messageTree(1, body), R"(Version: TLS 1.2 @4+2
Random:  @6+32
Session ID: 0 @38+1
Cipher Suites: 0 @39+2
Compression:  @41+2
Extensions @43+43
  server_name:  @2+9
  server_name:  @11+18
  supported_versions: Unknown (0x7F1C), TLS 1.3 @29+9
  ALPN:  @38+5
)");
}

TEST(TLSNodes, TakeAServerHelloApart)
{
    const Data start = wire::helloStart(0x0303, 3);
    EXPECT_EQ(messageTree(2, joined({start, hex("c02f")})), "") << "a hello that does not parse";
    EXPECT_EQ(messageTree(2, joined({start, hex("c02c 00")})), R"(Version: TLS 1.2 @4+2
Random:  @6+32
Session ID: 3 @38+4
Cipher Suite: 0xC02C @42+2
)");
    EXPECT_EQ(messageTree(2, joined({start, hex("1301 00"), wire::counted(2, wire::extension(43, hex("0304")))})),
              R"(Version: TLS 1.3 @4+2
Random:  @6+32
Session ID: 3 @38+4
Cipher Suite: TLS_AES_128_GCM_SHA256 @42+2
Encrypted handshake/application data (TLS 1.3 — keys required, Phase B) @0+0
)");
    EXPECT_EQ(messageTree(2, joined({start, hex("1301 00"), wire::counted(2, wire::extension(43, hex("7f1c")))})).substr(0, 28),
              "Version: Unknown (0x7F1C) @4");
}

TEST(TLSNodes, TakeCertificatesApart)
{
    EXPECT_EQ(messageTree(11, hex("000000")), "Certificates: 0 @4+3\n");
    EXPECT_EQ(messageTree(11, hex("00")), "Certificates: 0 @4+1\n");

    const Data first =
        makeCertificate({.subject = {{"CN", "shop.example.org"}}, .alternativeNames = {"DNS:shop.example.org", "DNS:b.example"}});
    const Data second = makeCertificate({.subject = {{"O", "Nobody"}}, .alternativeNames = {}, .serial = "-1", .authorities = 0});
    const Data list = joined({wire::counted(3, first), wire::counted(3, hex("3000")), wire::counted(3, second)});
    const Data body = joined({wire::counted(3, list), hex("00")});
    const std::int64_t size = first.size();
    EXPECT_EQ(messageTree(11, body), fmt::format(R"(Certificates: 3 @4+{0}
  Certificate 1 @6+{1}
    Subject: shop.example.org @0+{1}
    Issuer: Example Root @0+{1}
    Not Before: 2024-01-01T00:00:00Z @0+{1}
    Not After: 2049-12-31T23:59:59Z @0+{1}
    Serial: 10:01 @0+{1}
    Subject Alt Names: shop.example.org, b.example @0+{1}
  Certificate 2 @{2}+2
  Certificate 3 @{3}+{4}
    Not Before: 2024-01-01T00:00:00Z @0+{4}
    Not After: 2049-12-31T23:59:59Z @0+{4}
    Serial: FF @0+{4}
)",
                                                 body.size(), size, size + 9, size + 14, second.size()));
    EXPECT_EQ(messageTree(11, wire::counted(3, joined({wire::counted(3, hex("00")), hex("000002 00")}))),
              "Certificates: 1 @4+11\n  Certificate 1 @6+1\n")
        << "an entry that passes the list's end";
}

TEST(TLSNodes, RangesStopAt65535)
{
    const Data payload = joined({wire::record(23, wire::zeros(16'000)), hex("17 03 03 ff ff"), wire::zeros(65'535), hex("17 03 03 00 00")});
    EXPECT_EQ(tree(payload), R"(TLS @0+65535
  TLS Record @0+16005
    Content Type: Application Data (0x17) @0+1
    Version: TLS 1.2 (0x0303) @1+2
    Length: 16000 @3+2
    Application Data @5+16000
      Length: 16000 bytes @0+16000
      Encrypted: encrypted @0+16000
  TLS Record @16005+65535
    Content Type: Application Data (0x17) @0+1
    Version: TLS 1.2 (0x0303) @1+2
    Length: 65535 @3+2
    Application Data @5+65535
      Length: 65535 bytes @0+65535
      Encrypted: encrypted @0+65535
  TLS Record @65535+5
    Content Type: Application Data (0x17) @0+1
    Version: TLS 1.2 (0x0303) @1+2
    Length: 0 @3+2
    Application Data @5+0
      Length: 0 bytes @0+0
      Encrypted: encrypted @0+0
)");
}

TEST(TLSNodes, LabelsAndFormatsAreTranslatedAndNamesAreNot)
{
    setenv("LC_ALL", "de_DE.UTF-8", 1);
    unsetenv("LANGUAGE");
    const TempDirectory directory;
    std::filesystem::create_directories(directory.path() / "Resources/de.lproj");
    directory.write("Resources/de.lproj/LocalizableTLS.json", std::string_view(R"json({
        "TLS Record": "TLS-Datensatz", "Length": "Länge", "Application Data": "Anwendungsdaten", "encrypted": "verschlüsselt",
        "%u bytes": "%u Byte", "Unknown (0x%02X)": "Unbekannt (0x%02X)", "Alert": "Warnmeldung", "Fatal": "Fatal!",
        "Extension (0x%04X)": "Erweiterung %s", "TLS 1.2": "falsch", "Handshake": "falsch"})json"));
    const Bundle bundle(directory.path());
    EXPECT_EQ(tree(joined({wire::record(23, hex("00")), hex("18 03 03 00 00"), hex("15 03 03 00 02 02 28")}), bundle), R"(TLS @0+18
  TLS-Datensatz @0+6
    Content Type: Application Data (0x17) @0+1
    Version: TLS 1.2 (0x0303) @1+2
    Länge: 1 @3+2
    Anwendungsdaten @5+1
      Länge: 1 Byte @0+1
      Encrypted: verschlüsselt @0+1
  TLS-Datensatz @6+5
    Content Type: Unbekannt (0x18) (0x18) @0+1
    Version: TLS 1.2 (0x0303) @1+2
    Länge: 0 @3+2
  TLS-Datensatz @11+7
    Content Type: Alert (0x15) @0+1
    Version: TLS 1.2 (0x0303) @1+2
    Länge: 2 @3+2
    Warnmeldung @5+2
      Level: Fatal! (2) @0+1
      Description: 40 @1+1
)");
    const Data hello = wire::record(22, wire::message(1, wire::clientHello(wire::helloStart(), {}, {wire::extension(23, {})})));
    EXPECT_TRUE(tree(hello, bundle).contains("Extension (0x0017): ")) << "a broken translation gives way to the original";
    unsetenv("LC_ALL");
}

/// Every node's children, kept from here on.
std::int64_t keptNodes(const VELNodeProtocol& node)
{
    std::int64_t count = 1;
    for (const auto& child : node.children()) count += keptNodes(*child);
    return count;
}

const Bundle noBundle("");

TEST(TLSNodes, AreTheSameWhetherTheyAreMadeOrKept)
{
    const Data alpn = wire::alpnExtension({Data::fromText("h2"), Data::fromText("h3")});
    const Data hello =
        wire::clientHello(wire::helloStart(), {0x1301}, {alpn, wire::extension(16, {}), wire::serverNameExtension("a.b"), alpn});
    const VELNodeList nodes = TLSDissector::nodes(joined({wire::record(22, wire::message(1, hello)), wire::record(20, {1})}), noBundle);
    const std::string made = treeText(nodes);
    EXPECT_EQ(treeText(nodes), made) << "once more";
    EXPECT_EQ(keptNodes(*nodes.front()), std::ranges::count(made, '\n'));
    EXPECT_EQ(treeText(nodes), made);
    EXPECT_FALSE(nodes.front()->forEachChild([](const auto&) { return false; }));
}

TEST(TLSNodes, AreMadeOneByOne)
{
    // All of them at once would take gigabytes.
    const Data protocols = wire::alpnExtension(std::vector<Data>(10'000, Data::fromText("a")));
    const std::vector<Data> empty(8'000, wire::extension(16, {}));
    const Data hello = wire::clientHello(wire::helloStart(), {0x1301}, {protocols, joined(empty)});
    const VELNodeList nodes = TLSDissector::nodes(wire::record(22, wire::message(1, hello)), noBundle);
    const VELNodeProtocol* node = nodes.front().get();
    for (const char* name : {"TLS Record", "Client Hello", "Extensions"}) {
        const auto found = std::ranges::find(node->children(), name, [](const auto& child) { return child->name(); });
        ASSERT_NE(found, node->children().end()) << name;
        node = found->get();
    }
    std::int64_t count = 0, bytes = 0;
    std::set<const VELNodeProtocol*> different;
    node->forEachChild([&](const auto& child) {
        ++count;
        bytes += std::ssize(std::get<std::string>(*child->value()));
        different.insert(child.get());
        return true;
    });
    EXPECT_EQ(count, 8'001);
    EXPECT_EQ(bytes, 8'001 * (3 * 10'000 - 2));
    EXPECT_EQ(different.size(), 1u);
}

}  // namespace
}  // namespace sealscope
