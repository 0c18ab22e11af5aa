// SPDX-License-Identifier: Apache-2.0
// What other tests take from the harness on trust.
#include "harness/CaptureFile.h"
#include "harness/Hex.h"
#include "harness/RunProgram.h"
#include "harness/TLSRecordSealer.h"
#include "harness/TLSSession.h"
#include "harness/VectorStream.h"
#include "tests/support/Printers.h"
#include "tests/support/RealCaptures.h"

#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <optional>

namespace sealscope {
namespace {

using Direction = TCPSegment::Direction;
using Action = TLSStep::Action;

constexpr Direction bothDirections[] = {Direction::clientToServer, Direction::serverToClient};

TEST(TLSSession, IsWhatTheOptionsSay)
{
    TLSSessionOptions resumable{.maximumEarlyData = 16'384};
    const auto ticket = runTLS(resumable, {clientSends("first")}).resumption;
    TLSSessionOptions early{.resume = ticket, .earlyData = Data::fromText("early"), .maximumEarlyData = 16'384};
    TLSSessionOptions refused = early;
    refused.maximumEarlyData = 0;
    TLSSessionOptions identified{.version = 0x0303, .usesTickets = false};
    identified.resume = runTLS(identified, {clientSends("first")}).resumption;

    struct Case {
        const char* name;
        TLSSessionOptions options;
        std::uint16_t version;
        bool isResumed = false;
        bool acceptedEarlyData = false;
        const char* clientSaid = "hello";
    };
    const Case cases[] = {
        {"TLS 1.0", {.version = 0x0301}, 0x0301},
        {"TLS 1.3", {}, 0x0304},
        {"a server of TLS 1.2", {.lowestVersion = 0x0303, .serverVersion = 0x0303}, 0x0303},
        {"HelloRetryRequest", {.serverGroups = "P-384"}, 0x0304},
        {"handshake messages laid end to end", {.version = 0x0303, .handshakeRecordLength = 16'384}, 0x0303},
        {"handshake messages cut", {.handshakeRecordLength = 50}, 0x0304},
        {"resumed by identifier", identified, 0x0303, true},
        {"early data", early, 0x0304, true, true, "earlyhello"},
        {"early data refused", refused, 0x0304, true},
    };
    for (const auto& [name, options, version, isResumed, acceptedEarlyData, clientSaid] : cases) {
        SCOPED_TRACE(name);
        const TLSSession session = runTLS(options, {clientSends("hello"), serverSends("world"), clientDoes(Action::close)});
        EXPECT_TRUE(session.isComplete) << session.failure;
        EXPECT_EQ(session.version, version);
        EXPECT_EQ(session.isResumed, isResumed);
        EXPECT_EQ(session.acceptedEarlyData, acceptedEarlyData);
        EXPECT_EQ(session.clientPlaintext.view().text(), clientSaid);
        EXPECT_EQ(session.serverPlaintext.view().text(), "world");
    }
}

TEST(TLSSession, NegotiatesEverySuiteItOffers)
{
    for (const std::uint16_t version : {std::uint16_t{0x0303}, std::uint16_t{0x0304}}) {
        const std::vector<TLSSuite> suites = availableSuites(version);
        EXPECT_GE(suites.size(), 3U);
        for (const TLSSuite& suite : suites)
            EXPECT_EQ(runTLS({.version = version, .suites = suite.standardName}, {}).cipherSuite, suite.codePoint) << suite.name;
    }
}

TEST(TLSSession, GivesEqualBytesForEqualSeeds)
{
    const std::vector<TLSStep> steps = {clientSends("hello"), serverDoes(Action::updateBothKeys), serverSends("world")};
    const auto flights = [&](std::uint64_t seed) { return runTLS({.tickets = 0, .seed = seed}, steps).flights; };
    EXPECT_EQ(flights(1), flights(1));
    EXPECT_NE(flights(1), flights(2));

    // Others at the same time change nothing, also when they end first.
    auto other = std::make_unique<TLSConversation>(TLSSessionOptions{.seed = 3});
    TLSConversation conversation(TLSSessionOptions{.tickets = 0, .seed = 1});
    other->handshake();
    conversation.handshake();
    other.reset();
    for (const TLSStep& step : steps) conversation.perform(step);
    EXPECT_EQ(conversation.session().flights, flights(1));
}

// The peer that reads the records is libssl; the session throws when it does not find what was sealed.
TEST(TLSRecordSealer, SealsWhatLibsslReads)
{
    for (const char* suite :
         {"TLS_ECDHE_ECDSA_WITH_AES_128_GCM_SHA256", "TLS_ECDHE_RSA_WITH_AES_256_GCM_SHA384", "TLS_ECDHE_RSA_WITH_CHACHA20_POLY1305_SHA256",
          "TLS_AES_128_GCM_SHA256", "TLS_AES_256_GCM_SHA384", "TLS_CHACHA20_POLY1305_SHA256"}) {
        SCOPED_TRACE(suite);
        const bool isTLS13 = !std::string_view(suite).contains("_WITH_");
        TLSConversation conversation(
            TLSSessionOptions{.version = isTLS13 ? std::uint16_t{0x0304} : std::uint16_t{0x0303}, .suites = suite, .tickets = 0});
        ASSERT_TRUE(conversation.handshake());
        for (const Direction direction : bothDirections) {
            TLSRecordSealer sealer(conversation.session(), direction, isTLS13 ? 0 : 1);
            for (const Data& plaintext : {Data::fromText("one"), Data(), patternBytes(16'000)})
                conversation.inject(direction, sealer.seal(23, plaintext, isTLS13 ? 100 : 0), plaintext);
        }
        EXPECT_EQ(conversation.session().serverPlaintext.size(), 16'003);
    }
}

TEST(VectorStream, KnowsItsPackets)
{
    const std::vector<StreamPiece> pieces = {
        {Direction::clientToServer, hex("01 02 03"), 4, 10.5},
        {Direction::serverToClient, hex("0a"), 5, 10.75},
        {Direction::clientToServer, hex("00 00"), std::nullopt, 0},
        {Direction::clientToServer, hex("04 05"), 7, 11},
    };
    for (const auto layout : {StreamLayout::inOnePlace, StreamLayout::inPieces}) {
        const TCPStream stream = vectorStream(pieces, layout);
        EXPECT_EQ(stream.clientToServerData.whole(), hex("01 02 03 00 00 04 05"));
        EXPECT_EQ(stream.serverToClientData.whole(), hex("0a"));
        EXPECT_EQ(stream.clientToServerData.stretch(1).size(), layout == StreamLayout::inPieces ? 2 : 6);
        EXPECT_EQ(stream.locate({2, 6}, Direction::clientToServer), (ByteLocation{10.5, {4, 7}}));
        EXPECT_EQ(stream.locate({3, 5}, Direction::clientToServer), (ByteLocation{}));
        EXPECT_EQ(stream.segments.size(), 3);
        EXPECT_EQ(stream.endTime, 11);
    }
}

/// Adds the first copy of every byte at its distance from the direction's first, where there is none yet. Sequence numbers may wrap.
void addFirstCopies(std::vector<std::optional<std::uint8_t>>& bytes, const std::vector<PlannedSegment>& segments, Direction direction,
                    std::uint32_t first)
{
    for (const PlannedSegment& segment : segments) {
        if (segment.direction != direction) continue;
        auto at = static_cast<std::size_t>(segment.sequenceNumber - first);
        for (const std::uint8_t byte : segment.payload.view()) {
            if (at >= bytes.size()) bytes.resize(at + 1);
            if (!bytes[at]) bytes[at] = byte;
            ++at;
        }
    }
}

TEST(TCPConversation, DisorderLosesOnlyWhatItSays)
{
    const TLSSession session = runTLS({}, {clientSends(patternBytes(40'000)), serverSends(patternBytes(90'000, 2))});
    const TCPConversationOptions options{.clientISN = 0xFFFFF000, .serverISN = 0xFFFFFFFF, .segmentSize = 500};
    for (std::uint64_t seed = 1; seed <= 20; ++seed) {
        SCOPED_TRACE(seed);
        std::vector<PlannedSegment> segments = tcpSegments(session.flights, options);
        const std::vector<PlannedSegment> lost = disturb(segments, {.reordered = 0.3,
                                                                    .retransmitted = 0.2,
                                                                    .overlapping = 0.2,
                                                                    .contradicting = 0.2,
                                                                    .lost = seed % 2 == 0 ? 0.1 : 0,
                                                                    .seed = seed});
        EXPECT_EQ(lost.empty(), seed % 2 == 1);
        for (const Direction direction : bothDirections) {
            const std::uint32_t first = (direction == Direction::clientToServer ? options.clientISN : options.serverISN) + 1;
            std::vector<std::optional<std::uint8_t>> bytes;
            addFirstCopies(bytes, segments, direction, first);
            addFirstCopies(bytes, lost, direction, first);
            std::vector<std::uint8_t> wire;
            for (const auto& byte : bytes)
                if (byte) wire.push_back(*byte);
            EXPECT_TRUE(session.wire(direction) == Data(std::move(wire)));
        }
    }
}

/// The ones' complement sum of 16-bit words, which is 0xFFFF where a checksum among them is right (RFC 1071).
std::uint32_t wordSum(DataView bytes, std::uint32_t sum = 0)
{
    for (std::int64_t at = 0; at < bytes.size(); at += 2) sum += static_cast<std::uint32_t>(bytes.u8(at) << 8 | bytes.u8(at + 1));
    return (sum & 0xFFFF) + (sum >> 16);
}

TEST(PacketPath, ChecksumsAreRight)
{
    PlannedSegment segment{
        .source = endpoint("192.0.2.1", 50'000), .destination = endpoint("192.0.2.2", 443), .sequenceNumber = 7, .flags = 0x18};
    for (const std::int64_t size : {0, 1, 2, 3, 4, 5, 1'448}) {
        segment.payload = patternBytes(size);
        const Data packet = packets({segment}, {.link = PacketPath::Link::rawIP}).front().frame;
        const std::int64_t tcpLength = packet.size() - 20;
        EXPECT_EQ(wordSum(packet.sub(0, 20)), 0xFFFFU);
        EXPECT_EQ(wordSum(packet.sub(12, packet.size()), static_cast<std::uint32_t>(6 + tcpLength)), 0xFFFFU) << size;
    }
}

TEST(RealCaptures, KnowWhatWasSaid)
{
    std::map<std::string, RealCapture> captures;
    for (RealCapture& capture : realCaptures(SEALSCOPE_SOURCE_DIR)) captures.emplace(capture.name, std::move(capture));
    EXPECT_TRUE(captures.at("openssl-alert").streams.empty());
    EXPECT_TRUE(captures.at("nginx-http2").side(0, Direction::serverToClient).contains);
    const RealCapture& early = captures.at("openssl-tls13-early-data");
    ASSERT_EQ(early.streams.size(), 2U);
    EXPECT_EQ(early.side(0, Direction::clientToServer).opens->view().text(), "a first visit\n");
    EXPECT_EQ(early.side(1, Direction::clientToServer).sent->view().text(), "sent before the handshake\na second visit\n");
    EXPECT_TRUE(early.side(1, Direction::clientToServer).opens->isEmpty());
}

TEST(RunProgram, SaysHowItEnded)
{
    const ProgramResult echoed =
        runProgram({"sh", "-c", "cat; echo $WORD >&2; exit 3"}, {.input = std::string(1'000'000, 'x'), .environment = {"WORD=oops"}});
    EXPECT_EQ(echoed.status, 3);
    EXPECT_EQ(echoed.output.size(), 1'000'000U);
    EXPECT_EQ(echoed.errors, "oops\n");
    EXPECT_EQ(runProgram({"sh", "-c", "kill -TERM $$"}).signal, 15);
    EXPECT_TRUE(runProgram({"sleep", "60"}, {.timeLimit = std::chrono::seconds(1)}).timedOut);
    EXPECT_THROW(runProgram({"/no/such/program"}), std::runtime_error);
}

}  // namespace
}  // namespace sealscope
