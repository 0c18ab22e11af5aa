// SPDX-License-Identifier: Apache-2.0
#include "app/streams/ConnectionIndex.h"

#include "app/streams/SequenceNumber.h"
#include "app/streams/SequenceSpace.h"

#include <absl/hash/hash.h>
#include <algorithm>
#include <string_view>

namespace sealscope {

namespace {

/// True when a SYN does not belong to the connection at hand, so that its endpoints have opened another one.
bool opensAnother(const Connection& connection, const ConnectionSide& side, const TCPPacket& syn)
{
    // Some hosts, and most traffic that is made up, begin every connection with the same number.
    if (connection.isOver && !(syn.flags & TCPFlag::ack)) return true;
    const bool isUsed = connection.isClosed || connection.hasData;
    if (side.hasSYN) return isUsed && side.initialSequenceNumber != syn.sequenceNumber;
    if (!side.hasReference) return connection.isClosed;
    const std::uint32_t lowest = side.hasSent ? side.lowest : side.acknowledged.reference;
    // Captured late: the connection's own SYN stands right before the first byte, or a little before when bytes were lost.
    const std::int64_t before = sequenceDistance(syn.sequenceNumber + 1, lowest);
    return isUsed && !(before >= 0 && before <= (connection.isClosed ? 0 : plausibleFlight));
}

/// The one byte of a keep-alive repeats the last one sent, and may now be anything (RFC 9293 §3.8.4). Where that byte was captured
/// before, the first copy stands and nothing need be told apart. Two places have no first copy: the number that the FIN took,
/// and what stands before all that is known of a direction that was silent so far. What is pushed is data: a stack does not push
/// what it repeats to keep a connection alive.
bool isKeepAlive(const ConnectionSide& side, const TCPPacket& packet)
{
    constexpr std::uint8_t others = TCPFlag::syn | TCPFlag::fin | TCPFlag::rst | TCPFlag::psh | TCPFlag::urg;
    if (packet.payloadLength != 1 || (packet.flags & others) != 0) return false;
    const std::uint32_t after = packet.sequenceNumber + 1;
    const bool isSilent = !side.hasSYN && side.lowest == side.next;
    if (side.hasSent) return after == side.next && (side.endsWithFIN || isSilent);
    const std::uint32_t acknowledged = side.acknowledged.reference + static_cast<std::uint32_t>(side.acknowledged.highest);
    return !side.hasSYN && (side.isAcknowledged ? after == acknowledged : packet.payload.u8(0) == 0);
}

/// Notes that a number of the direction's sequence space was seen.
void show(ConnectionSide& side, std::uint32_t sequenceNumber)
{
    if (side.hasReference) return;
    side.acknowledged = {.reference = sequenceNumber};
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

enum class SegmentKind : std::uint8_t { ordinary, keepAlive };

/// Notes what the header and length of a segment say of its sender's direction.
void send(ConnectionSide& side, const TCPPacket& packet, SegmentKind kind, const Connection& connection)
{
    if (packet.flags & TCPFlag::rst) return;
    const bool isSYN = packet.flags & TCPFlag::syn;
    if (isSYN) {
        // Another attempt on a connection that did not come about before: what was seen of the direction so far is void.
        const bool isRepeated = side.hasSYN && side.initialSequenceNumber == packet.sequenceNumber;
        if (!isRepeated && !connection.hasData) side.hasReference = side.hasSent = side.isAcknowledged = false;
        side.hasSYN = true;
        side.initialSequenceNumber = packet.sequenceNumber;
    }
    if (kind == SegmentKind::keepAlive) return;
    const std::uint32_t first = packet.sequenceNumber + (isSYN ? 1 : 0);
    const auto next = first + static_cast<std::uint32_t>(packet.payloadLength) + ((packet.flags & TCPFlag::fin) ? 1 : 0);
    show(side, first);
    // Farther down lies no disorder, but a sequence number that wrapped or is none of this stream.
    const std::int64_t below = sequenceDistance(first, side.lowest);
    if (!side.hasSent || (below > 0 && below <= SequenceSpace::largestLoss)) side.lowest = first;
    if (!side.hasSent || sequenceDistance(side.next, next) > 0) {
        side.next = next;
        side.endsWithFIN = packet.flags & TCPFlag::fin;
    }
    side.hasSent = true;
}

std::uint32_t hashOf(const std::array<TCPStreamKey::Endpoint, 2>& endpoints)
{
    const auto bytes = [](const TCPStreamKey::Endpoint& endpoint) {
        return std::string_view(reinterpret_cast<const char*>(endpoint.address.data()), endpoint.isIPv6 ? 16 : 4);
    };
    return static_cast<std::uint32_t>(absl::HashOf(bytes(endpoints[0]), endpoints[0].port, bytes(endpoints[1]), endpoints[1].port));
}

}  // namespace

bool looksLikeClientHello(DataView bytes)
{
    const auto isMajorVersion = [&](std::int64_t offset) { return bytes.size() <= offset || bytes[offset] == 3; };
    const auto isMinorVersion = [&](std::int64_t offset) { return bytes.size() <= offset || bytes[offset] <= 4; };
    return bytes.size() >= 6 && bytes[0] == 0x16 && isMajorVersion(1) && isMinorVersion(2) && bytes[5] == 1 && isMajorVersion(9) &&
           isMinorVersion(10);
}

ConnectionIndex::ConnectionIndex() : current_(0, {}, Equal{&connections_}) {}

void ConnectionIndex::start(const Key& key, std::size_t sender, double time)
{
    latest_ = static_cast<std::uint32_t>(connections_.size());
    const auto& [first, second] = key.endpoints;
    connections_.push_back({
        .endpoints = key.endpoints,
        .startTime = time,
        .endTime = time,
        .client = static_cast<std::uint8_t>(first.port != second.port ? second.port > first.port : sender),
    });
    current_.insert({latest_, key.hash});
}

std::size_t ConnectionIndex::moveTo(const TCPPacket& packet, double time)
{
    // Packets of one connection tend to follow each other.
    if (!connections_.empty()) {
        const auto& [first, second] = connections_[latest_].endpoints;
        if (packet.source == first && packet.destination == second) return 0;
        if (packet.source == second && packet.destination == first) return 1;
    }
    const std::size_t sender = packet.destination < packet.source ? 1 : 0;
    const Endpoints endpoints = sender == 1 ? Endpoints{packet.destination, packet.source} : Endpoints{packet.source, packet.destination};
    const Key key{endpoints, hashOf(endpoints)};
    if (const auto found = current_.find(key); found != current_.end())
        latest_ = found->number;
    else
        start(key, sender, time);
    return sender;
}

void ConnectionIndex::add(const TCPPacket& packet, std::int64_t packetNumber, double time)
{
    const std::size_t sender = moveTo(packet, time);
    const bool isRST = packet.flags & TCPFlag::rst;
    const bool isSYN = !isRST && (packet.flags & TCPFlag::syn);
    const bool isACK = packet.flags & TCPFlag::ack;
    if (isSYN && opensAnother(connections_[latest_], connections_[latest_].sides[sender], packet)) {
        const Endpoints endpoints = connections_[latest_].endpoints;
        const Key key{endpoints, hashOf(endpoints)};
        current_.erase(key);
        start(key, sender, time);
    }

    Connection& connection = connections_[latest_];
    ConnectionSide& side = connection.sides[sender];
    const bool keepAlive = isKeepAlive(side, packet);
    send(side, packet, keepAlive ? SegmentKind::keepAlive : SegmentKind::ordinary, connection);
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
    connection.hasData |= packet.payloadLength > 0 && !isRST && !keepAlive;
    if (packet.flags & (TCPFlag::fin | TCPFlag::rst)) {
        connection.isClosed = true;
        side.hasFIN |= !isRST;
        const auto& [first, second] = connection.sides;
        connection.isOver |= connection.hasData && (first.hasSYN || second.hasSYN) && (isRST || (first.hasFIN && second.hasFIN));
    }

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

void ConnectionIndex::setClient(std::int64_t number, std::uint8_t position)
{
    Connection& connection = connections_[static_cast<std::size_t>(number)];
    connection.client = position;
    connection.clientEvidence = Connection::Evidence::clientHello;
}

}  // namespace sealscope
