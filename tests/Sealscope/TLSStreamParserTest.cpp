// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSStreamParser.h"

#include "Sealscope/TLSProtocolAnalyzer.h"
#include "harness/Certificates.h"
#include "harness/Hex.h"
#include "harness/VectorStream.h"
#include "host/VELModels/VELStreamInterpreting.h"
#include "tests/Sealscope/EntriesTwin.h"
#include "tests/Sealscope/WithKeyLog.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <random>

namespace sealscope {
namespace {

using testing::ElementsAre;
using Direction = TCPSegment::Direction;
constexpr auto client = Direction::clientToServer;
constexpr auto server = Direction::serverToClient;

Data record(std::uint8_t type, const Data& body)
{
    return joined({Data{type, 3, 3, static_cast<std::uint8_t>(body.size() >> 8), static_cast<std::uint8_t>(body.size())}, body});
}

Data message(std::uint8_t type, const Data& body)
{
    const auto size = static_cast<std::uint32_t>(body.size());
    return joined(
        {Data{type, static_cast<std::uint8_t>(size >> 16), static_cast<std::uint8_t>(size >> 8), static_cast<std::uint8_t>(size)}, body});
}

/// Legacy version TLS 1.2, random of 32 bytes 0x11, no session identifier, then what is given.
Data hello(std::string_view rest) { return joined({hex("0303"), Data(std::vector<std::uint8_t>(32, 0x11)), hex("00"), hex(rest)}); }

const Data plainClientHello = message(1, hello("0004 1301 c02f 0100"));
const Data plainServerHello = message(2, hello("c02f 00"));

/// "c 10.5 [5,47) #1,2 handshake Client Hello | Version: TLS 1.2": who, when, where, packets, kind, summary, rows.
std::string described(const StreamMessage& message)
{
    std::string text = fmt::format("{} {} ", message.direction == client ? 'c' : 's', message.timestamp - 1'700'000'000);
    text += message.byteRange ? fmt::format("[{},{})", message.byteRange->lower, message.byteRange->upper) : "-";
    text += fmt::format(" #{} {} {}", fmt::join(message.packetIds, ","),
                        message.kind == StreamMessageKind::handshake ? "handshake" : "data", message.summary);
    for (const DetailRow& row : message.detail) text += fmt::format(" | {}: {}", row.name, row.value);
    return text;
}

std::vector<std::string> described(const std::vector<StreamMessage>& messages)
{
    std::vector<std::string> lines;
    for (const StreamMessage& message : messages) lines.push_back(described(message));
    return lines;
}

/// What one direction's bytes show, all in packet 7 half a second after the start, as summaries with their byte ranges.
std::vector<std::string> items(const Data& bytes)
{
    std::vector<std::string> lines;
    for (const auto& entry :
         TLSStreamParser::entries(client, vectorStream(std::vector<StreamPiece>{{client, bytes, 7, 1'700'000'000.5}}))) {
        EXPECT_EQ(entry.timestamp, entry.message.timestamp);
        EXPECT_EQ(entry.firstByteOffset, entry.message.byteRange ? entry.message.byteRange->lower : 0);
        lines.push_back(fmt::format("[{},{}) {}", entry.message.byteRange->lower, entry.message.byteRange->upper, entry.message.summary));
    }
    return lines;
}

TEST(TLSStreamParser, CutsADirectionIntoItems)
{
    struct Case {
        const char* name;
        Data bytes;
        std::vector<std::string> expected;
    };
    const Data appData = record(23, patternBytes(100));
    const Data half1 = plainClientHello.sub(0, 10), half2 = plainClientHello.sub(10, 100);
    const Case cases[] = {
        {"no data", {}, {}},
        {"four bytes are no header", hex("16030300"), {}},
        {"change cipher spec and its body", record(20, {1}), {"[5,6) Change Cipher Spec"}},
        {"a record without a body has an empty range", record(20, {}), {"[5,5) Change Cipher Spec"}},
        {"fatal alert", record(21, {2, 40}), {"[5,7) Alert (Fatal, 40)"}},
        {"any other level warns",
         joined({record(21, {7, 0}), record(21, {1, 255})}),
         {"[5,7) Alert (Warning, 0)", "[12,14) Alert (Warning, 255)"}},
        {"an alert of one byte at the end", record(21, {2}), {"[5,6) Alert"}},
        {"an alert of one byte takes its second from what follows",
         joined({record(21, {2}), record(20, {1})}),
         {"[5,6) Alert (Fatal, 20)", "[11,12) Change Cipher Spec"}},
        {"application data gathers",
         joined({appData, record(23, patternBytes(28))}),
         {"[5,138) Application Data (2 records, 128 bytes, encrypted)"}},
        {"an unknown type does not break application data",
         joined({appData, appData, record(24, {1, 2}), appData}),
         {"[5,322) Application Data (3 records, 300 bytes, encrypted)"}},
        {"an alert does",
         joined({appData, record(21, {1, 0}), appData}),
         {"[5,105) Application Data (1 records, 100 bytes, encrypted)", "[110,112) Alert (Warning, 0)",
          "[117,217) Application Data (1 records, 100 bytes, encrypted)"}},
        {"a cut record ends the walk", joined({record(20, {1}), appData.sub(0, 60)}), {"[5,6) Change Cipher Spec"}},
        {"a message in two records, header included between", joined({record(22, half1), record(22, half2)}), {"[5,57) Client Hello"}},
        {"three messages in one record",
         record(22, joined({plainServerHello, message(14, {}), message(24, {1})})),
         {"[5,47) Server Hello (TLS_ECDHE_RSA_WITH_AES_128_GCM_SHA256)", "[47,51) Server Hello Done", "[51,56) Handshake (0x18)"}},
        {"an interleaved record drops the message and its rest begins a new one",
         joined({record(22, half1), record(20, {1}), record(22, joined({message(14, {}), half2}))}),
         {"[20,21) Change Cipher Spec", "[26,30) Server Hello Done"}},
        {"so does an unknown type", joined({record(22, half1), record(24, {}), record(22, half2)}), {}},
        {"empty handshake records do not", joined({record(22, half1), record(22, {}), record(22, half2)}), {"[5,62) Client Hello"}},
        {"an incomplete last message is not shown", record(22, joined({message(14, {}), half1})), {"[5,9) Server Hello Done"}},
        {"a header cut between records",
         joined({record(22, message(14, {}).sub(0, 1)), record(22, message(14, {}).sub(1, 3))}),
         {"[5,14) Server Hello Done"}},
    };
    for (const auto& [name, bytes, expected] : cases) EXPECT_EQ(items(bytes), expected) << name;
}

TEST(TLSStreamParser, ShowsTheSameWhateverTheRecordsAHandshakeIsCutInto)
{
    const Data flight = joined({plainServerHello, message(11, patternBytes(3000)), message(12, patternBytes(300)), message(14, {})});
    const std::vector<std::string> summaries{"Server Hello (TLS_ECDHE_RSA_WITH_AES_128_GCM_SHA256)", "Certificate", "Server Key Exchange",
                                             "Server Hello Done"};
    for (const std::int64_t cut : {1, 2, 3, 5, 7, 41, 42, 43, 1000, 3046, 5000}) {
        std::vector<Data> records;
        for (std::int64_t offset = 0; offset < flight.size(); offset += cut) records.push_back(record(22, flight.sub(offset, cut)));
        std::vector<std::string> shown;
        for (const auto& entry :
             TLSStreamParser::entries(server, vectorStream(std::vector<StreamPiece>{{server, joined(records)}}, StreamLayout::inPieces)))
            shown.push_back(entry.message.summary);
        EXPECT_EQ(shown, summaries) << cut << " bytes a record";
    }
}

TEST(TLSStreamParser, LocatesAMessageInAllItsPackets)
{
    const Data bytes = joined({record(22, plainClientHello.sub(0, 20)), record(22, plainClientHello.sub(20, 100))});
    const TCPStream stream = vectorStream(std::vector<StreamPiece>{
        {client, bytes.sub(0, 12), 4, 1'700'000'003},
        {client, bytes.sub(12, 10), 9, 1'700'000'001},  // captured out of order, retransmitted early
        {client, bytes.sub(22, 6), std::nullopt, 0},    // lost
        {client, bytes.sub(28, 100), 4, 1'700'000'003},
    });
    const auto entries = TLSStreamParser::entries(client, stream);
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(described(entries[0].message), "c 1 [5,57) #4,9 handshake Client Hello | Version: TLS 1.2 | Cipher Suites: 2");

    const auto nowhere = TLSStreamParser::entries(client, vectorStream(std::vector<StreamPiece>{{client, bytes, std::nullopt}}));
    ASSERT_EQ(nowhere.size(), 1u);
    EXPECT_EQ(nowhere[0].timestamp, 0) << "no packet carried it";
    EXPECT_THAT(nowhere[0].message.packetIds, ElementsAre());
}

TEST(TLSStreamParser, ShowsOfAHoleWhatTheListsOfItsZerosShow)
{
    std::mt19937_64 random(1);
    const auto below = [&](std::int64_t bound) { return static_cast<std::int64_t>(random() % static_cast<std::uint64_t>(bound)); };
    const auto anyOf = [&](std::initializer_list<std::int64_t> values) { return values.begin()[below(std::ssize(values))]; };
    std::size_t shown = 0;
    for (int round = 0; round < 3'000; ++round) {
        std::vector<Data> bytes;
        for (std::int64_t count = below(12); count > 0; --count) {
            const auto type = static_cast<std::uint8_t>(anyOf({20, 21, 22, 22, 22, 23, 23, 24, 0}));
            // Bodies that are messages, zeros and anything.
            const std::int64_t length = below(30);
            const Data body = below(3) == 0   ? joined({message(static_cast<std::uint8_t>(below(3)),
                                                                Data(std::vector<std::uint8_t>(static_cast<std::size_t>(below(8)))))})
                              : below(2) == 0 ? patternBytes(length, random())
                                              : Data(std::vector<std::uint8_t>(static_cast<std::size_t>(length)));
            bytes.push_back(record(type, body));
            if (below(3) == 0) bytes.push_back(Data(std::vector<std::uint8_t>(static_cast<std::size_t>(below(23)))));
        }
        const std::vector<StreamPiece> pieces =
            withZerosLost(streamPieces({{client, joined(bytes), {}}}, {.segmentSize = 1 + below(60)}), 1 + below(9));
        const TCPStream plain = vectorStream(pieces), holes = vectorStream(pieces, StreamLayout::inPieces);
        const auto expected = twin::entries(client, plain, holes.clientToServerData);
        const auto entries = TLSStreamParser::entries(client, holes);
        ASSERT_TRUE(std::ranges::equal(entries, expected, twin::isSameEntry)) << "round " << round;
        shown += entries.size();
    }
    EXPECT_GT(shown, 3'000u);
}

TEST(TLSStreamParser, DoesNotShowMessagesThatNobodySent)
{
    constexpr std::int64_t terabytes = 9'000'000'000'000;
    struct Case {
        const char* name;
        std::vector<StreamPiece> pieces;
        std::vector<std::string> expected;
    };
    const Case cases[] = {
        {"a record of which the header alone was captured",
         {{.bytes = hex("16 03 03 ff ff"), .lostBytes = 0xFFFF}, {.bytes = record(20, {1})}},
         {"[65545,65546) Change Cipher Spec"}},
        {"a message cut by a hole",
         {{.bytes = hex("16 03 03 00 0c  00 00"), .lostBytes = 10}, {.bytes = record(20, {1})}},
         {"[5,9) Handshake (0x00)", "[22,23) Change Cipher Spec"}},
        {"terabytes",
         {{.bytes = record(20, {1}), .lostBytes = terabytes}, {.bytes = record(21, {1, 0})}},
         {"[5,6) Change Cipher Spec", "[9000000000011,9000000000013) Alert (Warning, 0)"}},
        {"application data on both sides of terabytes",
         {{.bytes = record(23, {1}), .lostBytes = terabytes}, {.bytes = record(23, {1, 0})}},
         {"[5,9000000000013) Application Data (2 records, 3 bytes, encrypted)"}},
    };
    for (const auto& [name, pieces, expected] : cases) {
        std::vector<std::string> lines;
        for (const auto& entry : TLSStreamParser::entries(client, vectorStream(pieces, StreamLayout::inPieces)))
            lines.push_back(
                fmt::format("[{},{}) {}", entry.message.byteRange->lower, entry.message.byteRange->upper, entry.message.summary));
        EXPECT_EQ(lines, expected) << name;
    }
}

/// What `forEachPart` hands over.
std::pair<std::vector<std::string>, std::optional<std::vector<Pairing>>> told(const TCPStream& stream)
{
    std::vector<std::string> lines;
    std::vector<Pairing> pairings;
    TLSStreamParser::forEachPart(stream, {}, [&](StreamPart& part) {
        EXPECT_EQ(part.first, std::ssize(lines));
        EXPECT_LT(part.messages.size(), 1'000u);
        for (const StreamMessage& message : part.messages) lines.push_back(described(message));
        std::ranges::move(part.pairings, std::back_inserter(pairings));
        return true;
    });
    return {std::move(lines), pairings.empty() ? std::nullopt : std::optional(std::move(pairings))};
}

TEST(TLSStreamParser, TellsAStreamOfAnyLengthAsTheListDoes)
{
    // More messages than are held, of every kind, in packets that were captured in any order.
    std::mt19937_64 random(1);
    const auto records = [&](int count) {
        std::vector<Data> bytes;
        for (int i = 0; i < count; ++i) {
            const Data bodies[] = {{1}, {1, 0}, joined({message(14, {}), message(3, {1, 2}), message(14, {})}), patternBytes(9)};
            const auto kind = random() % 4;
            bytes.push_back(record(static_cast<std::uint8_t>(20 + kind), bodies[kind]));
        }
        return joined(bytes);
    };
    for (const double disorder : {0.0, 0.01, 1.0}) {
        std::vector<StreamPiece> pieces = streamPieces({{client, joined({records(300), record(22, plainClientHello), records(2'000)}), {}},
                                                        {server, joined({record(22, plainServerHello), records(3'000)}), {}}},
                                                       {.segmentSize = 50});
        for (StreamPiece& piece : pieces)
            if (std::uniform_real_distribution(0.0, 1.0)(random) < disorder) piece.timestamp += static_cast<double>(random() % 100) / 100;
        const TCPStream stream = vectorStream(pieces, StreamLayout::inPieces);
        const StreamInterpretation expected = TLSStreamParser::interpretation(stream);
        ASSERT_GT(expected.messages.size(), 5'000u);
        const auto [lines, pairings] = told(stream);
        EXPECT_TRUE(lines == described(expected.messages)) << disorder;
        EXPECT_EQ(pairings, expected.pairings);
        ASSERT_TRUE(pairings);
    }
    int parts = 0;
    TLSStreamParser::forEachPart(vectorStream(records(5'000), {}), {}, [&](StreamPart&) { return ++parts < 2; });
    EXPECT_EQ(parts, 2) << "no more when nobody wants it";
}

/// Makes a message of each word of the plaintext, at times of its own, and pairs two.
struct Words {
    static constexpr std::string_view streamDisplayName = "Words";
    static bool canInterpret(const TCPStream& stream) { return stream.clientToServerData.slice(0, 3) == Data::fromText("one"); }
    static StreamInterpretation interpret(const TCPStream& stream)
    {
        StreamInterpretation interpretation;
        for (const double time : {3.0, 0.0, 1'700'000'000.004, 2'000'000'000.0})
            interpretation.messages.push_back({.direction = server,
                                               .kind = StreamMessageKind::reply,
                                               .summary = "word",
                                               .byteRange = ByteRange{0, stream.clientToServerData.size()},
                                               .packetIds = {1},
                                               .timestamp = time});
        interpretation.pairings = {{0, 2, "said", PairingStatus::matched}, {9, 1, "never", PairingStatus::matched}};
        return interpretation;
    }
};

TEST(TLSStreamParser, TellsADecryptedStreamOfAnyLengthAsTheListDoes)
{
    const TLSSession session = runTLS({.version = 0x0303}, {clientSends("one two"), serverSends("three")});
    const WithKeyLog secrets(session.keyLog);
    const Data alerts = joined(std::vector<Data>(5'000, record(21, {})));
    const TCPStream stream = vectorStream(session.wire(client), joined({session.wire(server), alerts}), {.segmentSize = 100});
    VELStreamInterpreterRegistry::shared().add(VELStreamInterpreting::type<Words>());
    const StreamInterpretation expected = TLSStreamParser::interpretation(stream);
    const auto [lines, pairings] = told(stream);
    VELStreamInterpreterRegistry::shared().remove(VELStreamInterpreting::type<Words>());
    ASSERT_GT(expected.messages.size(), 5'000u);
    EXPECT_TRUE(lines == described(expected.messages));
    EXPECT_EQ(pairings, expected.pairings);
    ASSERT_EQ(pairings->size(), 2u);
}

TEST(TLSStreamParser, TellsWhatAHandshakeMessageSays)
{
    struct Case {
        const char* name;
        std::uint8_t type;
        Data body;
        std::string expected;
    };
    const Data der = makeCertificate({.subject = {{"CN", "leaf.example"}}});
    const auto list = [](const Data& entries) {
        return joined({Data{0, static_cast<std::uint8_t>(entries.size() >> 8), static_cast<std::uint8_t>(entries.size())}, entries});
    };
    const Case cases[] = {
        {"server name and ALPN", 1, hello("0002 1301 0100 001b 0000000c 000a 00 0007 6578616d706c65 0010 0007 0005 026832 0168"),
         "Client Hello (example) | Version: TLS 1.2 | Server Name: example | ALPN: h2, h | Cipher Suites: 1"},
        {"an empty server name is none", 1, hello("0000 0100 0009 00000005 0003 00 0000"), "Client Hello | Version: TLS 1.2"},
        {"a hello too short to read", 1, hello("").sub(0, 34), "Client Hello"},
        {"the negotiated version goes before the legacy one", 2, hello("1303 00 0006 002b0002 0304"),
         "Server Hello (TLS_CHACHA20_POLY1305_SHA256) | Version: TLS 1.3 | Cipher Suite: TLS_CHACHA20_POLY1305_SHA256"},
        {"a suite without a name", 2, hello("c02c 00"), "Server Hello (0xC02C) | Version: TLS 1.2 | Cipher Suite: 0xC02C"},
        {"no certificates", 11, hex("000000"), "Certificate | Certificates: 0"},
        {"a certificate that is none", 11, hex("000006 000003 aabbcc"), "Certificate | Certificates: 1"},
        {"the first certificate's names", 11, list(joined({list(der), hex("000001 00")})), ""},
        {"a type without a name", 3, {}, "Handshake (0x03)"},
        {"a type that is not taken apart", 20, patternBytes(12), "Finished"},
    };
    for (const auto& [name, type, body, expected] : cases) {
        const auto [summary, detail] = TLSStreamParser::handshakeSummary(type, body, 0);
        std::string text = summary;
        for (const DetailRow& row : detail) text += fmt::format(" | {}: {}", row.name, row.value);
        if (!expected.empty())
            EXPECT_EQ(text, expected) << name;
        else
            EXPECT_THAT(text,
                        testing::MatchesRegex("Certificate \\| Certificates: 2 \\| Subject: leaf.example \\| Issuer: .+ \\| Not Before: "
                                              "[0-9T:-]+Z \\| Not After: [0-9T:-]+Z"))
                << name;
    }
}

TEST(TLSStreamParser, OrdersBothDirectionsAndPairsTheHellos)
{
    struct Case {
        const char* name;
        std::vector<StreamPiece> pieces;
        std::vector<std::string> expected;
        std::optional<std::vector<Pairing>> pairings;
    };
    const Data hello1 = record(22, plainClientHello), hello2 = record(22, plainServerHello), spec = record(20, {1});
    const std::string shownClient = "[5,52) #1 handshake Client Hello | Version: TLS 1.2 | Cipher Suites: 2";
    const std::string shownServer =
        "[5,47) #2 handshake Server Hello (TLS_ECDHE_RSA_WITH_AES_128_GCM_SHA256) | Version: TLS 1.2 | Cipher Suite: "
        "TLS_ECDHE_RSA_WITH_AES_128_GCM_SHA256";
    const double t = 1'700'000'000;
    const Case cases[] = {
        {"in order",
         {{client, hello1, 1, t}, {server, hello2, 2, t + 1}},
         {"c 0 " + shownClient, "s 1 " + shownServer},
         {{Pairing{0, 1, "Client Hello", PairingStatus::matched}}}},
        {"client first at the same time, by offset within a direction",
         {{server, hello2, 2, t}, {client, joined({hello1, spec}), 1, t}},
         {"c 0 " + shownClient, "c 0 [57,58) #1 handshake Change Cipher Spec", "s 0 " + shownServer},
         {{Pairing{0, 2, "Client Hello", PairingStatus::matched}}}},
        {"a server hello that came earlier still pairs",
         {{server, hello2, 2, t}, {client, hello1, 1, t + 1}},
         {"s 0 " + shownServer, "c 1 " + shownClient},
         {{Pairing{1, 0, "Client Hello", PairingStatus::matched}}}},
        {"the client alone",
         {{client, hello1, 1, t}},
         {"c 0 " + shownClient},
         {{Pairing{0, std::nullopt, "Client Hello", PairingStatus::unmatched}}}},
        {"the server alone", {{server, hello2, 2, t}}, {"s 0 " + shownServer}, std::nullopt},
    };
    for (const auto& [name, pieces, expected, pairings] : cases) {
        const StreamInterpretation interpretation = TLSProtocolAnalyzer::interpret(vectorStream(pieces));
        EXPECT_EQ(described(interpretation.messages), expected) << name;
        EXPECT_EQ(interpretation.pairings, pairings) << name;
    }
}

TEST(TLSStreamParser, CarriesPairingsFromListToList)
{
    const auto makeMessage = [](const char* summary) { return StreamMessage{.direction = client, .summary = summary}; };
    const std::vector<StreamMessage> from{makeMessage("a"), makeMessage("b"), makeMessage("c"), makeMessage("d")};
    const std::vector<StreamMessage> into{makeMessage("x"), from[3], from[1], from[1]};
    const std::vector<Pairing> pairings{
        {1, 3, "both are there, the first of equals counts", PairingStatus::unmatched},
        {1, 0, "the reply is gone", PairingStatus::matched},
        {3, std::nullopt, "never had one", PairingStatus::matched},
        {0, 1, "the request is gone", PairingStatus::matched},
        {4, 1, "no such request", PairingStatus::matched},
        {1, -1, "no such reply", PairingStatus::matched},
    };
    EXPECT_THAT(TLSStreamParser::remapPairings(pairings, from, into),
                ElementsAre(Pairing{2, 1, pairings[0].summary, PairingStatus::matched},
                            Pairing{2, std::nullopt, pairings[1].summary, PairingStatus::unmatched},
                            Pairing{1, std::nullopt, pairings[2].summary, PairingStatus::unmatched},
                            Pairing{2, std::nullopt, pairings[5].summary, PairingStatus::unmatched}));
}

TEST(TLSStreamParser, TakesStreamsOfWhichADirectionLooksLikeTLS)
{
    struct Case {
        const char* name;
        Data client;
        Data server;
        bool expected;
    };
    const Case cases[] = {
        {"client", hex("16 03 01 02 00"), {}, true},
        {"server", Data::fromText("GET / "), hex("15 03 03 00 02"), true},
        {"SSL 3.0", hex("16 03 00 02 00"), {}, false},
        {"no length", hex("16 03 01 00 00"), {}, false},
        {"the longest length", hex("17 03 03 48 00"), {}, true},
        {"longer than that", hex("17 03 03 48 01"), {}, false},
        {"too short to tell", hex("16 03 01 02"), hex("16 03 03 00"), false},
    };
    for (const auto& [name, clientBytes, serverBytes, expected] : cases)
        EXPECT_EQ(TLSProtocolAnalyzer::canInterpret(vectorStream(clientBytes, serverBytes)), expected) << name;
}

}  // namespace
}  // namespace sealscope
