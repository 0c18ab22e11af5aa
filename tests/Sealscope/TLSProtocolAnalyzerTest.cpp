// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSProtocolAnalyzer.h"

#include "tests/Sealscope/TLSBytes.h"
#include "tests/support/TreeText.h"

#include <gtest/gtest.h>

namespace sealscope {
namespace {

Data clientHelloRecord(const std::vector<Data>& extensions)
{
    return wire::record(22, wire::message(1, wire::clientHello(wire::helloStart(), {0x1301}, extensions)), 0x0301);
}

const Data namelessHello = clientHelloRecord({});
const Data hello = clientHelloRecord({wire::serverNameExtension("mailhost")});

TEST(TLSProtocolAnalyzer, IsMadeFromTLSAlone)
{
    EXPECT_EQ(TLSProtocolAnalyzer::create(hex("16 03 01 00"), {}), nullptr);
    EXPECT_EQ(TLSProtocolAnalyzer::create(hex("18 03 03 00 05"), {}), nullptr);
    const auto& type = TLSProtocolAnalyzer::analyzerClass();
    const auto analyzer = type.create(hello, std::any(7));
    ASSERT_NE(analyzer, nullptr);
    EXPECT_EQ(analyzer->protocolSize(), hello.size());
    EXPECT_EQ(analyzer->protocolNodes(), VELNodeList{});
    EXPECT_EQ(analyzer->nextProtocol(), std::nullopt);
    EXPECT_EQ(analyzer->protocolName(), std::nullopt);
    EXPECT_EQ(analyzer->protocolInfo(), "");
    EXPECT_FALSE(analyzer->hasPayload());
}

TEST(TLSProtocolAnalyzer, ASizeStopsAt65535)
{
    const Data payload = joined({wire::record(23, wire::zeros(18'432)), wire::zeros(70'000 - 18'437)});
    const auto analyzer = TLSProtocolAnalyzer::create(payload, {});
    ASSERT_NE(analyzer, nullptr);
    EXPECT_EQ(analyzer->protocolSize(), 65'535);
    EXPECT_EQ(analyzer->value("tlsSize", payload), VELValue(std::int64_t{65'535}));
    // The size is the one from creation; every other answer is about the payload of the question.
    EXPECT_EQ(analyzer->value("tlsSize", {}), VELValue(std::int64_t{65'535}));
    EXPECT_EQ(analyzer->protocolInfo(hello), "TLS 1.0: Client Hello (mailhost)");
}

TEST(TLSProtocolAnalyzer, SumsAPayloadUp)
{
    const auto analyzer = TLSProtocolAnalyzer::create(hello, {});
    struct Case {
        const char* name;
        Data payload;
        std::string expected;
    };
    const Data serverHello = wire::message(2, joined({wire::helloStart(), hex("c02f 00")}));
    const Case cases[] = {
        {"no record", hex("16 03 03 00"), "TLS"},
        {"a server name", hello, "TLS 1.0: Client Hello (mailhost)"},
        {"no server name", namelessHello, "TLS 1.0: Client Hello"},
        {"an empty server name", clientHelloRecord({wire::serverNameExtension("")}), "TLS 1.0: Client Hello"},
        {"a hello that does not parse", wire::record(22, wire::message(1, hex("0303"))), "TLS 1.2: Client Hello"},
        {"a message cut in its record", wire::record(22, hello.sub(5, 60)), "TLS 1.2: Client Hello"},
        {"a record cut in the payload", hello.sub(0, 60), "TLS 1.0: Handshake (continued)"},
        {"several records", joined({wire::record(22, serverHello), wire::record(20, hex("01")), wire::record(23, hex("00"))}),
         "TLS 1.2: Server Hello, Change Cipher Spec, Application Data"},
        {"several messages a record",
         wire::record(22, joined({serverHello, wire::message(11, hex("000000")), wire::message(24, {}), wire::message(14, {})})),
         "TLS 1.2: Server Hello, Certificate, Handshake (0x18), Server Hello Done"},
        {"a cut application data record counts as any", hex("17 03 03 00 64 00"), "TLS 1.2: Application Data"},
        {"a handshake record without a message", wire::record(22, hex("0000")), "TLS 1.2"},
        {"an unknown content type gives no item", joined({wire::record(23, hex("00")), wire::record(24, hex("00"))}),
         "TLS 1.2: Application Data"},
        {"only unknown content types", wire::record(24, hex("00"), 0x0200), "Unknown (0x0200)"},
        {"the first record names the version", joined({wire::record(20, hex("01"), 0x0302), wire::record(23, hex("00"), 0x0304)}),
         "TLS 1.1: Change Cipher Spec, Application Data"},
        {"a fatal alert", hex("15 03 03 00 02 02 28"), "TLS 1.2: Alert (Fatal, 40)"},
        {"a warning", hex("15 03 03 00 02 01 00"), "TLS 1.2: Alert (Warning, 0)"},
        {"an unknown level", hex("15 03 03 00 02 00 ff"), "TLS 1.2: Alert (Warning, 255)"},
        {"one byte of an alert", hex("15 03 03 00 01 02"), "TLS 1.2: Alert"},
        {"one byte of a cut alert", hex("15 03 03 00 02 02"), "TLS 1.2: Alert"},
        {"an alert that reads on into the next record", hex("15 03 03 00 01 02 17 03 03 00 01 00"),
         "TLS 1.2: Alert (Fatal, 23), Application Data"},
    };
    for (const auto& [name, payload, expected] : cases) EXPECT_EQ(analyzer->protocolInfo(payload), expected) << name;
}

TEST(TLSProtocolAnalyzer, FillsTheColumns)
{
    const auto analyzer = TLSProtocolAnalyzer::create(hello, {});
    const auto text = [](std::string value) { return std::optional<VELValue>(std::move(value)); };
    struct Case {
        const char* name;
        Data payload;
        std::optional<VELValue> serverName;
        std::optional<VELValue> version;
    };
    const Data brokenHello = wire::record(22, wire::message(1, hex("0303")));
    const Case cases[] = {
        {"nothing", {}, std::nullopt, text("TLS")},
        {"four bytes", hex("16 03 03 00"), std::nullopt, text("TLS")},
        {"a hello", hello, text("mailhost"), text("TLS 1.0")},
        {"an empty name is a name", clientHelloRecord({wire::serverNameExtension("")}), text(""), text("TLS 1.0")},
        {"a hello behind other records", joined({wire::record(20, hex("01")), hello}), text("mailhost"), text("TLS 1.2")},
        {"the first hello decides, also without a name", joined({namelessHello, hello}), std::nullopt, text("TLS 1.0")},
        {"a hello that does not parse is passed over", joined({brokenHello, hello}), text("mailhost"), text("TLS 1.2")},
        {"a second message of a record", wire::record(22, joined({wire::message(0, {}), hello.sub(5, hello.size() - 5)})), text("mailhost"),
         text("TLS 1.2")},
        {"a cut record is passed over", hello.sub(0, hello.size() - 1), std::nullopt, text("TLS 1.0")},
        {"application data", wire::record(23, hello), std::nullopt, text("TLS 1.2")},
    };
    for (const auto& [name, payload, serverName, version] : cases) {
        EXPECT_EQ(analyzer->value("tlsServerName", payload), serverName) << name;
        EXPECT_EQ(analyzer->value("tlsVersion", payload), version) << name;
    }
    EXPECT_EQ(analyzer->value("TLSVersion", hello), std::nullopt);
    EXPECT_EQ(analyzer->value("", hello), std::nullopt);
}

TEST(TLSProtocolAnalyzer, TheTreeStandsUnderItsOwnLabelsWithoutABundle)
{
    const auto analyzer = TLSProtocolAnalyzer::create(hello, {});
    const VELNodeList nodes = analyzer->protocolNodes(hex("17 03"));
    EXPECT_EQ(treeText(nodes), "TLS @0+2\n  No TLS records\n");
}

}  // namespace
}  // namespace sealscope
