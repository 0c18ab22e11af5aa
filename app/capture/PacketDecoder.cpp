// SPDX-License-Identifier: Apache-2.0
//
// A packet is a nest of layers, each of which names what it carries. A layer here is a stretch of bytes that ends where its
// carrier says it ends, so padding and check sequences behind an inner packet never reach it. Each `decode…` function takes
// its header off the front and goes on with what is left.
//
// Three things can be wrong with a header. It is cut off by the snapshot length: then there is nothing to be had, and nothing
// to complain of. It contradicts itself or the bytes that are there: that is damage, and counted. Or it is simply of a
// protocol that carries no TCP.
#include "app/capture/PacketDecoder.h"

#include "app/capture/ByteOrder.h"
#include "app/capture/Capture.h"
#include "app/capture/FragmentAssembler.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

namespace sealscope {
namespace {

/// Tunnels within tunnels that are followed.
constexpr int deepestTunnel = 8;

namespace LinkType {
constexpr std::uint32_t bsdNull = 0, ethernet = 1, ppp = 9, rawBSD = 12, rawOpenBSD = 14, pppHDLC = 50, pppoe = 51, raw = 101,
                        ciscoHDLC = 104, bsdLoop = 108, linuxCooked = 113, rawIPv4 = 228, rawIPv6 = 229, linuxCooked2 = 276;
}

namespace EtherType {
constexpr std::uint16_t ipv4 = 0x0800, transparentEthernet = 0x6558, vlan = 0x8100, ipv6 = 0x86dd, mpls = 0x8847, mplsUpstream = 0x8848,
                        pppoeSession = 0x8864, pppInGRE = 0x880b, providerBridging = 0x88a8, oldQinQ = 0x9100, oldQinQ2 = 0x9200,
                        oldQinQ3 = 0x9300;
// Smaller numbers are lengths of an 802.3 frame's data.
constexpr std::uint16_t least = 0x0600;
}  // namespace EtherType

namespace PPPProtocol {
constexpr std::uint16_t ipv4 = 0x0021, ipv6 = 0x0057, mpls = 0x0281;
}

namespace IPProtocol {
constexpr std::uint8_t hopByHop = 0, ipv4 = 4, tcp = 6, udp = 17, ipv6 = 41, routing = 43, fragment = 44, gre = 47, authentication = 51,
                       destinationOptions = 60, mobility = 135, hostIdentity = 139, shim6 = 140;
}

constexpr std::uint16_t vxlanPort = 4'789;
constexpr std::int32_t tcpHeaderLength = 20, udpHeaderLength = 8, vxlanHeaderLength = 8;
constexpr std::int64_t longestDatagram = 65'535;

/// The bytes of one layer. Small enough to be passed in two registers: through memory, layers cost more than all that is done
/// with them. No packet is longer than 32 bits can say.
struct Layer {
    const std::uint8_t* at = nullptr;
    std::int32_t size = 0;    ///< captured
    std::int32_t length = 0;  ///< on the wire
    bool has(std::int32_t count) const { return size >= count; }
    std::uint16_t u16(std::int32_t offset) const { return networkOrder.u16(at + offset); }
    std::uint32_t u32(std::int32_t offset) const { return networkOrder.u32(at + offset); }
    DataView bytes() const { return {at, size}; }
    /// What follows a header. A header may be longer than what was captured of it.
    Layer behind(std::int32_t header) const
    {
        const std::int32_t taken = std::min(header, size);
        return {at + taken, size - taken, length - header};
    }
    /// The layer without what lies behind its first `count` bytes.
    Layer upTo(std::int32_t count) const { return {at, std::min(size, count), count}; }
};
static_assert(sizeof(Layer) == 16);

/// The addresses that an IP header gives.
struct Network {
    const std::uint8_t* addresses = nullptr;  ///< the source's, and right behind it the destination's
    bool isIPv6 = false;
    const std::uint8_t* source() const { return addresses; }
    const std::uint8_t* destination() const { return addresses + (isIPv6 ? 16 : 4); }
};

enum class IPVersion : std::uint8_t { v4, v6 };

/// All of an address in one store: read again as a whole soon after, it would have to wait for several small ones.
void storeAddress(std::array<std::uint8_t, 16>& target, const std::uint8_t* address, IPVersion version)
{
    using Words = std::uint32_t __attribute__((vector_size(16)));
    Words words = {};
    if (version == IPVersion::v6)
        std::memcpy(&words, address, 16);
    else
        std::memcpy(&words, address, 4);
    std::memcpy(target.data(), &words, 16);
}

}  // namespace

// What is written for each packet shares no line of the caches with another thread's.
class alignas(64) PacketDecoder::Implementation {
public:
    explicit Implementation(Capture* keepIn) : keepIn_(keepIn) {}
    explicit Implementation(WithoutFragments) : leavesFragments_(true) {}

    bool decode(const CapturedPacket& packet, TCPPacket& segment)
    {
        packet_ = &packet;
        segment_ = &segment;
        tunnels_ = 0;
        hasLeftFragment_ = false;
        if (!reassembled_.empty()) [[unlikely]]
            reassembled_.clear();
        constexpr std::int64_t most = 1 << 30;
        return decodeLink({packet.frame.data(), static_cast<std::int32_t>(std::min(packet.frame.size(), most)),
                           static_cast<std::int32_t>(std::min(packet.originalLength, most))});
    }

    bool hasLeftFragment() const { return hasLeftFragment_; }
    void forgetNotes() { notes_ = {}; }
    const DecoderNotes& notes() const
    {
        notes_.incompleteDatagrams = fragments_.incompleteCount();
        return notes_;
    }

private:
    /// A header needs more bytes than there are.
    bool tooShort(Layer layer)
    {
        if (layer.size >= layer.length) ++notes_.damagedPackets;
        return false;
    }
    bool damaged()
    {
        ++notes_.damagedPackets;
        return false;
    }
    /// Counts a tunnel, or a datagram put together; false when they are too many.
    bool enterTunnel() { return ++tunnels_ <= deepestTunnel; }

    bool decodeLink(Layer layer);
    bool decodeEthernet(Layer layer);
    bool decodeEtherType(std::uint16_t type, Layer layer);
    bool decodeLLC(Layer layer);
    bool decodeLinuxCooked(Layer layer);
    bool decodeLinuxCooked2(Layer layer);
    bool decodeLoopback(Layer layer);
    bool decodeHDLC(Layer layer);
    bool decodePPPoE(Layer layer);
    bool decodePPP(Layer layer);
    bool decodeMPLS(Layer layer);
    bool decodeEitherIP(Layer layer);
    bool decodeIPv4(Layer layer);
    bool decodeIPv6(Layer layer);
    bool decodeFragment(Network network, std::uint32_t identification, std::uint8_t protocol, Fragment fragment, Layer payload);
    bool decodeIPPayload(Network network, std::uint8_t protocol, Layer layer);
    bool decodeTCP(Network network, Layer layer);
    bool decodeUDP(Layer layer);
    bool decodeGRE(Layer layer);

    Capture* keepIn_ = nullptr;
    bool leavesFragments_ = false;
    bool hasLeftFragment_ = false;
    mutable DecoderNotes notes_;
    FragmentAssembler fragments_;
    std::vector<std::vector<std::uint8_t>> reassembled_;  // the datagrams around what is being decoded
    const CapturedPacket* packet_ = nullptr;
    TCPPacket* segment_ = nullptr;
    int tunnels_ = 0;
};

bool PacketDecoder::Implementation::decodeLink(Layer layer)
{
    switch (packet_->linkType) {
    case LinkType::ethernet: return decodeEthernet(layer);
    case LinkType::linuxCooked: return decodeLinuxCooked(layer);
    case LinkType::linuxCooked2: return decodeLinuxCooked2(layer);
    case LinkType::raw:
    case LinkType::rawBSD:
    case LinkType::rawOpenBSD: return decodeEitherIP(layer);
    case LinkType::rawIPv4: return decodeIPv4(layer);
    case LinkType::rawIPv6: return decodeIPv6(layer);
    case LinkType::bsdNull:
    case LinkType::bsdLoop: return decodeLoopback(layer);
    case LinkType::ppp:
    case LinkType::pppHDLC:
    case LinkType::ciscoHDLC: return decodeHDLC(layer);
    case LinkType::pppoe: return decodePPPoE(layer);
    default: ++notes_.unknownLinkTypes[packet_->linkType]; return false;
    }
}

bool PacketDecoder::Implementation::decodeEthernet(Layer layer)
{
    if (!layer.has(14)) return tooShort(layer);
    return decodeEtherType(layer.u16(12), layer.behind(14));
}

bool PacketDecoder::Implementation::decodeEtherType(std::uint16_t type, Layer layer)
{
    for (;;) {
        switch (type) {
        case EtherType::ipv4: return decodeIPv4(layer);
        case EtherType::ipv6: return decodeIPv6(layer);
        case EtherType::vlan:
        case EtherType::providerBridging:
        case EtherType::oldQinQ:
        case EtherType::oldQinQ2:
        case EtherType::oldQinQ3:
            // A tag is its priority and number (2) and the type of what follows (2) (IEEE 802.1Q).
            if (!layer.has(4)) return tooShort(layer);
            type = layer.u16(2);
            layer = layer.behind(4);
            continue;
        case EtherType::mpls:
        case EtherType::mplsUpstream: return decodeMPLS(layer);
        case EtherType::pppoeSession: return decodePPPoE(layer);
        default: return type < EtherType::least && decodeLLC(layer.upTo(std::min<std::int32_t>(type, layer.length)));
        }
    }
}

bool PacketDecoder::Implementation::decodeLLC(Layer layer)
{
    // Only the SNAP form carries an EtherType: AA AA 03, organisation 0 (RFC 1042).
    static constexpr std::uint8_t snap[] = {0xaa, 0xaa, 0x03, 0, 0, 0};
    if (!layer.has(8) || !std::equal(std::begin(snap), std::end(snap), layer.at)) return false;
    const std::uint16_t type = layer.u16(6);
    return type >= EtherType::least && decodeEtherType(type, layer.behind(8));
}

bool PacketDecoder::Implementation::decodeLinuxCooked(Layer layer)
{
    if (!layer.has(16)) return tooShort(layer);
    return decodeEtherType(layer.u16(14), layer.behind(16));
}

bool PacketDecoder::Implementation::decodeLinuxCooked2(Layer layer)
{
    if (!layer.has(20)) return tooShort(layer);
    return decodeEtherType(layer.u16(0), layer.behind(20));
}

bool PacketDecoder::Implementation::decodeLoopback(Layer layer)
{
    if (!layer.has(4)) return tooShort(layer);
    // The address family stands in the byte order of the machine that captured; small numbers tell which that was.
    std::uint32_t family = layer.u32(0);
    if (family > 0xffff) family = __builtin_bswap32(family);
    switch (family) {
    case 2: return decodeIPv4(layer.behind(4));
    case 10:  // Linux
    case 24:  // NetBSD, OpenBSD
    case 28:  // FreeBSD
    case 30:  // macOS
        return decodeIPv6(layer.behind(4));
    default: return false;
    }
}

bool PacketDecoder::Implementation::decodeHDLC(Layer layer)
{
    if (!layer.has(4)) return tooShort(layer);
    // Cisco's framing: address 0F or 8F, control 0, an EtherType.
    if ((layer.at[0] == 0x0f || layer.at[0] == 0x8f) && layer.at[1] == 0) return decodeEtherType(layer.u16(2), layer.behind(4));
    return decodePPP(layer);
}

bool PacketDecoder::Implementation::decodePPPoE(Layer layer)
{
    // Version and type (1), code (1), session (2), length (2) (RFC 2516 §4).
    if (!layer.has(6)) return tooShort(layer);
    if (layer.at[1] != 0) return false;  // discovery
    const std::int32_t length = layer.u16(4);
    layer = layer.behind(6);
    return decodePPP(length == 0 || length > layer.length ? layer : layer.upTo(length));
}

bool PacketDecoder::Implementation::decodePPP(Layer layer)
{
    // Address and control may be left out, and the protocol's first byte where it is 0: an odd byte ends it (RFC 1661 §2, §6.5).
    if (layer.has(2) && layer.at[0] == 0xff && layer.at[1] == 0x03) layer = layer.behind(2);
    if (!layer.has(2)) return tooShort(layer);
    const bool isShort = layer.at[0] & 1;
    const std::uint16_t protocol = isShort ? layer.at[0] : layer.u16(0);
    layer = layer.behind(isShort ? 1 : 2);
    switch (protocol) {
    case PPPProtocol::ipv4: return decodeIPv4(layer);
    case PPPProtocol::ipv6: return decodeIPv6(layer);
    case PPPProtocol::mpls: return decodeMPLS(layer);
    default: return false;
    }
}

bool PacketDecoder::Implementation::decodeMPLS(Layer layer)
{
    // Labels of four bytes, the last one marked at the bottom of the stack (RFC 3032 §2.1). Nothing says what it carries but
    // its first four bits.
    bool isBottom = false;
    while (!isBottom) {
        if (!layer.has(4)) return tooShort(layer);
        isBottom = layer.at[2] & 1;
        layer = layer.behind(4);
    }
    if (!layer.has(1)) return tooShort(layer);
    const int version = layer.at[0] >> 4;
    return (version == 4 || version == 6) && decodeEitherIP(layer);
}

bool PacketDecoder::Implementation::decodeEitherIP(Layer layer)
{
    if (!layer.has(1)) return tooShort(layer);
    return layer.at[0] >> 4 == 6 ? decodeIPv6(layer) : decodeIPv4(layer);
}

bool PacketDecoder::Implementation::decodeIPv4(Layer layer)
{
    // RFC 791 §3.1.
    if (!layer.has(20)) return tooShort(layer);
    const std::int32_t headerLength = (layer.at[0] & 15) * 4;
    if (layer.at[0] >> 4 != 4 || headerLength < 20) return damaged();
    const std::int32_t announced = layer.u16(2);
    // Segmentation offload leaves the length to the network card: what was captured counts.
    const std::int32_t totalLength = announced != 0 ? announced : layer.size;
    if (totalLength < headerLength) return damaged();
    const Network network{layer.at + 12, false};
    const std::uint8_t protocol = layer.at[9];
    const std::uint16_t fragmentation = layer.u16(6);
    const std::uint32_t identification = layer.u16(4);
    const Layer payload = layer.upTo(totalLength).behind(headerLength);
    const bool hasMore = fragmentation & 0x2000;
    const std::int32_t offset = (fragmentation & 0x1fff) * 8;
    if (hasMore || offset != 0) [[unlikely]]
        return decodeFragment(network, identification, protocol, {.bytes = {}, .offset = offset, .isLast = !hasMore}, payload);
    return decodeIPPayload(network, protocol, payload);
}

bool PacketDecoder::Implementation::decodeIPv6(Layer layer)
{
    // RFC 8200 §3. A length of 0 is a jumbogram's or segmentation offload's: what was captured counts.
    if (!layer.has(40)) return tooShort(layer);
    if (layer.at[0] >> 4 != 6) return damaged();
    const Network network{layer.at + 8, true};
    std::uint8_t next = layer.at[6];
    const std::int32_t announced = layer.u16(4);
    Layer payload = layer.behind(40);
    payload = payload.upTo(announced != 0 ? announced : payload.size);
    return decodeIPPayload(network, next, payload);
}

bool PacketDecoder::Implementation::decodeIPPayload(Network network, std::uint8_t protocol, Layer layer)
{
    for (;;) {
        std::int32_t headerLength = 0;
        switch (protocol) {
        case IPProtocol::tcp: return decodeTCP(network, layer);
        case IPProtocol::udp: return decodeUDP(layer);
        case IPProtocol::gre: return decodeGRE(layer);
        case IPProtocol::ipv4: return enterTunnel() && decodeIPv4(layer);
        case IPProtocol::ipv6: return enterTunnel() && decodeIPv6(layer);
        // Extension headers: next header (1), length (1) in units of 8 bytes, of which the first does not count.
        case IPProtocol::hopByHop:
        case IPProtocol::routing:
        case IPProtocol::destinationOptions:
        case IPProtocol::mobility:
        case IPProtocol::hostIdentity:
        case IPProtocol::shim6:
            if (!network.isIPv6) return false;
            if (!layer.has(8)) return tooShort(layer);
            headerLength = (layer.at[1] + 1) * 8;
            break;
        case IPProtocol::authentication:
            // In units of 4 bytes, of which the first two do not count (RFC 4302 §2.2).
            if (!layer.has(8)) return tooShort(layer);
            headerLength = (layer.at[1] + 2) * 4;
            break;
        case IPProtocol::fragment: {
            if (!network.isIPv6) return false;
            if (!layer.has(8)) return tooShort(layer);
            const std::uint16_t fragmentation = layer.u16(2);
            const bool hasMore = fragmentation & 1;
            const std::int32_t offset = fragmentation & 0xfff8;
            // A datagram may come in one fragment (RFC 6946).
            if (hasMore || offset != 0)
                return decodeFragment(network, layer.u32(4), layer.at[0], {.bytes = {}, .offset = offset, .isLast = !hasMore},
                                      layer.behind(8));
            headerLength = 8;
            break;
        }
        default: return false;
        }
        protocol = layer.at[0];
        layer = layer.behind(headerLength);
    }
}

bool PacketDecoder::Implementation::decodeFragment(Network network, std::uint32_t identification, std::uint8_t protocol, Fragment fragment,
                                                   Layer payload)
{
    if (leavesFragments_) {
        hasLeftFragment_ = true;
        return false;
    }
    // Every fragment but the last holds whole units of eight bytes; what goes beyond them does not count.
    if (!fragment.isLast) payload = payload.upTo(payload.length / 8 * 8);
    if (payload.length <= 0 || fragment.offset + payload.length > longestDatagram) return damaged();
    fragment.bytes = payload.bytes();
    fragment.length = payload.length;
    fragment.protocol = protocol;

    DatagramKey key{.identification = identification, .protocol = network.isIPv6 ? std::uint8_t{0} : protocol, .isIPv6 = network.isIPv6};
    std::memcpy(key.source.data(), network.source(), network.isIPv6 ? 16 : 4);
    std::memcpy(key.destination.data(), network.destination(), network.isIPv6 ? 16 : 4);
    // UDP is collected for the tunnels it may hold; most of it is none, and no loss.
    const auto whenLost = protocol == IPProtocol::udp ? FragmentAssembler::WhenLost::isIgnored : FragmentAssembler::WhenLost::isCounted;
    auto datagram = fragments_.add(key, fragment, packet_->time.seconds, whenLost);
    if (!datagram || !enterTunnel()) return false;
    const std::vector<std::uint8_t>& bytes = reassembled_.emplace_back(std::move(datagram->bytes));
    return decodeIPPayload(network, datagram->protocol,
                           {bytes.data(), static_cast<std::int32_t>(bytes.size()), static_cast<std::int32_t>(datagram->length)});
}

bool PacketDecoder::Implementation::decodeTCP(Network network, Layer layer)
{
    // RFC 9293 §3.1.
    if (!layer.has(tcpHeaderLength)) return tooShort(layer);
    const std::int32_t headerLength = (layer.at[12] >> 4) * 4;
    if (headerLength < tcpHeaderLength || headerLength > layer.length) return damaged();
    TCPPacket& segment = *segment_;
    const auto version = network.isIPv6 ? IPVersion::v6 : IPVersion::v4;
    storeAddress(segment.source.address, network.source(), version);
    storeAddress(segment.destination.address, network.destination(), version);
    segment.source.port = layer.u16(0);
    segment.destination.port = layer.u16(2);
    segment.source.isIPv6 = segment.destination.isIPv6 = network.isIPv6;
    segment.sequenceNumber = layer.u32(4);
    segment.acknowledgmentNumber = layer.u32(8);
    segment.flags = layer.at[13];
    segment.window = layer.u16(14);
    segment.urgentPointer = layer.u16(18);
    const Layer payload = layer.behind(headerLength);
    segment.payload = payload.bytes();
    segment.payloadLength = payload.length;
    if (reassembled_.empty()) [[likely]] {
        segment.payloadAddress = packet_->address + (payload.at - packet_->frame.data());
        return true;
    }
    segment.payloadAddress = keepIn_ ? keepIn_->keep(segment.payload) : 0;
    return segment.payloadAddress >= 0;
}

bool PacketDecoder::Implementation::decodeUDP(Layer layer)
{
    if (!layer.has(udpHeaderLength) || layer.u16(2) != vxlanPort) return false;
    // VXLAN (RFC 7348 §5): flags (1) with the bit of a valid network number, reserved (3), network number (3), reserved (1).
    layer = layer.behind(udpHeaderLength);
    if (!layer.has(vxlanHeaderLength) || !(layer.at[0] & 0x08)) return false;
    return enterTunnel() && decodeEthernet(layer.behind(vxlanHeaderLength));
}

bool PacketDecoder::Implementation::decodeGRE(Layer layer)
{
    // Flags and version (2), type (2), then what the flags say (RFC 2784 §2, RFC 2890 §2, RFC 1701, RFC 2637 §4.1).
    if (!layer.has(4)) return tooShort(layer);
    const std::uint16_t flags = layer.u16(0), type = layer.u16(2), version = flags & 7;
    const bool hasChecksum = flags & 0x8000, hasRouting = flags & 0x4000, hasKey = flags & 0x2000, hasSequence = flags & 0x1000,
               hasAcknowledgment = flags & 0x0080;
    if (version > 1) return false;
    std::int32_t headerLength = 4;
    if (hasChecksum || hasRouting) headerLength += 4;
    if (hasKey) headerLength += 4;
    if (hasSequence) headerLength += 4;
    if (version == 1 && hasAcknowledgment) headerLength += 4;
    layer = layer.behind(headerLength);
    if (version == 0 && hasRouting) {
        // Source routes: family (2), offset (1), length (1), addresses; the last one has length 0.
        for (std::int32_t length = -1; length != 0;) {
            if (!layer.has(4)) return tooShort(layer);
            length = layer.at[3];
            layer = layer.behind(4 + length);
        }
    }
    if (!enterTunnel()) return false;
    if (type == EtherType::transparentEthernet) return decodeEthernet(layer);
    if (type == EtherType::pppInGRE) return decodePPP(layer);
    return type >= EtherType::least && decodeEtherType(type, layer);
}

DecoderNotes& DecoderNotes::operator+=(const DecoderNotes& other)
{
    for (const auto& [linkType, packets] : other.unknownLinkTypes) unknownLinkTypes[linkType] += packets;
    damagedPackets += other.damagedPackets;
    incompleteDatagrams += other.incompleteDatagrams;
    return *this;
}

PacketDecoder::PacketDecoder(WithoutFragments how) : implementation_(std::make_unique<Implementation>(how)) {}
PacketDecoder::PacketDecoder(Capture* keepIn) : implementation_(std::make_unique<Implementation>(keepIn)) {}
PacketDecoder::~PacketDecoder() = default;

bool PacketDecoder::decode(const CapturedPacket& packet, TCPPacket& segment) { return implementation_->decode(packet, segment); }
bool PacketDecoder::hasLeftFragment() const { return implementation_->hasLeftFragment(); }
void PacketDecoder::forgetNotes() { implementation_->forgetNotes(); }
const DecoderNotes& PacketDecoder::notes() const { return implementation_->notes(); }

}  // namespace sealscope
