// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "harness/TCPConversation.h"

#include <cstdint>
#include <vector>

namespace sealscope {

/// One packet as a capture file will hold it.
struct CapturePacket {
    std::int64_t time = 0;            ///< nanoseconds since 1970
    Data frame;                       ///< captured bytes
    std::int64_t originalLength = 0;  ///< bytes on the wire
    std::uint32_t linkType = 1;       ///< LINKTYPE_ number
};

enum class IPVersion : std::uint8_t { v4, v6 };

/// What lies between a TCP segment and its capture: link layer, tags, tunnels, IP options.
struct PacketPath {
    enum class Link : std::uint8_t {
        ethernet,              ///< 1
        pppoe,                 ///< 1, a PPPoE session inside (RFC 2516)
        linuxCooked,           ///< 113
        linuxCooked2,          ///< 276
        rawIP,                 ///< 101
        rawIPByFamily,         ///< 228 for IPv4, 229 for IPv6
        bsdLoopback,           ///< 0, address family in little-endian order
        bsdLoopbackBigEndian,  ///< 0, in big-endian order
        openBSDLoopback,       ///< 108, always big-endian
        ppp,                   ///< 9, without address and control bytes
        pppWithHDLC,           ///< 9, with them (RFC 1662)
    };
    enum class Tunnel : std::uint8_t { none, gre, ipInIP, vxlan };

    Link link = Link::ethernet;
    std::vector<std::uint16_t> vlans;       ///< identifiers, outermost first; of several the outer ones are service tags (802.1ad)
    std::vector<std::uint32_t> mplsLabels;  ///< outermost first (RFC 3032); Ethernet alone
    Tunnel tunnel = Tunnel::none;           ///< between 198.51.100.1 and 198.51.100.2
    Data ipv4Options;                       ///< a multiple of 4 bytes
    bool usesIPv6Extensions = false;        ///< hop-by-hop and destination options in front of TCP
    Data tcpOptions;                        ///< a multiple of 4 bytes
    bool padsToMinimum = true;              ///< Ethernet frames have 60 bytes at least
    bool leavesIPLengthZero = false;        ///< as segmentation offload does on the way out
    bool leavesChecksums = false;           ///< wrong ones, as checksum offload does on the way out
};

std::uint32_t linkType(const PacketPath& path, IPVersion version);

/// Appends the frame of an unfragmented segment; the fast way for large captures.
void appendFrame(const PlannedSegment& segment, const PacketPath& path, std::vector<std::uint8_t>& bytes);

/// The packets of segments, fragmented and cut as they say.
std::vector<CapturePacket> packets(const std::vector<PlannedSegment>& segments, const PacketPath& path = {});

}  // namespace sealscope
