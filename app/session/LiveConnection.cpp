// SPDX-License-Identifier: Apache-2.0
#include "app/session/LiveConnection.h"

#include "app/streams/ConnectionIndex.h"

#include <algorithm>
#include <utility>

namespace sealscope {

namespace {

StreamData dataOf(const std::shared_ptr<GrowingBytes>& bytes) { return bytes->size() > 0 ? StreamData(bytes, bytes->size()) : StreamData(); }

}  // namespace

LiveConnection::LiveConnection(const SessionPlugIns& plugIns, std::int64_t number, const TCPPacket& first)
    : number_(number), reading_(plugIns, plugIns.context(), LiveStream::Place::captured)
{
    const bool isSYN = first.flags & TCPFlag::syn, isACK = first.flags & TCPFlag::ack;
    const bool isFromClient = isSYN ? !isACK : looksLikeClientHello(first.payload) || first.source.port >= first.destination.port;
    endpoints = isFromClient ? std::array{first.source, first.destination} : std::array{first.destination, first.source};
}

bool LiveConnection::isBegunAnewBy(const TCPPacket& packet) const
{
    if (!(packet.flags & TCPFlag::syn) || (packet.flags & (TCPFlag::rst | TCPFlag::ack))) return false;
    return hasEnded_ || (hasData_ && (!hasSYN_ || packet.sequenceNumber != clientISN_));
}

void LiveConnection::add(const TCPPacket& packet, std::int64_t packetNumber, double time)
{
    const std::size_t sender = packet.source == endpoints[0] ? 0 : 1;
    if (startTime_ == 0) startTime_ = time;
    endTime_ = std::max(endTime_, time);
    if (packet.flags & TCPFlag::syn) {
        hasSYN_ = true;
        (sender == 0 ? clientISN_ : serverISN_) = packet.sequenceNumber;
    }
    if (packet.flags & TCPFlag::rst) return end();
    hasData_ |= packet.payloadLength > 0;
    if (reading_.isIgnored()) {
        // Nobody reads it; its end is told by its flags alone.
        if (packet.flags & TCPFlag::fin) hasEnded_ = true;
        return;
    }
    sides_[sender].add(packet, packetNumber, time);
    if (packet.flags & TCPFlag::ack) sides_[1 - sender].acknowledge(packet.acknowledgmentNumber, time);
    if (sides_[0].isOver() && sides_[1].isOver()) hasEnded_ = true;
}

void LiveConnection::end()
{
    for (GrowingDirection& side : sides_) side.settle();
    hasEnded_ = true;
}

std::int64_t LiveConnection::held() const { return sides_[0].held() + sides_[1].held() + reading_.held(); }

TCPStream LiveConnection::captured() const
{
    return {
        .key = {endpoints[0], endpoints[1], number_},
        .clientToServerData = dataOf(sides_[0].shared()),
        .serverToClientData = dataOf(sides_[1].shared()),
        .clientByteIndex = ByteToSegmentIndex(std::shared_ptr<const ByteLocator>(sides_[0].shared())),
        .serverByteIndex = ByteToSegmentIndex(std::shared_ptr<const ByteLocator>(sides_[1].shared())),
        .clientISN = clientISN_,
        .serverISN = serverISN_,
        .clientEndpoint = endpoints[0],
        .serverEndpoint = endpoints[1],
        .startTime = startTime_,
        .endTime = endTime_,
    };
}

void LiveConnection::read(Secrets secrets, std::int64_t mostHeld, const LiveSession::Take& take)
{
    if (!hasEnded_ || secrets == Secrets::mayCome) {
        goOn(StreamExtent::growing, take);
        letGo(mostHeld);
    }
    if (hasEnded_ && (secrets == Secrets::areAll || !reading_.waits())) {
        goOn(StreamExtent::whole, take);
        sides_ = {};
    }
}

void LiveConnection::goOn(StreamExtent extent, const LiveSession::Take& take)
{
    for (Exchange& exchange : exchangesOf(reading_.goOn(captured(), extent))) {
        LiveExchange found{.stream = number_, .client = endpoints[0], .server = endpoints[1], .exchange = std::move(exchange)};
        take(found);
    }
}

void LiveConnection::letGo(std::int64_t mostHeld)
{
    if (reading_.isIgnored()) {
        sides_ = {};
        return;
    }
    reading_.letGo();
    for (const auto direction : {TCPSegment::Direction::clientToServer, TCPSegment::Direction::serverToClient})
        sides_[direction == TCPSegment::Direction::clientToServer ? 0 : 1].bytes().letGo(reading_.neededFrom(direction));
    if (held() <= mostHeld) return;
    // What waits for its secrets has to be there from the beginning, and of a message that long nobody looks at the beginning again.
    if (!reading_.isRead()) {
        reading_.ignore();
        sides_ = {};
    } else if (!reading_.isSecured()) {
        for (GrowingDirection& side : sides_) side.bytes().letGo(side.bytes().size() - mostHeld / 4);
    }
}

}  // namespace sealscope
