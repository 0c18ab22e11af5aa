// SPDX-License-Identifier: Apache-2.0
#include "app/session/Session.h"

#include "harness/CaptureFile.h"
#include "harness/PacketPath.h"
#include "harness/TLSSession.h"
#include "harness/TempDirectory.h"
#include "tests/support/Printers.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <map>
#include <thread>

using namespace sealscope;

namespace {

using Direction = TCPSegment::Direction;
constexpr Direction directions[] = {Direction::clientToServer, Direction::serverToClient};
constexpr std::uint8_t synFlag = TCPFlag::syn;

/// A TLS session with a handshake, short messages both ways and a long answer.
const TLSSession& realSession()
{
    static const TLSSession session = [] {
        std::vector<std::uint8_t> page(20'000);
        for (std::size_t i = 0; i < page.size(); ++i) page[i] = static_cast<std::uint8_t>(i % 251);
        return runTLS({},
                      {clientSends("GET / HTTP/1.1\r\n\r\n"), serverSends(Data(std::move(page))), clientSends("GET /next HTTP/1.1\r\n\r\n"),
                       serverSends("HTTP/1.1 404 Not Found\r\n\r\n"), clientDoes(TLSStep::Action::close)});
    }();
    return session;
}

std::unique_ptr<Session> opened(SessionOptions options)
{
    auto session = Session::open(std::move(options));
    if (!session) throw std::runtime_error(session.error().text());
    return std::move(*session);
}

/// The data that a capture's packets give one direction, found byte by byte: the first copy of each, from `begin` on.
struct ExpectedData {
    std::vector<std::uint8_t> bytes;
    std::vector<std::int64_t> packets;  ///< of each byte; 0 where none carried it
    std::int64_t missing = 0;
};

ExpectedData expectedData(const std::vector<PlannedSegment>& captured, Direction direction, std::uint32_t begin)
{
    std::map<std::uint32_t, std::pair<std::uint8_t, std::int64_t>> first;
    std::uint32_t size = 0;
    for (std::size_t at = 0; at < captured.size(); ++at) {
        const PlannedSegment& segment = captured[at];
        if (segment.direction != direction) continue;
        const std::uint32_t offset = segment.sequenceNumber + (segment.flags & synFlag ? 1 : 0) - begin;
        if (offset > 1U << 31) continue;  // before the first byte
        for (std::uint32_t i = 0; i < segment.payload.size(); ++i)
            first.try_emplace(offset + i, segment.payload[i], static_cast<std::int64_t>(at) + 1);
        if (!segment.payload.isEmpty()) size = std::max(size, offset + static_cast<std::uint32_t>(segment.payload.size()));
    }
    ExpectedData expected{.bytes = std::vector<std::uint8_t>(size), .packets = std::vector<std::int64_t>(size)};
    for (const auto& [offset, copy] : first) std::tie(expected.bytes[offset], expected.packets[offset]) = copy;
    expected.missing = std::ranges::count(expected.packets, 0);
    return expected;
}

}  // namespace

TEST(Session, PutsRealSessionsTogetherWhateverTheDisorder)
{
    struct Case {
        const char* name;
        TCPConversationOptions conversation;
        Disorder disorder;
        std::size_t dropped = 0;  ///< packets that the capture missed at the beginning
        bool isReversed = false;
    };
    const Case cases[] = {
        {"in order", {}, {}},
        {"tiny segments", {.segmentSize = 7}, {}},
        {"lone bytes, acknowledged in twos", {.segmentSize = 1, .segmentsPerAcknowledgment = 2}, {}},
        {"reordered", {}, {.reordered = 0.5}},
        {"reordered far", {.segmentSize = 100}, {.reordered = 0.3, .reach = 200}},
        {"lone bytes, reordered", {.segmentSize = 1, .segmentsPerAcknowledgment = 2}, {.reordered = 0.3}},
        {"lone bytes, reordered and lost", {.segmentSize = 1, .segmentsPerAcknowledgment = 2}, {.reordered = 0.3, .lost = 0.1}},
        {"retransmitted", {}, {.retransmitted = 0.4}},
        {"overlapping", {.segmentSize = 333}, {.overlapping = 0.4}},
        {"contradicting", {}, {.contradicting = 0.4}},
        {"lost", {.segmentSize = 500}, {.lost = 0.2}},
        {"everything at once",
         {.segmentSize = 200, .segmentsPerAcknowledgment = 2},
         {.reordered = 0.2, .retransmitted = 0.2, .overlapping = 0.2, .contradicting = 0.1, .lost = 0.1}},
        {"back to front", {.segmentSize = 300}, {}, 0, true},
        {"sequence numbers that wrap", {.clientISN = 0xFFFF'FFFF, .serverISN = 0xFFFF'F000}, {.reordered = 0.2, .overlapping = 0.2}},
        {"IPv6", {.client = endpoint("2001:db8::1", 50'000), .server = endpoint("2001:db8::2", 443)}, {.reordered = 0.2}},
        {"without the SYN", {}, {}, 2},
        {"without the handshake, reordered", {.segmentSize = 700}, {.reordered = 0.3, .seed = 5}, 3},
    };
    const TLSSession& sent = realSession();
    const TempDirectory directory;
    for (const Case& test : cases) {
        SCOPED_TRACE(test.name);
        std::vector<PlannedSegment> segments = tcpSegments(sent.flights, test.conversation);
        segments.erase(segments.begin(), segments.begin() + static_cast<std::ptrdiff_t>(test.dropped));
        const std::vector<PlannedSegment> lost = disturb(segments, test.disorder);
        if (test.isReversed) reverse(segments);
        const auto session = opened({.files = {directory.write("capture.pcap", pcapFile(packets(segments)))}});

        EXPECT_EQ(session->packetCount(), std::ssize(segments));
        ASSERT_EQ(session->streamCount(), 1);
        const TCPStream stream = session->stream(0);
        EXPECT_EQ(stream.clientEndpoint, test.conversation.client);
        EXPECT_EQ(stream.segments.size(), std::ssize(segments));
        std::int64_t missing = 0;
        for (const Direction side : directions) {
            const std::uint32_t begin = (side == Direction::clientToServer ? test.conversation.clientISN : test.conversation.serverISN) + 1;
            const ExpectedData expected = expectedData(segments, side, begin);
            const StreamData& data = stream.data(side);
            ASSERT_EQ(data.whole(), DataView(expected.bytes));
            if (lost.empty()) { ASSERT_EQ(data.whole(), sent.wire(side)); }
            for (std::int64_t offset = 0; offset < data.size(); ++offset) {
                const std::int64_t packet = expected.packets[static_cast<std::size_t>(offset)];
                const ByteLocation location = stream.locate({offset, offset + 1}, side);
                ASSERT_EQ(location.packetIds, packet == 0 ? std::vector<std::int64_t>{} : std::vector{packet}) << "byte " << offset;
            }
            missing += expected.missing;
        }
        const StreamSummary summary = session->summary(0);
        EXPECT_EQ(summary.clientBytes, stream.clientToServerData.size());
        EXPECT_EQ(summary.serverBytes, stream.serverToClientData.size());
        EXPECT_EQ(summary.missingBytes, missing);
        EXPECT_EQ(summary.packets, std::ssize(segments));
        EXPECT_EQ(summary.restarts, 0);
        EXPECT_EQ(summary.contradictingBytes != 0, test.disorder.contradicting != 0);
        EXPECT_EQ(summary.hasSYN, test.dropped == 0);
        EXPECT_EQ(summary.startTime, stream.startTime);
        EXPECT_EQ(summary.startTime, static_cast<double>(segments.front().time / 1'000'000'000) +
                                         static_cast<double>(segments.front().time % 1'000'000'000 / 1'000) / 1e6);
    }
}

TEST(Session, LeavesOutWhatIsNoData)
{
    // Keep-alives, probes, urgent bytes and a reset between the flights: the data is what was sent, no more and no less.
    const TLSSession& sent = realSession();
    TCPConversation conversation;
    conversation.open(sent.flights.front().wire.sub(0, 100));
    conversation.keepAlive(Direction::serverToClient);
    std::vector<std::uint8_t> client(sent.flights.front().wire.data(), sent.flights.front().wire.data() + 100);
    std::vector<std::uint8_t> server;
    for (std::size_t at = 0; at < sent.flights.size(); ++at) {
        const Direction from = sent.flights[at].direction;
        const Data wire = at == 0 ? sent.flights[0].wire.sub(100, sent.flights[0].wire.size()) : sent.flights[at].wire;
        conversation.keepAlive(from);
        conversation.probeZeroWindow(from, wire[0]);
        conversation.keepAlive(opposite(from));
        conversation.sendUrgent(from, wire.sub(0, 10));
        conversation.send(from, wire.sub(10, wire.size()));
        conversation.keepAlive(from);
        std::vector<std::uint8_t>& bytes = from == Direction::clientToServer ? client : server;
        bytes.insert(bytes.end(), wire.data(), wire.data() + wire.size());
    }
    conversation.close();
    conversation.keepAlive(Direction::clientToServer);
    conversation.reset(Direction::serverToClient);
    const TempDirectory directory;
    const auto session = opened({.files = {directory.write("capture.pcap", pcapFile(packets(conversation.segments)))}});
    ASSERT_EQ(session->streamCount(), 1);
    const TCPStream stream = session->stream(0);
    EXPECT_EQ(stream.clientToServerData.whole(), DataView(client));
    EXPECT_EQ(stream.serverToClientData.whole(), DataView(server));
    EXPECT_EQ(stream.clientISN, 1'000U);
    EXPECT_EQ(stream.serverISN, 2'000U);
    EXPECT_EQ(session->summary(0).missingBytes, 0);
    EXPECT_EQ(session->summary(0).contradictingBytes, 0);
}

TEST(Session, CountsWhatTheSnapshotLengthCutAsLost)
{
    std::vector<PlannedSegment> segments = tcpSegments(realSession().flights);
    for (PlannedSegment& segment : segments) segment.snapLength = 200;
    const TempDirectory directory;
    const auto session = opened({.files = {directory.write("cut.pcap", pcapFile(packets(segments)))}});
    const TCPStream stream = session->stream(0);
    // Ethernet, IP and TCP headers take 54 of the 200 bytes.
    constexpr std::int64_t captured = 146;
    std::int64_t cut = 0;
    for (std::size_t at = 0; at < segments.size(); ++at) {
        const PlannedSegment& segment = segments[at];
        if (segment.payload.size() <= captured) continue;
        const std::uint32_t begin = segment.direction == Direction::clientToServer ? 1'001 : 2'001;
        const std::int64_t offset = segment.sequenceNumber - begin, size = segment.payload.size();
        const StreamData& data = stream.data(segment.direction);
        EXPECT_EQ(data.slice(offset, captured), segment.payload.sub(0, captured));
        EXPECT_EQ(data.slice(offset + captured, size - captured),
                  Data(std::vector<std::uint8_t>(static_cast<std::size_t>(size - captured))));
        EXPECT_EQ(stream.locate({offset, offset + size}, segment.direction).packetIds, std::vector{static_cast<std::int64_t>(at) + 1});
        EXPECT_EQ(stream.locate({offset + captured, offset + size}, segment.direction), ByteLocation{});
        cut += size - captured;
    }
    EXPECT_GT(cut, 10'000);
    EXPECT_EQ(session->summary(0).missingBytes, cut);
}

TEST(Session, TakesTheSenderOfAClientHelloForTheClientWhereTheSYNIsMissing)
{
    const TempDirectory directory;
    for (const std::int64_t segmentSize : {1, 4, 5, 6, 10, 1'448}) {
        // The client's port is the lower one, so that nothing but the hello tells who it is.
        const TCPConversationOptions options{
            .client = endpoint("192.0.2.1", 443), .server = endpoint("192.0.2.2", 50'000), .segmentSize = segmentSize};
        std::vector<PlannedSegment> segments = tcpSegments(realSession().flights, options);
        segments.erase(segments.begin(), segments.begin() + 3);
        const auto session = opened({.files = {directory.write("late.pcap", pcapFile(packets(segments)))}});
        EXPECT_EQ(session->summary(0).client, options.client) << segmentSize << " bytes a segment";
        EXPECT_EQ(session->stream(0).clientToServerData.whole(), realSession().wire(Direction::clientToServer));
    }
}

TEST(Session, ReadsDatagramsThatCameInFragments)
{
    std::vector<PlannedSegment> segments = tcpSegments(realSession().flights);
    for (PlannedSegment& segment : segments) segment.fragmentLength = 512;
    const std::vector<CapturePacket> fragments = packets(segments);
    const TempDirectory directory;
    const auto session = opened({.files = {directory.write("fragments.pcap", pcapFile(fragments))}});
    EXPECT_EQ(session->packetCount(), std::ssize(fragments));
    const TCPStream stream = session->stream(0);
    for (const Direction side : directions) EXPECT_EQ(stream.data(side).whole(), realSession().wire(side));
}

TEST(Session, SeveralFilesAreOneCapture)
{
    TCPConversationOptions second{.client = endpoint("192.0.2.1", 50'001), .startTime = 1'700'000'000'010'000'000};
    const std::vector<CapturePacket> all =
        packets(merged({tcpSegments(realSession().flights), tcpSegments(realSession().flights, second)}));
    const std::size_t third = all.size() / 3;
    const TempDirectory directory;
    const auto part = [&](const char* name, std::size_t from, std::size_t to) {
        return directory.write(name,
                               pcapFile({all.begin() + static_cast<std::ptrdiff_t>(from), all.begin() + static_cast<std::ptrdiff_t>(to)}));
    };
    const std::string one = part("1.pcap", 0, third), two = part("2.pcap", third, 2 * third), three = part("3.pcap", 2 * third, all.size());
    const auto whole = opened({.files = {part("all.pcap", 0, all.size())}});
    const auto ring = opened({.files = {three, one, two}});
    EXPECT_EQ(ring->packetCount(), whole->packetCount());
    ASSERT_EQ(ring->streamCount(), 2);
    for (std::int64_t number = 0; number < 2; ++number) {
        const TCPStream expected = whole->stream(number);
        const TCPStream stream = ring->stream(number);
        EXPECT_EQ(stream.key, expected.key);
        for (const Direction side : directions) {
            EXPECT_EQ(stream.data(side).whole(), realSession().wire(side));
            const ByteRange everything{0, stream.data(side).size()};
            EXPECT_EQ(stream.locate(everything, side), expected.locate(everything, side));
        }
    }
}

TEST(Session, FindsTheStreamOfAPacket)
{
    // The same endpoints connect twice, while others talk.
    std::vector<PlannedSegment> segments;
    std::vector<std::int64_t> streams;
    const TCPConversationOptions conversations[] = {{}, {.client = endpoint("192.0.2.7", 50'000)}, {.clientISN = 900'000}};
    for (const TCPConversationOptions& options : conversations)
        for (const PlannedSegment& segment : tcpSegments(realSession().flights, options)) {
            segments.push_back(segment);
            streams.push_back(&options - conversations);
        }
    const TempDirectory directory;
    const auto session = opened({.files = {directory.write("three.pcap", pcapFile(packets(segments)))}});
    for (std::size_t at = 0; at < segments.size(); ++at)
        ASSERT_EQ(session->streamOf(static_cast<std::int64_t>(at) + 1, segments[at].source, segments[at].destination), streams[at]) << at;
    EXPECT_EQ(session->streamOf(1, conversations[1].client, conversations[1].server), std::nullopt);
}

TEST(Session, MayBeAskedFromSeveralThreadsAndOutlived)
{
    std::vector<std::vector<PlannedSegment>> conversations;
    for (std::uint16_t i = 0; i < 40; ++i) {
        conversations.push_back(
            tcpSegments(realSession().flights, {.client = endpoint("192.0.2.1", static_cast<std::uint16_t>(50'000 + i))}));
        disturb(conversations.back(), {.reordered = 0.3, .overlapping = 0.2, .seed = i});
    }
    const TempDirectory directory;
    auto session = opened({.files = {directory.write("many.pcap", pcapFile(packets(merged(std::move(conversations)))))}});
    ASSERT_EQ(session->streamCount(), 40);
    std::vector<std::thread> readers;
    std::atomic<int> right = 0;
    for (int reader = 0; reader < 4; ++reader) {
        readers.emplace_back([&] {
            for (std::int64_t number = 0; number < session->streamCount(); ++number) {
                const TCPStream stream = session->stream(number);
                right += session->summary(number).serverBytes == stream.serverToClientData.size() &&
                         stream.serverToClientData.whole() == realSession().wire(Direction::serverToClient);
            }
        });
    }
    for (std::thread& reader : readers) reader.join();
    EXPECT_EQ(right, 4 * 40);

    const TCPStream kept = session->stream(7);
    session.reset();
    EXPECT_EQ(kept.clientToServerData.whole(), realSession().wire(Direction::clientToServer));
    EXPECT_FALSE(kept.locate({0, 10}, Direction::clientToServer).packetIds.empty());
    EXPECT_EQ(kept.segments[0].payloadLength, 0);
}

TEST(Session, HandsOutWhatTheCaptureCarries)
{
    const TempDirectory directory;
    const std::vector<CapturePacket> all = packets(tcpSegments(realSession().flights));
    const Data file = pcapngFile(all, {.secretsBefore = "CLIENT_RANDOM 1\n", .secretsAfter = realSession().keyLog});
    const auto session = opened({.files = {directory.write("secrets.pcapng", file)}});
    const SecretText secrets = session->plugIns().secrets().text();
    EXPECT_TRUE(secrets.starts_with("CLIENT_RANDOM 1\n"));
    EXPECT_NE(secrets.find(realSession().keyLog), SecretText::npos);
    EXPECT_TRUE(session->errors().empty());

    // The packets before the damage are there, and the damage is told.
    const Data cut = pcapFile(all);
    const auto damaged = opened({.files = {directory.write("cut.pcap", cut.sub(0, cut.size() - 10))}});
    EXPECT_EQ(damaged->packetCount(), std::ssize(all) - 1);
    EXPECT_EQ(damaged->errors().size(), 1U);
    EXPECT_EQ(damaged->stream(0).clientToServerData.whole(), realSession().wire(Direction::clientToServer));

    const auto first = opened({.files = {directory.file("cut.pcap")}, .maximumPackets = 5});
    EXPECT_EQ(first->packetCount(), 5);
    const auto filtered = opened({.files = {directory.file("cut.pcap")}, .filter = "src port 443"});
    EXPECT_EQ(filtered->stream(0).serverToClientData.whole(), realSession().wire(Direction::serverToClient));
    EXPECT_EQ(filtered->stream(0).clientToServerData.size(), 0);

    const auto missing = Session::open({.files = {directory.file("none.pcap")}});
    ASSERT_FALSE(missing);
    EXPECT_THAT(missing.error().text(), testing::HasSubstr("none.pcap"));
}

TEST(Session, CanBeInterrupted)
{
    std::vector<CapturePacket> many;
    const std::vector<CapturePacket> all = packets(tcpSegments(realSession().flights));
    while (many.size() < 50'000) many.insert(many.end(), all.begin(), all.end());
    const TempDirectory directory;
    int calls = 0;
    std::int64_t read = 0;
    std::stop_source stop;
    const auto session = opened({.files = {directory.write("long.pcap", pcapFile(many))},
                                 .progress =
                                     [&](std::int64_t bytes, std::int64_t total) {
                                         EXPECT_GT(bytes, read);
                                         EXPECT_GE(total, bytes);
                                         read = bytes;
                                         if (++calls == 2) stop.request_stop();
                                     },
                                 .stop = stop.get_token()});
    EXPECT_EQ(calls, 2);
    EXPECT_LT(session->packetCount(), std::ssize(many));
    ASSERT_GT(session->streamCount(), 0);
    EXPECT_EQ(session->stream(0).clientToServerData.whole(), realSession().wire(Direction::clientToServer));
}
