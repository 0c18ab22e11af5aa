// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "fuzz/Require.h"
#include "harness/VectorStream.h"
#include "host/VELModels/StreamContext.h"
#include "host/VELModels/StreamExchanges.h"
#include "host/VELModels/StreamFollowing.h"
#include "host/VELModels/StreamMessage.h"
#include "interpreters/HTTP/CarriedStream.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

namespace sealscope {

/// A stream from an input: length of what the client sent (2 bytes, big-endian), bytes a packet (1; its highest bit: every fourth
/// packet is lost), what the client sent, what the server sent.
inline TCPStream fuzzedStream(DataView input)
{
    const std::int64_t asked = std::min<std::int64_t>(input.u16(0), std::max<std::int64_t>(input.size() - 3, 0)),
                       step = (input.u8(2) & 0x7F) + 1;
    const bool isLossy = (input.u8(2) & 0x80) != 0;
    std::vector<StreamPiece> pieces;
    std::int64_t packet = 0;
    for (const auto& [direction, bytes] : {std::pair{TCPSegment::Direction::clientToServer, input.sub(3, asked)},
                                           std::pair{TCPSegment::Direction::serverToClient, input.from(3 + asked)}})
        for (std::int64_t offset = 0; offset < bytes.size(); offset += step) {
            const DataView part = bytes.sub(offset, step);
            const bool isLost = isLossy && ++packet % 4 == 0;
            pieces.push_back({.direction = direction,
                              .bytes = isLost ? Data() : Data(part),
                              .packetId = isLost ? std::nullopt : std::optional(packet),
                              .timestamp = 1'000 + static_cast<double>(packet),
                              .lostBytes = isLost ? part.size() : 0});
        }
    return vectorStream(pieces, StreamLayout::inPieces);
}

/// What holds for every interpretation of a stream.
inline void requireSound(const StreamInterpretation& interpretation, const TCPStream& stream)
{
    const auto count = std::ssize(interpretation.messages);
    std::int64_t decoded = 0;
    for (const StreamMessage& message : interpretation.messages) {
        if (message.byteRange) {
            require(message.byteRange->lower >= 0 && message.byteRange->lower <= message.byteRange->upper, "a range runs forward");
            require(message.byteRange->upper <= stream.data(message.direction).size(), "a range lies in the data");
        }
        if (!message.body || decoded > 1 << 20) continue;
        std::int64_t length = 0;
        message.body->forEachPiece([&](DataView piece) {
            length += piece.size();
            return true;
        });
        require(length == message.body->length(), "a body has the same length each time");
        decoded += length;
    }
    for (const Pairing& pairing : interpretation.pairings.value_or(std::vector<Pairing>{})) {
        require(pairing.requestIndex >= 0 && pairing.requestIndex < count, "a request is a message");
        require(!pairing.replyIndex || (*pairing.replyIndex >= 0 && *pairing.replyIndex < count), "a reply is a message");
        require(interpretation.messages[static_cast<std::size_t>(pairing.requestIndex)].kind == StreamMessageKind::request,
                "a request is one");
    }
}

/// The stream as it would have come in a few pieces: what is found on the way is sound, and is let go of as it says.
template <class Interpreter> void requireFollows(const TCPStream& stream, const StreamContext& context)
{
    constexpr std::int64_t pieces = 5;
    const auto following = Interpreter::follow(context);
    std::int64_t neededFrom = 0;
    for (std::int64_t piece = 1; piece <= pieces; ++piece) {
        const auto part = [&](const StreamData& data) { return ByteRanges(ByteRange{0, data.size() * piece / pieces}); };
        const TCPStream grown = CarriedStream::inside(stream, part(stream.clientToServerData), part(stream.serverToClientData));
        requireSound(following->goOn(grown, piece == pieces ? StreamExtent::whole : StreamExtent::growing), grown);
        const std::int64_t needed = following->neededFrom(TCPSegment::Direction::clientToServer);
        require(needed >= neededFrom, "what was let go of is not needed again");
        neededFrom = needed;
    }
}

/// Parts have what the whole has, and few messages each where few may be held.
template <class Interpreter>
void requireTellsParts(const StreamInterpretation& whole, const TCPStream& stream, const StreamContext& context)
{
    for (const std::size_t mostHeld : {context.mostHeld, std::size_t{1} << 14}) {
        StreamContext bounded = context;
        bounded.mostHeld = mostHeld;
        StreamInterpretation joined{.pairings = std::vector<Pairing>()};
        Interpreter::forEachPart(stream, bounded, [&](StreamPart& part) {
            require(part.first == std::ssize(joined.messages), "parts follow each other");
            std::ranges::move(part.messages, std::back_inserter(joined.messages));
            std::ranges::move(part.pairings, std::back_inserter(*joined.pairings));
            return true;
        });
        requireSound(joined, stream);
        if (mostHeld != context.mostHeld) continue;
        require(joined.messages.size() == whole.messages.size(), "no message is missing, and none told twice");
        require(joined.pairings->size() == whole.pairings.value_or(std::vector<Pairing>{}).size(), "nor a pairing");
    }
}

/// What an exchange says, behind its time.
inline std::pair<double, std::string> told(const StreamExchange& exchange)
{
    std::string text;
    for (const auto* const message : {&exchange.request, &exchange.reply}) {
        text += *message ? "message" : "nothing";
        if (!*message) continue;
        for (const DetailRow& row : (*message)->detail) (text += row.name + ':') += row.value + '\n';
    }
    return {exchange.time(), std::move(text)};
}

/// Exchanges that are told one by one are those of the pairings, in the order of their times.
template <class Interpreter>
void requireTellsExchanges(const StreamInterpretation& interpretation, const TCPStream& stream, const StreamContext& context)
{
    std::vector<std::pair<double, std::string>> expected, found;
    for (const StreamExchange& exchange : exchangesOf(interpretation)) expected.push_back(told(exchange));
    const auto reader = Interpreter::exchanges(stream, context);
    StreamExchange exchange;
    while (const auto time = reader->nextTime()) {
        reader->next(exchange);
        found.push_back(told(exchange));
        require(found.back().first == *time, "an exchange has the time that was told");
    }
    // Those of one time may stand in any order.
    for (auto* const list : {&expected, &found}) std::ranges::stable_sort(*list);
    require(found == expected, "exchanges are those of the whole");

    StreamContext bounded = context;
    bounded.mostHeld = 1 << 14;
    const auto few = Interpreter::exchanges(stream, bounded);
    while (const auto time = few->nextTime()) {
        few->next(exchange);
        require(exchange.time() == *time, "an exchange has the time that was told");
    }
}

}  // namespace sealscope
