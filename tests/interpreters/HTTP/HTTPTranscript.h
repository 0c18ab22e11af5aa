// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "harness/HTTP2Writer.h"
#include "harness/Hex.h"
#include "harness/VectorStream.h"
#include "host/VELModels/StreamContext.h"
#include "host/VELModels/StreamMessage.h"

#include <fmt/format.h>
#include <string>
#include <string_view>
#include <vector>

// Conversations in, and what was made of them out, as text that reads well in a table.
namespace sealscope {

inline constexpr auto endStream = HTTP2Writer::endStream;

/// '>' from the client, '<' from the server; '{' and '}' the same, but the capture lost it. A packet each, a millisecond apart.
struct Said {
    char who = '>';
    std::string_view text;
};

inline TCPStream conversation(const std::vector<Said>& said)
{
    std::vector<StreamPiece> pieces;
    for (std::int64_t packet = 0; const auto& [who, text] : said) {
        const bool isLost = who == '{' || who == '}';
        const auto direction = who == '>' || who == '{' ? TCPSegment::Direction::clientToServer : TCPSegment::Direction::serverToClient;
        if (isLost)
            pieces.push_back({.direction = direction, .packetId = std::nullopt, .lostBytes = std::ssize(text)});
        else
            pieces.push_back({direction, Data::fromText(text), ++packet, 1'000 + 0.001 * static_cast<double>(packet)});
    }
    return vectorStream(pieces, StreamLayout::inPieces);
}

inline bool isField(const DetailRow& row) { return row.name.find(' ') == std::string::npos; }

/// The bytes as a line of text.
inline std::string escaped(DataView bytes)
{
    std::string text;
    for (const std::uint8_t byte : bytes) {
        if (byte == 0)
            text += "\\0";
        else if (byte == '\r')
            text += "\\r";
        else if (byte == '\n')
            text += "\\n";
        else
            text += static_cast<char>(byte);
    }
    return text;
}

/// A line a message: who, what kind, the summary, in quotes the body and why it ends early, and the rows that are no fields.
inline std::string transcript(const StreamInterpretation& interpretation)
{
    std::string text;
    for (const StreamMessage& message : interpretation.messages) {
        static constexpr const char* kinds[] = {"data", "handshake", "request", "reply"};
        text += fmt::format("{} {} {}", message.direction == TCPSegment::Direction::clientToServer ? '>' : '<',
                            kinds[static_cast<int>(message.kind)], message.summary);
        if (message.body) {
            const Data body = message.body->bytes();
            text += body.size() > 200 ? fmt::format(" {} bytes", body.size()) : fmt::format(" \"{}\"", escaped(body));
            if (const auto ending = message.body->ending(); !ending.isComplete) text += fmt::format(" ({})", ending.reason);
        }
        for (const DetailRow& row : message.detail)
            if (!isField(row)) text += fmt::format(" [{}: {}]", row.name, row.value);
        text += '\n';
    }
    if (interpretation.pairings)
        for (const Pairing& pairing : *interpretation.pairings)
            text += fmt::format("{}-{} {}\n", pairing.requestIndex, pairing.replyIndex ? std::to_string(*pairing.replyIndex) : "?",
                                pairing.summary);
    return text;
}

}  // namespace sealscope
