// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/capture/CapturedPacket.h"
#include "host/VELModels/TCPStream.h"

#include <cstdint>
#include <map>
#include <memory>

namespace sealscope {

class Capture;

/// TCP flags as they stand in the header's 14th byte (RFC 9293 §3.1).
namespace TCPFlag {
inline constexpr std::uint8_t fin = 0x01, syn = 0x02, rst = 0x04, psh = 0x08, ack = 0x10, urg = 0x20;
}

/// A TCP segment found in a captured packet.
struct TCPPacket {
    TCPStreamKey::Endpoint source;
    TCPStreamKey::Endpoint destination;
    std::uint32_t sequenceNumber = 0;
    std::uint32_t acknowledgmentNumber = 0;
    std::uint16_t window = 0;
    std::uint16_t urgentPointer = 0;
    std::uint8_t flags = 0;
    DataView payload;                   ///< captured bytes, bounded by the IP length; lent as the frame is
    std::int64_t payloadLength = 0;     ///< bytes on the wire; more than `payload` holds when the packet was cut
    CaptureAddress payloadAddress = 0;  ///< of `payload`, when the capture has random access
};

/// What the decoder met and could not use, by kind; for telling the user once, at the end.
struct DecoderNotes {
    std::map<std::uint32_t, std::int64_t> unknownLinkTypes;  ///< LINKTYPE_ number to packets
    std::int64_t damagedPackets = 0;                         ///< a header contradicts itself or the bytes that are there
    std::int64_t incompleteDatagrams = 0;                    ///< fragments of which some never came

    DecoderNotes& operator+=(const DecoderNotes& other);
};

/// Finds the TCP segment in a packet: link layer, VLAN tags, MPLS, tunnels, IPv4 and IPv6 with options, extension headers
/// and fragments. Keeps the fragments it waits for, within bounds; one decoder reads one capture in order.
class PacketDecoder {
public:
    /// For packets out of their order: fragments are left to another decoder, which reads them in order.
    struct WithoutFragments {};
    explicit PacketDecoder(WithoutFragments);
    /// With a capture of random access, datagrams put together from fragments are kept there; without one (null) they
    /// are lent until the next call.
    explicit PacketDecoder(Capture* keepIn = nullptr);
    ~PacketDecoder();

    /// True when the packet carries a TCP segment, or completes one from fragments; `segment` is then filled.
    bool decode(const CapturedPacket& packet, TCPPacket& segment);
    /// True when the packet decoded last is a fragment and was left.
    bool hasLeftFragment() const;
    const DecoderNotes& notes() const;
    /// Counts from zero again.
    void forgetNotes();

    PacketDecoder(const PacketDecoder&) = delete;
    PacketDecoder& operator=(const PacketDecoder&) = delete;

private:
    class Implementation;
    std::unique_ptr<Implementation> implementation_;
};

}  // namespace sealscope
