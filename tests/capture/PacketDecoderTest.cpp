// SPDX-License-Identifier: Apache-2.0
#include "app/capture/PacketDecoder.h"

#include "app/capture/Capture.h"
#include "app/capture/FragmentAssembler.h"
#include "harness/CaptureFile.h"
#include "harness/Hex.h"
#include "harness/TempDirectory.h"

#include <algorithm>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <random>

namespace sealscope {
namespace {

using Direction = TCPSegment::Direction;

CapturedPacket packetOf(DataView frame, std::uint32_t linkType = 1, std::int64_t originalLength = -1)
{
    return {.number = 1,
            .frame = frame,
            .address = 1'000,
            .originalLength = originalLength < 0 ? frame.size() : originalLength,
            .linkType = linkType};
}

Data u16(std::int64_t value) { return {static_cast<std::uint8_t>(value >> 8), static_cast<std::uint8_t>(value)}; }

// Layers in wire order, to be nested in one another.
Data ethernet(int type, const Data& payload) { return joined({hex("020000000001 020000000002"), u16(type), payload}); }
Data tagged(int type, const Data& payload) { return joined({u16(42), u16(type), payload}); }
Data ipv4(int protocol, const Data& payload, int fragmentation = 0, int identification = 7)
{
    return joined({hex("45 00"), u16(20 + payload.size()), u16(identification), u16(fragmentation), hex("40"),
                   Data{static_cast<std::uint8_t>(protocol)}, hex("0000 c0000201 c0000202"), payload});
}
Data ipv6(int next, const Data& payload)
{
    return joined({hex("60000000"), u16(payload.size()), Data{static_cast<std::uint8_t>(next), 64},
                   hex("20010db8000000000000000000000001 20010db8000000000000000000000002"), payload});
}
Data tcp(const Data& payload) { return joined({hex("c350 01bb 00000001 00000002 50 18 0100 0000 0000"), payload}); }
Data udp(int to, const Data& payload) { return joined({u16(50'000), u16(to), u16(8 + payload.size()), u16(0), payload}); }
Data vxlan(const Data& payload) { return udp(4'789, joined({hex("08000000 00002a00"), payload})); }

const Data hello = Data::fromText("hello");

TEST(PacketDecoder, FindsTheSegmentOnEveryPath)
{
    using Link = PacketPath::Link;
    using Tunnel = PacketPath::Tunnel;
    struct Case {
        const char* name;
        PacketPath path;
        bool isIPv4Only = false;
    };
    const Case cases[] = {
        {"Ethernet", {}},
        {"without padding", {.padsToMinimum = false}},
        {"a VLAN tag", {.vlans = {42}}},
        {"QinQ", {.vlans = {7, 42}}},
        {"three tags", {.vlans = {7, 42, 4'094}}},
        {"one MPLS label", {.mplsLabels = {16}}},
        {"MPLS labels within a VLAN", {.vlans = {1}, .mplsLabels = {1'000'000, 16, 3}}},
        {"PPPoE", {.link = Link::pppoe}},
        {"Linux cooked", {.link = Link::linuxCooked}},
        {"Linux cooked 2", {.link = Link::linuxCooked2}},
        {"raw IP", {.link = Link::rawIP}},
        {"raw IP by family", {.link = Link::rawIPByFamily}},
        {"BSD loopback", {.link = Link::bsdLoopback}},
        {"BSD loopback, big-endian", {.link = Link::bsdLoopbackBigEndian}},
        {"OpenBSD loopback", {.link = Link::openBSDLoopback}},
        {"PPP", {.link = Link::ppp}},
        {"PPP with HDLC", {.link = Link::pppWithHDLC}},
        {"GRE", {.tunnel = Tunnel::gre}},
        {"IP in IP", {.tunnel = Tunnel::ipInIP}},
        {"VXLAN", {.tunnel = Tunnel::vxlan}},
        {"VXLAN within PPPoE", {.link = Link::pppoe, .tunnel = Tunnel::vxlan}},
        {"IPv4 options", {.ipv4Options = hex("01 01 01 01 07 08 04 00000000 00")}, true},
        {"IPv6 extension headers", {.usesIPv6Extensions = true}},
        {"TCP options", {.tcpOptions = hex("0101080a 00000001 00000002")}},
        {"length left to the card", {.padsToMinimum = false, .leavesIPLengthZero = true, .leavesChecksums = true}},
    };
    for (const bool isIPv6 : {false, true}) {
        TCPConversation conversation =
            isIPv6 ? TCPConversation({.client = endpoint("2001:db8::1", 50'000), .server = endpoint("2001:db8::2", 443)})
                   : TCPConversation();
        conversation.open();
        conversation.send(Direction::clientToServer, Data{1});  // shorter than Ethernet's padding
        conversation.send(Direction::serverToClient, patternBytes(3'000));
        conversation.sendUrgent(Direction::clientToServer, patternBytes(10));
        conversation.close();
        for (const auto& [name, path, isIPv4Only] : cases) {
            if (isIPv4Only && isIPv6) continue;
            PacketDecoder decoder;
            const std::vector<CapturePacket> written = packets(conversation.segments, path);
            ASSERT_EQ(written.size(), conversation.segments.size());
            for (std::size_t i = 0; i < written.size(); ++i) {
                const PlannedSegment& expected = conversation.segments[i];
                const std::string where = fmt::format("{}, {}, packet {}", name, isIPv6 ? "IPv6" : "IPv4", i);
                TCPPacket segment;
                ASSERT_TRUE(decoder.decode(packetOf(written[i].frame, written[i].linkType), segment)) << where;
                EXPECT_EQ(segment.source, expected.source) << where;
                EXPECT_EQ(segment.destination, expected.destination) << where;
                EXPECT_EQ(segment.sequenceNumber, expected.sequenceNumber) << where;
                EXPECT_EQ(segment.acknowledgmentNumber, expected.acknowledgmentNumber) << where;
                EXPECT_EQ(segment.window, expected.window) << where;
                EXPECT_EQ(segment.urgentPointer, expected.urgentPointer) << where;
                EXPECT_EQ(segment.flags, expected.flags) << where;
                EXPECT_EQ(segment.payload, expected.payload.view()) << where;
                EXPECT_EQ(segment.payloadLength, expected.payload.size()) << where;
                EXPECT_EQ(segment.payloadAddress, 1'000 + (segment.payload.data() - written[i].frame.data())) << where;
            }
            EXPECT_EQ(decoder.notes().damagedPackets, 0) << name;
        }
    }
}

TEST(PacketDecoder, FindsTheSegmentInNests)
{
    const Data segment = tcp(hello), packet = ipv4(6, segment);
    struct Case {
        const char* name;
        std::uint32_t linkType;
        Data frame;
    };
    const Case cases[] = {
        {"old QinQ", 1, ethernet(0x9100, tagged(0x8100, tagged(0x0800, packet)))},
        {"802.3 with SNAP", 1, ethernet(8 + static_cast<int>(packet.size()), joined({hex("aaaa03 000000 0800"), packet, hex("00000000")}))},
        {"Linux cooked with a VLAN tag", 113, joined({hex("0000 0001 0006 020000000001 0000 8100"), tagged(0x0800, packet)})},
        {"raw IP of BSD", 12, packet},
        {"raw IP of OpenBSD", 14, ipv6(6, segment)},
        {"loopback of FreeBSD", 0, joined({hex("1c000000"), ipv6(6, segment)})},
        {"loopback of NetBSD", 0, joined({hex("00000018"), ipv6(6, segment)})},
        {"loopback of macOS", 108, joined({hex("0000001e"), ipv6(6, segment)})},
        {"loopback of Linux", 0, joined({hex("0a000000"), ipv6(6, segment)})},
        {"PPP over a serial line", 50, joined({hex("ff03 0021"), packet})},
        {"PPP with a protocol of one byte", 9, joined({hex("21"), packet})},
        {"Cisco's HDLC", 50, joined({hex("0f00 0800"), packet})},
        {"MPLS within PPP", 9, joined({hex("0281 00010140"), packet})},
        {"IPv4 in IPv4", 101, ipv4(4, packet)},
        {"IPv6 in IPv4", 101, ipv4(41, ipv6(6, segment))},
        {"IPv4 in IPv6", 101, ipv6(4, packet)},
        {"IPv6 in IPv6", 101, ipv6(41, ipv6(6, segment))},
        {"authentication header in IPv4", 101, ipv4(51, joined({hex("06 04 0000 00000001 00000002 000102030405060708090a0b"), segment}))},
        {"authentication header in IPv6", 101, ipv6(51, joined({hex("06 04 0000 00000001 00000002 000102030405060708090a0b"), segment}))},
        {"routing and long options", 101,
         ipv6(43, joined({hex("3c 00 04 00 00000000"), hex("06 01 0104 00000000 0000000000000000"), segment}))},
        {"one fragment that is the whole", 101, ipv6(44, joined({hex("06 00 0000 00000009"), segment}))},
        {"GRE with checksum, key and sequence number", 101, ipv4(47, joined({hex("b000 0800 00000000 0000002a 00000001"), packet}))},
        {"GRE with source routes", 101, ipv4(47, joined({hex("4000 0800 00000000 0800 00 04 c0000201 0000 0000"), packet}))},
        {"GRE with Ethernet inside", 101, ipv4(47, joined({hex("2000 6558 0000002a"), ethernet(0x8100, tagged(0x0800, packet))}))},
        {"GRE of PPTP", 101, ipv4(47, joined({hex("3081 880b"), u16(4 + packet.size()), hex("0001 00000001 00000002 ff03 0021"), packet}))},
        {"MPLS in GRE", 101, ipv6(47, joined({hex("0000 8847 00010140"), packet}))},
        {"VXLAN in IPv6", 1, ethernet(0x86dd, ipv6(17, vxlan(ethernet(0x0800, packet))))},
        {"tunnels in tunnels", 1,
         ethernet(0x0800, ipv4(17, vxlan(ethernet(0x86dd, ipv6(47, joined({hex("0000 0800"), ipv4(4, packet)}))))))},
    };
    PacketDecoder decoder;
    for (const auto& [name, linkType, frame] : cases) {
        TCPPacket found;
        ASSERT_TRUE(decoder.decode(packetOf(frame, linkType), found)) << name;
        EXPECT_EQ(found.payload, hello.view()) << name;
        EXPECT_EQ(found.source.port, 50'000) << name;
        EXPECT_EQ(found.destination.port, 443) << name;
        // The addresses are those of the innermost IP header.
        EXPECT_EQ(found.source.text(), found.source.isIPv6 ? "[2001:db8::1]:50000" : "192.0.2.1:50000") << name;
    }
    EXPECT_EQ(decoder.notes().damagedPackets, 0);
    EXPECT_TRUE(decoder.notes().unknownLinkTypes.empty());
}

TEST(PacketDecoder, TellsDamageFromOtherProtocols)
{
    const Data segment = tcp(hello);
    const auto changed = [](const Data& bytes, std::size_t at, std::uint8_t value) {
        std::vector<std::uint8_t> copy(bytes.view().begin(), bytes.view().end());
        copy[at] = value;
        return Data(std::move(copy));
    };
    struct Case {
        const char* name;
        std::uint32_t linkType;
        Data frame;
        bool isDamaged;
    };
    const Case cases[] = {
        {"ARP", 1, ethernet(0x0806, patternBytes(28)), false},
        {"a spanning tree", 1, ethernet(38, joined({hex("424203"), patternBytes(43)})), false},
        {"UDP", 101, ipv4(17, udp(53, patternBytes(20))), false},
        {"UDP with nothing behind its header", 101, ipv4(17, udp(4'789, {})), false},
        {"ICMP", 101, ipv4(1, patternBytes(20)), false},
        {"ESP", 101, ipv6(50, patternBytes(20)), false},
        {"no next header", 101, ipv6(59, patternBytes(20)), false},
        {"PPPoE discovery", 1, ethernet(0x8864, hex("11 09 0000 0004 01010000")), false},
        {"PPP's link control", 9, hex("ff03 c021 0101 0004"), false},
        {"MPLS around something else", 1, ethernet(0x8847, hex("00010140 00000000 00000000")), false},
        {"loopback of another family", 0, hex("07000000 00000000"), false},
        {"an empty frame", 1, {}, true},
        {"half an Ethernet header", 1, hex("020000000001 0200"), true},
        {"half a VLAN tag", 1, ethernet(0x8100, hex("002a")), true},
        {"labels without end", 1, ethernet(0x8847, hex("00010000 00010000")), true},
        {"half an IPv4 header", 101, ipv4(6, segment).sub(0, 19), true},
        {"an IPv4 header of 16 bytes", 101, changed(ipv4(6, segment), 0, 0x44), true},
        {"version 5", 101, changed(ipv4(6, segment), 0, 0x55), true},
        {"version 6 where 4 was said", 228, ipv6(6, segment), true},
        {"an IPv4 length within the header", 101, changed(ipv4(6, segment), 3, 19), true},
        {"half an IPv6 header", 101, ipv6(6, segment).sub(0, 39), true},
        {"an extension header beyond the end", 101, ipv6(0, joined({hex("06 ff 0104 00000000"), segment})), true},
        {"half a TCP header", 101, ipv4(6, segment.sub(0, 19)), true},
        {"a TCP header of 16 bytes", 101, changed(ipv4(6, segment), 32, 0x40), true},
        {"a TCP header beyond the end", 101, changed(ipv4(6, segment), 32, 0xf0), true},
        {"half a GRE header", 101, ipv4(47, hex("0000 08")), true},
        {"source routes without end", 101, ipv4(47, hex("4000 0800 00000000 0800 00 04 c0000201")), true},
        {"a fragment without bytes", 101, ipv4(6, {}, 0x2000), true},
        {"a fragment beyond 65535 bytes", 101, ipv4(6, patternBytes(8), 0x1fff), true},
    };
    for (const auto& [name, linkType, frame, isDamaged] : cases) {
        PacketDecoder decoder;
        TCPPacket found;
        EXPECT_FALSE(decoder.decode(packetOf(frame, linkType), found)) << name;
        EXPECT_EQ(decoder.notes().damagedPackets, isDamaged ? 1 : 0) << name;
        // What the snapshot length cut is not damaged.
        PacketDecoder lenient;
        if (frame.size() < 16) lenient.decode(packetOf(frame, linkType, 10'000), found);
        EXPECT_EQ(lenient.notes().damagedPackets, 0) << name;
    }

    PacketDecoder decoder;
    TCPPacket found;
    for (const std::uint32_t linkType : {147u, 105u, 147u}) EXPECT_FALSE(decoder.decode(packetOf(segment, linkType), found));
    EXPECT_EQ(decoder.notes().unknownLinkTypes, (std::map<std::uint32_t, std::int64_t>{{105, 1}, {147, 2}}));
}

TEST(PacketDecoder, GivesWhatTheSnapshotLengthLeft)
{
    const Data payload = patternBytes(100);
    for (const Data& whole : {ethernet(0x0800, ipv4(6, tcp(payload))), ethernet(0x86dd, ipv6(6, tcp(payload)))}) {
        const std::int64_t headers = whole.size() - payload.size();
        for (std::int64_t captured = 0; captured <= whole.size(); ++captured) {
            PacketDecoder decoder;
            TCPPacket found;
            EXPECT_EQ(decoder.decode(packetOf(whole.sub(0, captured), 1, whole.size()), found), captured >= headers) << captured;
            EXPECT_EQ(decoder.notes().damagedPackets, 0) << captured;
            if (captured < headers) continue;
            EXPECT_EQ(found.payload, payload.view().sub(0, captured - headers)) << captured;
            EXPECT_EQ(found.payloadLength, payload.size()) << captured;
        }
    }
    // Cut within the TCP options: no payload was captured, but its length is known.
    const Data optioned = ipv4(6, joined({hex("c350 01bb 00000001 00000002 80 18 0100 0000 0000 0101080a0000000100000002"), payload}));
    PacketDecoder decoder;
    TCPPacket found;
    ASSERT_TRUE(decoder.decode(packetOf(optioned.sub(0, 44), 101, optioned.size()), found));
    EXPECT_TRUE(found.payload.isEmpty());
    EXPECT_EQ(found.payloadLength, 100);
}

TEST(PacketDecoder, FollowsTunnelsToALimit)
{
    const auto nested = [](int depth) {
        Data packet = ipv4(6, tcp(hello));
        for (int i = 0; i < depth; ++i) packet = ipv4(4, packet);
        return packet;
    };
    PacketDecoder decoder;
    TCPPacket found;
    EXPECT_TRUE(decoder.decode(packetOf(nested(8), 101), found));
    EXPECT_FALSE(decoder.decode(packetOf(nested(9), 101), found));
    EXPECT_FALSE(decoder.decode(packetOf(nested(1'000), 101), found));
}

TEST(PacketDecoder, PutsFragmentsTogetherInAnyOrder)
{
    std::mt19937 random(1);
    for (const bool isIPv6 : {false, true}) {
        for (const auto tunnel : {PacketPath::Tunnel::none, PacketPath::Tunnel::gre, PacketPath::Tunnel::vxlan}) {
            TCPConversation conversation =
                isIPv6 ? TCPConversation({.client = endpoint("2001:db8::1", 1), .server = endpoint("2001:db8::2", 2)}) : TCPConversation();
            const Data payload = patternBytes(1'448);
            conversation.send(Direction::clientToServer, payload);
            conversation.segments.resize(1);
            conversation.segments[0].fragmentLength = 104;
            std::vector<CapturePacket> fragments = packets(conversation.segments, {.tunnel = tunnel});
            ASSERT_GT(fragments.size(), 10u);
            for (int round = 0; round < 20; ++round) {
                PacketDecoder decoder;
                TCPPacket found;
                // Every fragment but the last to come twice, and the whole datagram once.
                std::ranges::shuffle(fragments, random);
                for (std::size_t i = 0; i + 1 < fragments.size(); ++i) {
                    EXPECT_FALSE(decoder.decode(packetOf(fragments[i].frame), found));
                    EXPECT_FALSE(decoder.decode(packetOf(fragments[i].frame), found));
                }
                EXPECT_EQ(decoder.notes().incompleteDatagrams, 1);
                ASSERT_TRUE(decoder.decode(packetOf(fragments.back().frame), found));
                EXPECT_EQ(found.payload, payload.view());
                EXPECT_EQ(found.payloadLength, payload.size());
                EXPECT_EQ(found.source, conversation.segments[0].source);
                EXPECT_EQ(decoder.notes().incompleteDatagrams, 0);
                EXPECT_EQ(decoder.notes().damagedPackets, 0);
            }
        }
    }
}

TEST(PacketDecoder, KeepsTheFirstCopyOfOverlappingFragments)
{
    const Data payload = patternBytes(44);
    const Data datagram = tcp(payload);  // 64 bytes
    struct Piece {
        std::int64_t offset, end;
        bool isWrong;
    };
    struct Case {
        const char* name;
        std::vector<Piece> pieces;
    };
    const Case cases[] = {
        {"a later copy of a middle", {{0, 24, false}, {16, 40, true}, {16, 64, false}}},
        {"a wrong copy inside a right one", {{0, 56, false}, {8, 16, true}, {56, 64, false}}},
        {"a wrong last one that is too late", {{40, 64, false}, {0, 24, false}, {16, 64, true}}},
        {"bytes behind the end", {{0, 32, false}, {64, 96, true}, {32, 64, false}}},
    };
    for (const auto& [name, pieces] : cases) {
        PacketDecoder decoder;
        TCPPacket found;
        std::vector<std::uint8_t> expected(datagram.view().begin(), datagram.view().end());
        std::vector<bool> taken(expected.size());
        bool isFound = false;
        for (const auto& [offset, end, isWrong] : pieces) {
            Data bytes = isWrong ? patternBytes(end - offset, 9) : datagram.sub(offset, end - offset);
            for (std::int64_t at = offset; at < std::min(end, datagram.size()); ++at) {
                const auto index = static_cast<std::size_t>(at);
                if (!taken[index]) expected[index] = bytes[at - offset];
                taken[index] = true;
            }
            const bool isLast = end == datagram.size();
            isFound = decoder.decode(packetOf(ipv4(6, bytes, static_cast<int>((isLast ? 0 : 0x2000) | offset / 8)), 101), found);
        }
        ASSERT_TRUE(isFound) << name;
        EXPECT_EQ(found.payload, DataView(expected).from(20)) << name;
    }
}

TEST(PacketDecoder, TellsDatagramsApart)
{
    const Data datagram = tcp(patternBytes(100));
    const Data first = ipv4(6, datagram.sub(0, 64), 0x2000, 1), rest = ipv4(6, datagram.sub(64, 56), 8, 1);
    const auto after = [](const Data& frame, std::int64_t seconds) {
        CapturedPacket packet = packetOf(frame, 101);
        packet.time.seconds = seconds;
        return packet;
    };
    TCPPacket found;
    struct Case {
        const char* name;
        CapturedPacket second;
        bool isFound;
        std::int64_t incomplete;
    };
    const Data otherNumber = ipv4(6, datagram.sub(64, 56), 8, 2), otherProtocol = ipv4(4, datagram.sub(64, 56), 8, 1);
    const Case cases[] = {
        {"the same", after(rest, 10), true, 0},
        {"another number", after(otherNumber, 10), false, 2},
        {"another protocol", after(otherProtocol, 10), false, 2},
        {"long after", after(rest, 71), false, 2},
        {"before", after(rest, -5), true, 0},
    };
    for (const auto& [name, second, isFound, incomplete] : cases) {
        PacketDecoder decoder;
        EXPECT_FALSE(decoder.decode(after(first, 0), found)) << name;
        EXPECT_EQ(decoder.decode(second, found), isFound) << name;
        EXPECT_EQ(decoder.notes().incompleteDatagrams, incomplete) << name;
    }
}

TEST(PacketDecoder, GivesWhatTheSnapshotLengthLeftOfADatagram)
{
    const Data payload = patternBytes(400);
    const Data datagram = tcp(payload);  // 420 bytes
    const Data first = ipv4(6, datagram.sub(0, 200), 0x2000), second = ipv4(6, datagram.sub(200, 220), 25);
    PacketDecoder decoder;
    TCPPacket found;
    EXPECT_FALSE(decoder.decode(packetOf(second.sub(0, 120), 101, second.size()), found));
    ASSERT_TRUE(decoder.decode(packetOf(first.sub(0, 120), 101, first.size()), found));
    EXPECT_EQ(found.payload, payload.view().sub(0, 80));
    EXPECT_EQ(found.payloadLength, 400);
}

TEST(PacketDecoder, BoundsWhatItWaitsFor)
{
    // Datagrams that never become whole, each with a byte at its far end.
    PacketDecoder decoder;
    TCPPacket found;
    const auto fragment = [](int identification) { return ipv4(6, patternBytes(8), 0x2000 | 8'000, identification); };
    for (int i = 0; i < 20'000; ++i) EXPECT_FALSE(decoder.decode(packetOf(fragment(i), 101), found));
    EXPECT_EQ(decoder.notes().incompleteDatagrams, 20'000);
    // It goes on with whole ones.
    const Data datagram = tcp(patternBytes(44));
    EXPECT_FALSE(decoder.decode(packetOf(ipv4(6, datagram.sub(32, 32), 4, 7), 101), found));
    EXPECT_TRUE(decoder.decode(packetOf(ipv4(6, datagram.sub(0, 32), 0x2000, 7), 101), found));
}

TEST(PacketDecoder, KeepsDatagramsInTheCapture)
{
    TCPConversation conversation;
    const Data payload = patternBytes(5'000);
    conversation.send(Direction::clientToServer, payload);
    for (PlannedSegment& segment : conversation.segments) segment.fragmentLength = 400;
    const TempDirectory directory;
    auto capture = Capture::open({directory.write("capture", pcapFile(packets(conversation.segments)))}, {.randomAccess = true});
    ASSERT_TRUE(capture);
    PacketDecoder decoder(capture->get());
    std::vector<std::pair<CaptureAddress, std::int64_t>> pieces;
    CapturedPacket packet;
    TCPPacket segment;
    while ((*capture)->next(packet))
        if (decoder.decode(packet, segment) && segment.payloadLength > 0)
            pieces.emplace_back(segment.payloadAddress, segment.payloadLength);
    std::vector<std::uint8_t> bytes;
    for (const auto& [address, length] : pieces) {
        const DataView part = (*capture)->bytes(address, length);
        bytes.insert(bytes.end(), part.begin(), part.end());
    }
    EXPECT_EQ(DataView(bytes), payload.view());
}

}  // namespace
}  // namespace sealscope
