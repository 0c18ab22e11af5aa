// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/ByteToSegmentIndex.h"
#include "host/VELModels/StreamData.h"
#include "host/VELModels/TCPSegment.h"

#include <array>
#include <cstdint>
#include <string>

namespace sealscope SEALSCOPE_API {

/// Identity of a TCP connection within a capture.
struct TCPStreamKey {
    /// An address with a port.
    struct Endpoint {
        std::array<std::uint8_t, 16> address{};  ///< network order; IPv4 in the first four bytes
        std::uint16_t port = 0;
        bool isIPv6 = false;
        /// "192.0.2.1:443" or "[2001:db8::1]:443" (RFC 5952).
        std::string text() const;
        auto operator<=>(const Endpoint&) const = default;
    };

    Endpoint client;
    Endpoint server;
    std::int64_t number = 0;  ///< counts the capture's connections from 0, in order of their first packets
    auto operator<=>(const TCPStreamKey&) const = default;
};

/// One reassembled connection. Offsets count bytes of one direction's data from 0.
struct TCPStream {
    TCPStreamKey key;
    TCPSegments segments;
    StreamData clientToServerData;
    StreamData serverToClientData;
    ByteToSegmentIndex clientByteIndex;
    ByteToSegmentIndex serverByteIndex;
    std::uint32_t clientISN = 0;  ///< initial sequence numbers (RFC 9293 §3.4.1)
    std::uint32_t serverISN = 0;
    TCPStreamKey::Endpoint clientEndpoint;
    TCPStreamKey::Endpoint serverEndpoint;
    double startTime = 0;  ///< earliest packet, seconds since 1970
    double endTime = 0;    ///< latest packet

    const StreamData& data(TCPSegment::Direction direction) const
    {
        return direction == TCPSegment::Direction::serverToClient ? serverToClientData : clientToServerData;
    }
    /// The packets that carried any of the bytes, in sequence order, and the earliest of their times; neither for an
    /// empty range.
    ByteLocation locate(ByteRange byteRange, TCPSegment::Direction direction) const
    {
        return (direction == TCPSegment::Direction::serverToClient ? serverByteIndex : clientByteIndex).locate(byteRange);
    }
};

}  // namespace sealscope SEALSCOPE_API
