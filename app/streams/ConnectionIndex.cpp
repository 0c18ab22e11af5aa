// SPDX-License-Identifier: Apache-2.0
#include "app/streams/ConnectionIndex.h"

#include "app/streams/SequenceNumber.h"
#include "app/streams/SequenceSpace.h"

#include <absl/hash/hash.h>
#include <algorithm>
#include <string_view>

namespace sealscope {

namespace {

/// The beginning of a TLS Client Hello: a handshake record of any version, and in it a handshake message of type 1 with a
/// version of its own (RFC 8446 §4.1.2, §5.1); what lies behind the captured bytes may be anything.
/// Streams are no place to know a protocol above TCP. This one fact is here because it tells who the client is where the
/// capture missed the SYN, and everything that shows a direction depends on that.
bool looksLikeClientHello(DataView payload)
{
    const auto isMajorVersion = [&](std::int64_t offset) { return payload.size() <= offset || payload[offset] == 3; };
    const auto isMinorVersion = [&](std::int64_t offset) { return payload.size() <= offset || payload[offset] <= 4; };
    return payload.size() >= 6 && payload[0] == 0x16 && isMajorVersion(1) && isMinorVersion(2) && payload[5] == 1 && isMajorVersion(9) &&
           isMinorVersion(10);
}

/// True when a SYN's sequence number is not that of the connection at hand, so that the endpoints have opened another one.
bool opensAnother(const Connection& connection, const ConnectionSide& side, std::uint32_t sequenceNumber)
{
    const bool isUsed = connection.isClosed || connection.hasData;
    if (side.hasSYN) return isUsed && side.initialSequenceNumber != sequenceNumber;
    if (!side.hasReference) return connection.isClosed;
    const std::uint32_t lowest = side.hasSent ? side.lowest : side.acknowledged.reference;
    // Captured late: the connection's own SYN stands right before the first byte, or a little before when bytes were lost.
    const std::int64_t before = sequenceDistance(sequenceNumber + 1, lowest);
    return isUsed && !(before >= 0 && before <= (connection.isClosed ? 0 : plausibleFlight));
}

/// The one byte of a keep-alive was sent and acknowledged before, and may now be anything (RFC 9293 §3.8.4). What is pushed is
/// data: a stack does not push what it repeats to keep a connection alive. When nothing is known of the direction, a lone zero
/// byte looks like one. Whether the byte is data after all shows when the whole direction is known.
bool looksLikeKeepAlive(const ConnectionSide& side, const TCPPacket& packet)
{
    constexpr std::uint8_t others = TCPFlag::syn | TCPFlag::fin | TCPFlag::rst | TCPFlag::psh | TCPFlag::urg;
    if (packet.payloadLength != 1 || (packet.flags & others) != 0) return false;
    if (!side.hasReference) return packet.payload.u8(0) == 0;
    const std::uint32_t after = packet.sequenceNumber + 1;
    const std::uint32_t acknowledged = side.acknowledged.reference + static_cast<std::uint32_t>(side.acknowledged.highest);
    return (side.hasSent && after == side.next) || (side.isAcknowledged && after == acknowledged);
}

/// Notes that a number of the direction's sequence space was seen.
void show(ConnectionSide& side, std::uint32_t sequenceNumber)
{
    if (side.hasReference) return;
    side.acknowledged.reference = sequenceNumber;
    side.hasReference = true;
}

void acknowledge(ConnectionSide& side, std::uint32_t acknowledgmentNumber)
{
    show(side, acknowledgmentNumber);
    const std::uint32_t highest = side.acknowledged.reference + static_cast<std::uint32_t>(side.acknowledged.highest);
    const std::int64_t ahead = sequenceDistance(highest, acknowledgmentNumber);
    if (!side.isAcknowledged || ahead > 0) side.acknowledged.highest += ahead;
    side.isAcknowledged = true;
}

/// Notes what the header and length of a segment say of its sender's direction.
void send(ConnectionSide& side, const TCPPacket& packet, bool isKeepAlive)
{
    if (packet.flags & TCPFlag::rst) return;
    const bool isSYN = packet.flags & TCPFlag::syn;
    if (isSYN) {
        if (side.hasSYN && side.initialSequenceNumber != packet.sequenceNumber) {
            // A second attempt on a connection that never came about: what the first one showed is void.
            side.hasReference = side.hasSent = side.isAcknowledged = false;
            side.acknowledged = {};
        }
        side.hasSYN = true;
        side.initialSequenceNumber = packet.sequenceNumber;
    }
    if (isKeepAlive) return;
    const std::uint32_t first = packet.sequenceNumber + (isSYN ? 1 : 0);
    const auto next = first + static_cast<std::uint32_t>(packet.payloadLength) + ((packet.flags & TCPFlag::fin) ? 1 : 0);
    show(side, first);
    // Farther down lies no disorder, but a sequence number that wrapped or is none of this stream.
    const std::int64_t below = sequenceDistance(first, side.lowest);
    if (!side.hasSent || (below > 0 && below <= SequenceSpace::largestLoss)) side.lowest = first;
    if (!side.hasSent || sequenceDistance(side.next, next) > 0) side.next = next;
    side.hasSent = true;
}

}  // namespace

std::size_t ConnectionIndex::Lookup::hash(const Endpoints& endpoints)
{
    const auto bytes = [](const TCPStreamKey::Endpoint& endpoint) {
        return std::string_view(reinterpret_cast<const char*>(endpoint.address.data()), endpoint.isIPv6 ? 16 : 4);
    };
    return absl::HashOf(bytes(endpoints[0]), endpoints[0].port, bytes(endpoints[1]), endpoints[1].port);
}

ConnectionIndex::ConnectionIndex() : current_(0, Lookup{&connections_}, Lookup{&connections_}) {}

std::uint32_t ConnectionIndex::start(const Endpoints& endpoints, std::size_t sender, double time)
{
    const auto number = static_cast<std::uint32_t>(connections_.size());
    Connection& connection = connections_.emplace_back();
    connection.endpoints = endpoints;
    connection.startTime = connection.endTime = time;
    const bool differ = endpoints[0].port != endpoints[1].port;
    connection.client = static_cast<std::uint8_t>(differ ? endpoints[1].port > endpoints[0].port : sender);
    current_.insert(number);
    return number;
}

void ConnectionIndex::add(const TCPPacket& packet, std::int64_t packetNumber, double time)
{
    const std::size_t sender = packet.destination < packet.source ? 1 : 0;
    const Endpoints endpoints = sender == 1 ? Endpoints{packet.destination, packet.source} : Endpoints{packet.source, packet.destination};
    const bool isRST = packet.flags & TCPFlag::rst;
    const bool isSYN = !isRST && (packet.flags & TCPFlag::syn);
    const bool isACK = packet.flags & TCPFlag::ack;

    // Packets of one connection tend to follow each other.
    if (connections_.empty() || connections_[latest_].endpoints != endpoints) {
        const auto found = current_.find(endpoints);
        latest_ = found != current_.end() ? *found : start(endpoints, sender, time);
    }
    if (isSYN && opensAnother(connections_[latest_], connections_[latest_].sides[sender], packet.sequenceNumber)) {
        current_.erase(latest_);
        latest_ = start(endpoints, sender, time);
    }

    Connection& connection = connections_[latest_];
    ConnectionSide& side = connection.sides[sender];
    const bool keepAlive = looksLikeKeepAlive(side, packet);
    send(side, packet, keepAlive);
    if (isACK && !isRST) acknowledge(connection.sides[1 - sender], packet.acknowledgmentNumber);

    if (isSYN && connection.clientEvidence != Connection::Evidence::SYN) {
        connection.clientEvidence = Connection::Evidence::SYN;
        connection.client = static_cast<std::uint8_t>(isACK ? 1 - sender : sender);
    } else if (connection.clientEvidence == Connection::Evidence::higherPort && looksLikeClientHello(packet.payload)) {
        connection.clientEvidence = Connection::Evidence::clientHello;
        connection.client = static_cast<std::uint8_t>(sender);
    }
    connection.startTime = std::min(connection.startTime, time);
    connection.endTime = std::max(connection.endTime, time);
    connection.isClosed |= (packet.flags & (TCPFlag::fin | TCPFlag::rst)) != 0;
    connection.hasData |= packet.payloadLength > 0 && !isRST && !keepAlive;

    // A negative address: the capture had no room to keep a datagram that came in fragments.
    const std::int64_t captured = packet.payloadAddress < 0 ? 0 : std::min(packet.payload.size(), SegmentRecord::maximumLength);
    side.segments.append(
        {
            .address = packet.payloadAddress,
            .time = time,
            .sequenceNumber = packet.sequenceNumber,
            .packetLow = static_cast<std::uint32_t>(packetNumber),
            .packetHigh = static_cast<std::uint64_t>(packetNumber) >> 32 & 0xFF,
            .flags = static_cast<std::uint64_t>((packet.flags & 0x3F) | (keepAlive ? SegmentRecord::keepAlive : 0)),
            .captured = static_cast<std::uint64_t>(captured),
            .length = static_cast<std::uint64_t>(std::clamp(packet.payloadLength, captured, SegmentRecord::maximumLength)),
        },
        arena_);
}

}  // namespace sealscope
