// SPDX-License-Identifier: Apache-2.0
#include "app/session/LiveConnection.h"

#include "app/streams/ConnectionIndex.h"

#include <algorithm>
#include <ranges>
#include <utility>

namespace sealscope {

namespace {

// What a connection says in the beginning; who is not known by it is not known by more.
constexpr std::int64_t beginning = 65'536;

StreamData dataOf(const std::shared_ptr<GrowingBytes>& bytes) { return bytes->size() > 0 ? StreamData(bytes, bytes->size()) : StreamData(); }

}  // namespace

LiveConnection::LiveConnection(std::int64_t number, const TCPPacket& first) : number_(number)
{
    const bool isSYN = first.flags & TCPFlag::syn, isACK = first.flags & TCPFlag::ack;
    const bool isFromClient = isSYN ? !isACK : looksLikeClientHello(first.payload) || first.source.port >= first.destination.port;
    endpoints = isFromClient ? std::array{first.source, first.destination} : std::array{first.destination, first.source};
    for (auto& bytes : plaintext_) bytes = std::make_shared<GrowingBytes>();
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
    if (state_ == State::ignored) {
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

std::int64_t LiveConnection::held() const
{
    return sides_[0].held() + sides_[1].held() + plaintext_[0]->held() + plaintext_[1]->held();
}

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

TCPStream LiveConnection::plaintext() const
{
    TCPStream stream = captured();
    stream.clientToServerData = dataOf(plaintext_[0]);
    stream.serverToClientData = dataOf(plaintext_[1]);
    stream.clientByteIndex = ByteToSegmentIndex(std::shared_ptr<const ByteLocator>(plaintext_[0]));
    stream.serverByteIndex = ByteToSegmentIndex(std::shared_ptr<const ByteLocator>(plaintext_[1]));
    return stream;
}

void LiveConnection::read(const SessionPlugIns& plugIns, bool hasNewSecrets, Secrets secrets, std::int64_t mostHeld,
                          const LiveSession::Take& take)
{
    if (state_ == State::unknown) findInterpreter(plugIns);
    if (state_ == State::secured) {
        openRecords(plugIns, hasNewSecrets);
        const bool areBothOpen = readers_[0] && readers_[1];
        const bool isAllThatOpens = secrets == Secrets::areAll && hasEnded_ && (readers_[0] || readers_[1]);
        const TCPStream stream = plaintext();
        if (!following_ && (areBothOpen || isAllThatOpens)) {
            StreamContext context = plugIns.context();
            context.isDecrypted = true;
            context.notOfferedTo = StreamLayer::security;
            ++context.depth;
            if (const auto* const inner = plugIns.interpreterOfCarried(stream, context); inner && inner->follow) {
                interpreter_ = inner;
                following_ = inner->follow(context);
            } else if (std::max(plaintext_[0]->size(), plaintext_[1]->size()) > beginning) {
                ignore();
            }
        }
        if (following_) follow(stream, take);
    } else if (state_ == State::open) {
        follow(captured(), take);
    }
    letGo(mostHeld);
}

void LiveConnection::findInterpreter(const SessionPlugIns& plugIns)
{
    const TCPStream stream = captured();
    const VELStreamInterpreting* const interpreter = plugIns.interpreter(stream);
    if (!interpreter) {
        if (std::max(stream.clientToServerData.size(), stream.serverToClientData.size()) > beginning) ignore();
        return;
    }
    if (interpreter->layer == StreamLayer::security) {
        state_ = State::secured;
    } else if (interpreter->follow) {
        state_ = State::open;
        following_ = interpreter->follow(plugIns.context());
    } else {
        ignore();
    }
}

void LiveConnection::findReaders(const SessionPlugIns& plugIns, const TCPStream& stream)
{
    for (const Direction direction : directions) {
        auto& reader = readers_[positionOf(direction)];
        for (const auto& probe : plugIns.probes() | std::views::reverse) {
            if (reader) break;
            if (!plugIns.canOpen(*probe)) continue;
            reader = probe->plaintextReader(stream, direction);
            if (reader && !reader->goOn(stream)) reader.reset();
        }
    }
}

void LiveConnection::openRecords(const SessionPlugIns& plugIns, bool hasNewSecrets)
{
    const TCPStream stream = captured();
    if (waitsForSecrets()) {
        // Both hellos have to be there, and then the secrets.
        bool isWorthATry = hasNewSecrets;
        for (const Direction direction : directions) {
            const std::int64_t size = stream.data(direction).size(), before = std::exchange(triedAt_[positionOf(direction)], size);
            isWorthATry |= size > before && before < beginning;
        }
        if (isWorthATry) findReaders(plugIns, stream);
    }
    for (const Direction direction : directions) {
        const std::size_t position = positionOf(direction);
        PlaintextReader* const reader = readers_[position].get();
        if (!reader || !reader->goOn(stream)) continue;
        GrowingBytes& plaintext = *plaintext_[position];
        while (const auto record = reader->next()) {
            if (record->gap) plaintext.appendHole(record->gap->contentLength);
            plaintext.append(record->plaintext, stream.locate(record->body, direction));
            readUpTo_[position] = record->body.lower;
        }
    }
}

void LiveConnection::follow(const TCPStream& stream, const LiveSession::Take& take)
{
    StreamInterpretation interpretation = following_->goOn(stream, hasEnded_ ? StreamExtent::whole : StreamExtent::growing);
    for (StreamMessage& message : interpretation.messages) message.isDecrypted = state_ == State::secured;
    for (Exchange& exchange : exchangesOf(std::move(interpretation))) {
        LiveExchange found{.stream = number_, .client = endpoints[0], .server = endpoints[1], .exchange = std::move(exchange)};
        take(found);
    }
    if (hasEnded_) ignore();
}

/// Gives up all that is held, and takes no more.
void LiveConnection::ignore()
{
    state_ = State::ignored;
    sides_ = {};
    readers_ = {};
    following_.reset();
    for (auto& bytes : plaintext_) bytes = std::make_shared<GrowingBytes>();
}

void LiveConnection::letGo(std::int64_t mostHeld)
{
    const bool isSecured = state_ == State::secured;
    for (const Direction direction : directions) {
        const std::size_t position = positionOf(direction);
        GrowingBytes& bytes = isSecured ? *plaintext_[position] : sides_[position].bytes();
        if (following_) bytes.letGo(following_->neededFrom(direction));
        if (isSecured) sides_[position].bytes().letGo(readUpTo_[position]);
    }
    if (held() <= mostHeld) return;
    // What waits for its secrets has to be there from the beginning, and of a message that long nobody looks at the beginning again.
    if (!following_) return ignore();
    for (const Direction direction : directions) {
        GrowingBytes& bytes = isSecured ? *plaintext_[positionOf(direction)] : sides_[positionOf(direction)].bytes();
        bytes.letGo(bytes.size() - mostHeld / 4);
    }
}

}  // namespace sealscope
