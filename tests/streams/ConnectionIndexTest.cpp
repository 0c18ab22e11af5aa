// SPDX-License-Identifier: Apache-2.0
#include "tests/streams/ScriptedCapture.h"
#include "tests/support/Printers.h"

#include <gtest/gtest.h>

using namespace sealscope;

namespace {

constexpr std::uint8_t SYN = TCPFlag::syn, ACK = TCPFlag::ack, FIN = TCPFlag::fin, RST = TCPFlag::rst, PSH = TCPFlag::psh;

/// One packet of a case: A is 192.0.2.1:50000, B is 192.0.2.2:443.
struct Packet {
    char from = 'A';
    std::uint32_t number = 0;
    std::string_view payload;
    std::uint8_t flags = ACK | PSH;
    std::uint32_t acknowledgment = 0;
};

ScriptedCapture captured(const std::vector<Packet>& packets, std::uint16_t portOfA = 50'000)
{
    ScriptedCapture capture;
    double time = 1;
    for (const Packet& packet : packets) {
        TCPPacket segment{.source = testEndpoint(1, portOfA), .destination = testEndpoint(2, 443), .sequenceNumber = packet.number};
        if (packet.from == 'B') std::swap(segment.source, segment.destination);
        segment.acknowledgmentNumber = packet.acknowledgment;
        segment.flags = packet.flags;
        capture.add(segment, DataView(packet.payload), time++);
    }
    return capture;
}

std::string text(const StreamData& data) { return std::string(data.whole().view().text()); }

}  // namespace

TEST(ConnectionIndex, TellsConnectionsOfTheSamePortsApart)
{
    struct Case {
        const char* name;
        std::vector<Packet> packets;
        /// For each connection, what A and B sent.
        std::vector<std::pair<std::string, std::string>> expected;
    };
    const Case cases[] = {
        {"one", {{'A', 9, "", SYN}, {'B', 99, "", SYN | ACK, 10}, {'A', 10, "ab"}, {'B', 100, "cd"}}, {{"ab", "cd"}}},
        {"after both have closed",
         {{'A', 9, "", SYN}, {'A', 10, "ab", ACK | FIN}, {'B', 99, "", FIN | ACK}, {'A', 7'000, "", SYN}, {'A', 7'001, "cd"}},
         {{"ab", ""}, {"cd", ""}}},
        {"after a reset",
         {{'A', 9, "", SYN}, {'B', 0, "", RST | ACK, 10}, {'A', 7'000, "", SYN}, {'A', 7'001, "cd"}},
         {{"", ""}, {"cd", ""}}},
        {"after data alone", {{'A', 9, "", SYN}, {'A', 10, "ab"}, {'A', 7'000, "", SYN}, {'A', 7'001, "cd"}}, {{"ab", ""}, {"cd", ""}}},
        {"both sides' data goes to the new one",
         {{'A', 9, "", SYN},
          {'B', 99, "", SYN | ACK, 10},
          {'A', 10, "ab", ACK | FIN},
          {'A', 500, "", SYN},
          {'B', 8'000, "", SYN | ACK, 501},
          {'A', 501, "cd", ACK | PSH, 8'001},
          {'B', 8'001, "ef", ACK | PSH, 503}},
         {{"ab", ""}, {"cd", "ef"}}},
        {"a SYN+ACK whose SYN was lost",
         {{'B', 99, "", SYN | ACK, 10}, {'A', 10, "ab"}, {'B', 100, "", RST}, {'B', 5'000, "", SYN | ACK, 71}, {'A', 71, "cd"}},
         {{"ab", ""}, {"cd", ""}}},
        {"a SYN sent again is no new connection", {{'A', 9, "", SYN}, {'A', 9, "", SYN}, {'A', 10, "ab"}, {'A', 9, "", SYN}}, {{"ab", ""}}},
        {"the same SYN after one side has closed is no new connection",
         {{'A', 9, "", SYN}, {'A', 10, "ab", ACK | FIN}, {'A', 9, "", SYN}},
         {{"ab", ""}}},
        {"the same numbers again after both have closed",
         {{'A', 9, "", SYN},
          {'B', 99, "", SYN | ACK, 10},
          {'A', 10, "ab", ACK | FIN},
          {'B', 100, "", ACK | FIN, 13},
          {'A', 9, "", SYN},
          {'B', 99, "", SYN | ACK, 10},
          {'A', 10, "cd", ACK}},
         {{"ab", ""}, {"cd", ""}}},
        {"another SYN before anything came about", {{'A', 9, "", SYN}, {'A', 7'000, "", SYN}, {'A', 7'001, "ab"}}, {{"ab", ""}}},
        {"both open at once", {{'A', 9, "", SYN}, {'B', 99, "", SYN}, {'A', 10, "ab"}, {'B', 100, "cd"}}, {{"ab", "cd"}}},
        {"the SYN captured late", {{'A', 10, "ab"}, {'B', 100, "cd"}, {'B', 99, "", SYN | ACK}, {'A', 9, "", SYN}}, {{"ab", "cd"}}},
        {"all back to front",
         {{'B', 102, "", ACK | FIN, 13},
          {'A', 12, "", ACK | FIN, 102},
          {'B', 100, "cd", ACK, 12},
          {'A', 10, "ab", ACK, 100},
          {'B', 99, "", SYN | ACK, 10},
          {'A', 9, "", SYN}},
         {{"ab", "cd"}}},
        {"a SYN after a connection whose SYN was not captured",
         {{'A', 10, "ab"}, {'A', 12, "", ACK | FIN}, {'A', 90'000, "", SYN}, {'A', 90'001, "cd"}},
         {{"ab", ""}, {"cd", ""}}},
        {"a SYN a little before a connection that is closed",
         {{'A', 5'000, "ab"}, {'A', 5'002, "", ACK | FIN}, {'A', 4'000, "", SYN}, {'A', 4'001, "cd"}},
         {{"ab", ""}, {"cd", ""}}},
        {"a SYN after a reset of the other side", {{'B', 99, "", RST}, {'A', 9, "", SYN}, {'A', 10, "ab"}}, {{"", ""}, {"ab", ""}}},
        {"a SYN with a reset opens nothing",
         {{'A', 9, "", SYN}, {'A', 10, "ab"}, {'A', 5'000, "", SYN | RST}, {'A', 12, "c"}},
         {{"abc", ""}}},
        {"a reset alone", {{'B', 99, "", RST}}, {{"", ""}}},
    };
    for (const auto& [name, packets, expected] : cases) {
        SCOPED_TRACE(name);
        const ScriptedCapture capture = captured(packets);
        std::vector<std::pair<std::string, std::string>> found;
        std::int64_t count = 0;
        for (std::int64_t number = 0; number < capture.index().size(); ++number) {
            const TCPStream stream = capture.stream(number);
            EXPECT_EQ(stream.key.number, number);
            found.emplace_back(text(stream.clientToServerData), text(stream.serverToClientData));
            count += capture.index()[number].packets();
        }
        EXPECT_EQ(found, expected);
        EXPECT_EQ(count, static_cast<std::int64_t>(packets.size()));
    }
}

TEST(ConnectionIndex, FindsTheClient)
{
    constexpr std::string_view clientHello("\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03", 11);
    constexpr std::string_view serverHello("\x16\x03\x03\x00\x7a\x02\x00\x00\x76\x03\x03", 11);
    struct Case {
        const char* name;
        std::vector<Packet> packets;
        std::uint16_t portOfA;
        char client;
    };
    const Case cases[] = {
        {"the SYN's sender, whatever the ports", {{'B', 9, "", SYN}, {'A', 99, "", SYN | ACK}}, 50'000, 'B'},
        {"the SYN+ACK's receiver", {{'B', 99, "", SYN | ACK}, {'B', 100, clientHello}}, 50'000, 'A'},
        {"the first SYN's sender, of two", {{'B', 9, "", SYN}, {'A', 99, "", SYN}}, 50'000, 'B'},
        {"the Client Hello's sender", {{'B', 9, clientHello}, {'A', 99, serverHello}}, 50'000, 'B'},
        {"the Client Hello's sender, later", {{'A', 99, "220 ready"}, {'B', 9, clientHello}}, 50'000, 'B'},
        {"a cut Client Hello's sender", {{'B', 9, clientHello.substr(0, 6)}}, 50'000, 'B'},
        {"a SYN that comes after the Client Hello", {{'B', 10, clientHello}, {'B', 9, "", SYN}}, 50'000, 'B'},
        {"a SYN counts for more", {{'B', 100, clientHello, ACK, 10}, {'A', 9, "", SYN}}, 50'000, 'A'},
        {"a Server Hello tells nothing", {{'B', 9, serverHello}}, 50'000, 'A'},
        {"data that begins much alike tells nothing", {{'B', 9, "\x16\x03\x01\x02\x01\x01\x01\x01\x01\x09"}}, 50'000, 'A'},
        {"the higher port", {{'B', 9, "x"}}, 50'000, 'A'},
        {"the higher port, of two low ones", {{'A', 9, "x"}}, 80, 'B'},
        {"the first sender, of equal ports", {{'B', 9, "x"}, {'A', 9, "x"}}, 443, 'B'},
    };
    for (const auto& [name, packets, portOfA, client] : cases) {
        const ScriptedCapture capture = captured(packets, portOfA);
        ASSERT_EQ(capture.index().size(), 1) << name;
        const TCPStream stream = capture.stream();
        EXPECT_EQ(stream.clientEndpoint, client == 'A' ? testEndpoint(1, portOfA) : testEndpoint(2, 443)) << name;
        EXPECT_EQ(stream.serverEndpoint, client == 'A' ? testEndpoint(2, 443) : testEndpoint(1, portOfA)) << name;
        EXPECT_EQ(stream.key, (TCPStreamKey{stream.clientEndpoint, stream.serverEndpoint, 0})) << name;
    }
}

TEST(ConnectionIndex, NumbersConnectionsByTheirFirstPackets)
{
    // The same four numbers as IPv4 and as IPv6 addresses are different endpoints, and so are ports the other way round.
    TCPStreamKey::Endpoint wide = testEndpoint(1, 50'000);
    wide.isIPv6 = true;
    const std::pair<TCPStreamKey::Endpoint, TCPStreamKey::Endpoint> pairs[] = {
        {testEndpoint(1, 50'000), testEndpoint(2, 443)}, {testEndpoint(2, 50'000), testEndpoint(1, 443)}, {wide, testEndpoint(2, 443)},
        {testEndpoint(1, 50'001), testEndpoint(2, 443)}, {testEndpoint(1, 700), testEndpoint(1, 700)},
    };
    ScriptedCapture capture;
    for (int round = 0; round < 3; ++round) {
        for (const auto& [client, server] : pairs) {
            capture.add({.source = client, .destination = server, .flags = ACK}, {}, round);
            capture.add({.source = server, .destination = client, .flags = ACK}, {}, round + 0.5);
        }
    }
    ASSERT_EQ(capture.index().size(), std::ssize(pairs));
    for (std::int64_t number = 0; number < std::ssize(pairs); ++number) {
        const TCPStream stream = capture.stream(number);
        EXPECT_EQ(stream.clientEndpoint, pairs[number].first);
        EXPECT_EQ(stream.segments.size(), 6);
        EXPECT_EQ(stream.segments[0].packetId, 1 + 2 * number);
        EXPECT_EQ(stream.startTime, 0);
        EXPECT_EQ(stream.endTime, 2.5);
    }
}

TEST(ConnectionIndex, RemembersInitialSequenceNumbers)
{
    struct Case {
        const char* name;
        std::vector<Packet> packets;
        std::uint32_t client;
        std::uint32_t server;
    };
    const Case cases[] = {
        {"of both SYNs", {{'A', 9, "", SYN}, {'B', 99, "", SYN | ACK, 10}}, 9, 99},
        {"before the first byte", {{'A', 10, "a"}, {'B', 0, "b"}}, 9, 0xFFFF'FFFF},
        {"before what is acknowledged, without a byte", {{'A', 10, "a", ACK, 100}}, 9, 99},
    };
    for (const auto& [name, packets, client, server] : cases) {
        const TCPStream stream = captured(packets).stream();
        EXPECT_EQ(stream.clientISN, client) << name;
        EXPECT_EQ(stream.serverISN, server) << name;
    }
}

TEST(ConnectionIndex, KeepsLargePacketNumbersAndTimes)
{
    ScriptedCapture capture;
    capture.skipPackets(std::int64_t{5} << 32);
    const TCPPacket packet{.source = testEndpoint(1, 1'000), .destination = testEndpoint(2, 443), .sequenceNumber = 7, .flags = ACK | PSH};
    capture.add(packet, DataView(std::string_view("abc")), 1'700'000'000.123456789);
    const TCPStream stream = capture.stream();
    EXPECT_EQ(stream.segments[0].packetId, (std::int64_t{5} << 32) + 1);
    EXPECT_EQ(stream.locate({1, 2}, TCPSegment::Direction::clientToServer),
              (ByteLocation{1'700'000'000.123456789, {(std::int64_t{5} << 32) + 1}}));
}
