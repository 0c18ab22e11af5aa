// SPDX-License-Identifier: Apache-2.0
#include "harness/PacketPath.h"

#include <algorithm>
#include <cstring>

namespace sealscope {

namespace {

using Bytes = std::vector<std::uint8_t>;
using Link = PacketPath::Link;
using Tunnel = PacketPath::Tunnel;
using Endpoint = TCPStreamKey::Endpoint;

constexpr std::uint8_t protocolTCP = 6, protocolUDP = 17, protocolGRE = 47, protocolIPv4 = 4, protocolIPv6 = 41;
constexpr std::uint8_t hopByHopOptions = 0, fragmentHeader = 44, destinationOptions = 60;
constexpr std::int64_t minimumEthernetFrame = 60;  // without the frame check sequence
constexpr std::int64_t ipv6ExtensionLength = 8;
constexpr std::int64_t tcpHeaderLength = 20;

void put8(Bytes& bytes, std::int64_t value) { bytes.push_back(static_cast<std::uint8_t>(value)); }
void put16(Bytes& bytes, std::int64_t value)
{
    put8(bytes, value >> 8);
    put8(bytes, value);
}
void put32(Bytes& bytes, std::int64_t value)
{
    put16(bytes, value >> 16);
    put16(bytes, value);
}
void put(Bytes& bytes, DataView view) { bytes.insert(bytes.end(), view.begin(), view.end()); }
void put(Bytes& bytes, std::initializer_list<std::uint8_t> list) { bytes.insert(bytes.end(), list); }

void set16(Bytes& bytes, std::size_t at, std::int64_t value)
{
    bytes[at] = static_cast<std::uint8_t>(value >> 8);
    bytes[at + 1] = static_cast<std::uint8_t>(value);
}

DataView address(const Endpoint& endpoint) { return {endpoint.address.data(), endpoint.isIPv6 ? 16 : 4}; }

// One's complement sums do not depend on the order of bytes in a word (RFC 1071 §2): whole words are added as this machine
// reads them, and only the result is put in network order.
std::uint64_t sum(DataView bytes)
{
    std::uint64_t total = 0;
    std::int64_t at = 0;
    for (; at + 4 <= bytes.size(); at += 4) {
        std::uint32_t word;
        std::memcpy(&word, bytes.data() + at, 4);
        total += word;
    }
    std::uint8_t rest[4] = {};
    std::memcpy(rest, bytes.data() + at, static_cast<std::size_t>(bytes.size() - at));
    std::uint32_t word;
    std::memcpy(&word, rest, 4);
    return total + word;
}

std::uint16_t folded(std::uint64_t total)
{
    while (total > 0xFFFF) total = (total & 0xFFFF) + (total >> 16);
    const auto word = static_cast<std::uint16_t>(total);
    std::uint8_t bytes[2];
    std::memcpy(bytes, &word, 2);
    return static_cast<std::uint16_t>(bytes[0] << 8 | bytes[1]);
}

/// Where a piece of a datagram belongs.
struct Fragment {
    std::int64_t offset = 0;
    bool hasMore = false;
    bool isFragment() const { return offset != 0 || hasMore; }
};

std::uint32_t identification(const PlannedSegment& segment)
{
    const std::uint64_t mixed =
        (static_cast<std::uint64_t>(segment.time) ^ segment.sequenceNumber ^ segment.source.port) * 0x9E3779B97F4A7C15;
    return static_cast<std::uint32_t>(mixed >> 32);
}

void putIPv4(Bytes& bytes, DataView source, DataView destination, std::uint8_t protocol, std::int64_t payloadLength, std::uint32_t id,
             Fragment fragment, DataView options, const PacketPath& path)
{
    const std::size_t start = bytes.size();
    const std::int64_t headerLength = 20 + options.size();
    constexpr std::int64_t dontFragment = 0x4000, moreFragments = 0x2000;
    put8(bytes, 0x40 | headerLength / 4);
    put8(bytes, 0);
    put16(bytes, path.leavesIPLengthZero ? 0 : headerLength + payloadLength);
    put16(bytes, id);
    put16(bytes, fragment.isFragment() ? (fragment.hasMore ? moreFragments : 0) | fragment.offset / 8 : dontFragment);
    put(bytes, {64, protocol, 0, 0});
    put(bytes, source);
    put(bytes, destination);
    put(bytes, options);
    if (path.leavesChecksums) return;
    set16(bytes, start + 10, static_cast<std::uint16_t>(~folded(sum({bytes.data() + start, headerLength}))));
}

void putIPv6(Bytes& bytes, const PlannedSegment& segment, std::int64_t payloadLength, Fragment fragment, const PacketPath& path)
{
    std::vector<std::uint8_t> chain;  // types of the headers that follow
    if (path.usesIPv6Extensions) chain = {hopByHopOptions, destinationOptions};
    if (fragment.isFragment()) chain.push_back(fragmentHeader);
    chain.push_back(protocolTCP);
    const std::int64_t extensions = ipv6ExtensionLength * static_cast<std::int64_t>(chain.size() - 1);
    put32(bytes, 0x6'00'00000);
    put16(bytes, path.leavesIPLengthZero ? 0 : extensions + payloadLength);
    put(bytes, {chain[0], 64});
    put(bytes, address(segment.source));
    put(bytes, address(segment.destination));
    for (std::size_t at = 0; at + 1 < chain.size(); ++at) {
        put(bytes, {chain[at + 1], 0});
        if (chain[at] == fragmentHeader) {
            put16(bytes, fragment.offset | (fragment.hasMore ? 1 : 0));
            put32(bytes, identification(segment));
        } else {
            put(bytes, {1, 4, 0, 0, 0, 0});  // PadN over the rest of the eight bytes (RFC 8200 §4.2)
        }
    }
}

void putEthernet(Bytes& bytes, TCPSegment::Direction direction)
{
    const bool isClient = direction == TCPSegment::Direction::clientToServer;
    const std::uint8_t from = isClient ? 1 : 2;
    put(bytes, {2, 0, 0, 0, 0, static_cast<std::uint8_t>(3 - from), 2, 0, 0, 0, 0, from});
}

/// The EtherType of what follows, with the tags before it.
void putEtherType(Bytes& bytes, const PacketPath& path, std::int64_t etherType)
{
    for (std::size_t at = 0; at < path.vlans.size(); ++at) {
        put16(bytes, at + 1 < path.vlans.size() ? 0x88A8 : 0x8100);
        put16(bytes, path.vlans[at]);
    }
    put16(bytes, path.mplsLabels.empty() ? etherType : 0x8847);
    for (std::size_t at = 0; at < path.mplsLabels.size(); ++at)
        put32(bytes, static_cast<std::int64_t>(path.mplsLabels[at]) << 12 | (at + 1 == path.mplsLabels.size() ? 0x100 : 0) | 64);
}

std::int64_t etherTypeOf(IPVersion version) { return version == IPVersion::v6 ? 0x86DD : 0x0800; }

IPVersion versionOf(const Endpoint& endpoint) { return endpoint.isIPv6 ? IPVersion::v6 : IPVersion::v4; }

/// Everything that stands before the outermost IP header.
void putLink(Bytes& bytes, const PacketPath& path, TCPSegment::Direction direction, IPVersion version, std::int64_t ipLength)
{
    const bool isIPv6 = version == IPVersion::v6;
    const bool isClient = direction == TCPSegment::Direction::clientToServer;
    const std::int64_t etherType = etherTypeOf(version);
    const std::int64_t pppProtocol = isIPv6 ? 0x0057 : 0x0021;
    const std::uint8_t family = isIPv6 ? (path.link == Link::openBSDLoopback ? 24 : 30) : 2;
    switch (path.link) {
    case Link::ethernet:
        putEthernet(bytes, direction);
        putEtherType(bytes, path, etherType);
        return;
    case Link::pppoe:
        putEthernet(bytes, direction);
        putEtherType(bytes, path, 0x8864);
        put(bytes, {0x11, 0, 0, 1});
        put16(bytes, 2 + ipLength);
        put16(bytes, pppProtocol);
        return;
    case Link::linuxCooked:
        put16(bytes, isClient ? 4 : 0);
        put(bytes, {0, 1, 0, 6, 2, 0, 0, 0, 0, static_cast<std::uint8_t>(isClient ? 1 : 2), 0, 0});
        putEtherType(bytes, path, etherType);
        return;
    case Link::linuxCooked2: {
        // The protocol stands first, and the tags behind the header.
        Bytes types;
        putEtherType(types, path, etherType);
        put(bytes, {types[0], types[1], 0, 0, 0, 0, 0, 2, 0, 1, static_cast<std::uint8_t>(isClient ? 4 : 0), 6});
        put(bytes, {2, 0, 0, 0, 0, static_cast<std::uint8_t>(isClient ? 1 : 2), 0, 0});
        put(bytes, DataView(types).from(2));
        return;
    }
    case Link::rawIP:
    case Link::rawIPByFamily: return;
    case Link::bsdLoopback: put(bytes, {family, 0, 0, 0}); return;
    case Link::bsdLoopbackBigEndian:
    case Link::openBSDLoopback: put(bytes, {0, 0, 0, family}); return;
    case Link::pppWithHDLC: put(bytes, {0xFF, 0x03}); [[fallthrough]];
    case Link::ppp: put16(bytes, pppProtocol); return;
    }
}

/// All headers in front of `payloadLength` bytes of TCP, or of a fragment of it.
void putHeaders(Bytes& bytes, const PlannedSegment& segment, const PacketPath& path, std::int64_t payloadLength, Fragment fragment)
{
    const bool isIPv6 = segment.source.isIPv6;
    std::int64_t ipLength = payloadLength;
    if (isIPv6)
        ipLength += 40 + ipv6ExtensionLength * ((path.usesIPv6Extensions ? 2 : 0) + (fragment.isFragment() ? 1 : 0));
    else
        ipLength += 20 + path.ipv4Options.size();

    if (path.tunnel == Tunnel::none) {
        putLink(bytes, path, segment.direction, versionOf(segment.source), ipLength);
    } else {
        static constexpr std::uint8_t ends[2][4] = {{198, 51, 100, 1}, {198, 51, 100, 2}};
        const std::size_t from = segment.direction == TCPSegment::Direction::clientToServer ? 0 : 1;
        constexpr std::int64_t greLength = 4, udpLength = 8, vxlanLength = 8, ethernetLength = 14;
        std::int64_t outerPayload = ipLength;
        std::uint8_t protocol = isIPv6 ? protocolIPv6 : protocolIPv4;
        if (path.tunnel == Tunnel::gre) {
            outerPayload += greLength;
            protocol = protocolGRE;
        } else if (path.tunnel == Tunnel::vxlan) {
            outerPayload += udpLength + vxlanLength + ethernetLength;
            protocol = protocolUDP;
        }
        putLink(bytes, path, segment.direction, IPVersion::v4, 20 + outerPayload);
        putIPv4(bytes, {ends[from], 4}, {ends[1 - from], 4}, protocol, outerPayload, identification(segment) + 1, {}, {}, path);
        if (path.tunnel == Tunnel::gre) {
            put16(bytes, 0);
            put16(bytes, etherTypeOf(versionOf(segment.source)));
        } else if (path.tunnel == Tunnel::vxlan) {
            put16(bytes, 49'152 + from);
            put16(bytes, 4'789);
            put16(bytes, outerPayload);
            put16(bytes, 0);  // no checksum (RFC 7348 §5)
            put(bytes, {8, 0, 0, 0, 0, 0, 42, 0});
            putEthernet(bytes, segment.direction);
            put16(bytes, etherTypeOf(versionOf(segment.source)));
        }
    }
    if (isIPv6)
        putIPv6(bytes, segment, payloadLength, fragment, path);
    else
        putIPv4(bytes, address(segment.source), address(segment.destination), protocolTCP, payloadLength, identification(segment), fragment,
                path.ipv4Options, path);
}

void putTCP(Bytes& bytes, const PlannedSegment& segment, const PacketPath& path)
{
    const std::size_t start = bytes.size();
    const std::int64_t headerLength = tcpHeaderLength + path.tcpOptions.size();
    put16(bytes, segment.source.port);
    put16(bytes, segment.destination.port);
    put32(bytes, segment.sequenceNumber);
    put32(bytes, segment.acknowledgmentNumber);
    put8(bytes, headerLength / 4 << 4);
    put8(bytes, segment.flags);
    put16(bytes, segment.window);
    put16(bytes, 0);
    put16(bytes, segment.urgentPointer);
    put(bytes, path.tcpOptions);
    put(bytes, segment.payload);

    const std::int64_t length = headerLength + segment.payload.size();
    const std::uint8_t pseudoHeader[] = {0, protocolTCP, static_cast<std::uint8_t>(length >> 8), static_cast<std::uint8_t>(length)};
    const std::uint64_t pseudo =
        sum(address(segment.source)) + sum(address(segment.destination)) + sum({pseudoHeader, sizeof pseudoHeader});
    // With checksum offload the driver leaves the sum of the pseudo header for the hardware to go on with.
    set16(bytes, start + 16,
          path.leavesChecksums ? folded(pseudo) : static_cast<std::uint16_t>(~folded(pseudo + sum({bytes.data() + start, length}))));
}

void padFrame(Bytes& bytes, std::size_t start, const PacketPath& path)
{
    const bool isEthernet = path.link == Link::ethernet || path.link == Link::pppoe;
    if (isEthernet && path.padsToMinimum) bytes.resize(std::max(bytes.size(), start + minimumEthernetFrame));
}

}  // namespace

std::uint32_t linkType(const PacketPath& path, IPVersion version)
{
    switch (path.link) {
    case Link::ethernet:
    case Link::pppoe: return 1;
    case Link::linuxCooked: return 113;
    case Link::linuxCooked2: return 276;
    case Link::rawIP: return 101;
    case Link::rawIPByFamily: return version == IPVersion::v6 && path.tunnel == Tunnel::none ? 229 : 228;
    case Link::bsdLoopback:
    case Link::bsdLoopbackBigEndian: return 0;
    case Link::openBSDLoopback: return 108;
    case Link::ppp:
    case Link::pppWithHDLC: return 9;
    }
    return 1;
}

void appendFrame(const PlannedSegment& segment, const PacketPath& path, Bytes& bytes)
{
    const std::size_t start = bytes.size();
    putHeaders(bytes, segment, path, tcpHeaderLength + path.tcpOptions.size() + segment.payload.size(), {});
    putTCP(bytes, segment, path);
    padFrame(bytes, start, path);
}

std::vector<CapturePacket> packets(const std::vector<PlannedSegment>& segments, const PacketPath& path)
{
    std::vector<CapturePacket> result;
    for (const PlannedSegment& segment : segments) {
        const auto keep = [&](Bytes&& frame) {
            const auto length = static_cast<std::int64_t>(frame.size());
            if (segment.snapLength > 0 && length > segment.snapLength) frame.resize(static_cast<std::size_t>(segment.snapLength));
            result.push_back({segment.time, Data(std::move(frame)), length, linkType(path, versionOf(segment.source))});
        };
        Bytes tcp;
        if (segment.fragmentLength > 0) putTCP(tcp, segment, path);
        if (static_cast<std::int64_t>(tcp.size()) <= segment.fragmentLength) {
            Bytes frame;
            appendFrame(segment, path, frame);
            keep(std::move(frame));
            continue;
        }
        const DataView datagram = tcp;
        for (std::int64_t at = 0; at < datagram.size(); at += segment.fragmentLength) {
            const DataView piece = datagram.sub(at, segment.fragmentLength);
            Bytes frame;
            putHeaders(frame, segment, path, piece.size(), {at, at + piece.size() < datagram.size()});
            put(frame, piece);
            padFrame(frame, 0, path);
            keep(std::move(frame));
        }
    }
    return result;
}

}  // namespace sealscope
