// SPDX-License-Identifier: Apache-2.0
#include "app/session/LiveStream.h"

#include "app/session/ResumedSessions.h"

#include <algorithm>
#include <limits>
#include <ranges>
#include <utility>

namespace sealscope {

namespace {

// What a connection says in the beginning; who is not known by it is not known by more.
constexpr std::int64_t beginning = 65'536;

std::int64_t longerSide(const TCPStream& stream) { return std::max(stream.clientToServerData.size(), stream.serverToClientData.size()); }

}  // namespace

LiveStream::LiveStream(const SessionPlugIns& plugIns, const StreamContext& context, Place place)
    : plugIns_(plugIns), context_(context), place_(place)
{
    for (auto& bytes : plaintext_) bytes = std::make_shared<GrowingBytes>();
}

TCPStream LiveStream::plaintextOf(const TCPStream& stream) const
{
    const auto dataOf = [](const std::shared_ptr<GrowingBytes>& bytes) {
        return bytes->size() > 0 ? StreamData(bytes, bytes->size()) : StreamData();
    };
    TCPStream plaintext = stream;
    plaintext.clientToServerData = dataOf(plaintext_[0]);
    plaintext.serverToClientData = dataOf(plaintext_[1]);
    plaintext.clientByteIndex = ByteToSegmentIndex(std::shared_ptr<const ByteLocator>(plaintext_[0]));
    plaintext.serverByteIndex = ByteToSegmentIndex(std::shared_ptr<const ByteLocator>(plaintext_[1]));
    return plaintext;
}

StreamInterpretation LiveStream::goOn(const TCPStream& stream, StreamExtent extent)
{
    letGo();
    if (state_ == State::unknown) findInterpreter(stream);
    StreamInterpretation found;
    if (state_ == State::secured)
        found = readPlaintext(stream, extent);
    else if (state_ == State::open)
        found = following_->goOn(stream, extent);
    if (extent == StreamExtent::whole) ignore();
    return found;
}

void LiveStream::findInterpreter(const TCPStream& stream)
{
    const VELStreamInterpreting* const interpreter =
        place_ == Place::captured ? plugIns_.interpreter(stream) : plugIns_.interpreterOfCarried(stream, context_);
    if (!interpreter) {
        if (longerSide(stream) > beginning) ignore();
    } else if (interpreter->layer == StreamLayer::security) {
        state_ = State::secured;
    } else if (interpreter->follow) {
        state_ = State::open;
        following_ = interpreter->follow(context_);
    } else {
        ignore();
    }
}

StreamInterpretation LiveStream::readPlaintext(const TCPStream& stream, StreamExtent extent)
{
    openRecords(stream);
    const bool areBothOpen = readers_[0] && readers_[1];
    // A key log that grows may hold the secrets of one side alone for a moment.
    const bool isAllThatOpens = extent == StreamExtent::whole && (readers_[0] || readers_[1]);
    const TCPStream plaintext = plaintextOf(stream);
    if (!following_ && (areBothOpen || isAllThatOpens)) {
        StreamContext inside = context_;
        inside.isDecrypted = true;
        inside.applicationProtocol.reset();
        inside.notOfferedTo = StreamLayer::security;
        ++inside.depth;
        if (const auto* const inner = plugIns_.interpreterOfCarried(plaintext, inside); inner && inner->follow)
            following_ = inner->follow(inside);
        else if (longerSide(plaintext) > beginning)
            ignore();
    }
    if (!following_) return {};
    StreamInterpretation found = following_->goOn(plaintext, extent);
    for (StreamMessage& message : found.messages) message.isDecrypted = true;
    return found;
}

void LiveStream::findReaders(const TCPStream& stream)
{
    bool hasFound = false;
    for (const Direction direction : directions) {
        auto& reader = readers_[positionOf(direction)];
        for (const auto& probe : plugIns_.probes() | std::views::reverse) {
            if (reader) break;
            if (!plugIns_.canOpen(*probe)) continue;
            reader = probe->plaintextReader(stream, direction);
            if (reader && !reader->goOn(stream)) reader.reset();
            hasFound |= reader != nullptr;
        }
    }
    if (hasFound && mayBeResumed(plugIns_, stream)) plugIns_.noteLearntSession();
}

void LiveStream::openRecords(const TCPStream& stream)
{
    if (!(readers_[0] && readers_[1])) {
        // Both hellos have to be there, and then the secrets.
        const std::uint64_t generation = plugIns_.secretsGeneration();
        bool isWorthATry = std::exchange(generation_, generation) != generation;
        for (const Direction direction : directions) {
            const std::int64_t size = stream.data(direction).size(), before = std::exchange(triedAt_[positionOf(direction)], size);
            isWorthATry |= size > before && before < beginning;
        }
        if (isWorthATry) findReaders(stream);
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

void LiveStream::letGo()
{
    if (state_ != State::secured || !following_) return;
    for (const Direction direction : directions) plaintext_[positionOf(direction)]->letGo(following_->neededFrom(direction));
    if (plaintext_[0]->held() + plaintext_[1]->held() <= plugIns_.mostHeldOfOne()) return;
    // Of a message that long nobody looks at the beginning again.
    for (auto& bytes : plaintext_) bytes->letGo(bytes->size() - plugIns_.mostHeldOfOne() / 4);
}

std::int64_t LiveStream::neededFrom(Direction direction) const
{
    switch (state_) {
    case State::unknown: return 0;
    case State::secured: return readUpTo_[positionOf(direction)];
    case State::open: return following_->neededFrom(direction);
    case State::ignored: break;
    }
    return std::numeric_limits<std::int64_t>::max();
}

bool LiveStream::waits() const
{
    return (state_ == State::secured && !(readers_[0] && readers_[1])) || (following_ && following_->waits());
}

std::int64_t LiveStream::held() const { return plaintext_[0]->held() + plaintext_[1]->held() + (following_ ? following_->held() : 0); }

void LiveStream::ignore()
{
    state_ = State::ignored;
    readers_ = {};
    following_.reset();
    for (auto& bytes : plaintext_) bytes = std::make_shared<GrowingBytes>();
}

}  // namespace sealscope
