// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELDependencies/VELValue.h"
#include "host/VELModels/StreamBody.h"
#include "host/VELModels/TCPSegment.h"
#include "platform/Data.h"
#include "platform/UUID.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sealscope SEALSCOPE_API {

/// One name/value row shown for a message.
struct DetailRow {
    std::string name;
    std::string value;
    bool operator==(const DetailRow&) const = default;
};

enum class StreamMessageKind : std::uint8_t { data, handshake, request, reply };

/// Encodings that a text body may be in.
enum class TextEncoding : std::uint8_t { utf8, latin1 };

/// How to show a body: as bytes, or as text in an encoding.
struct StreamBodyHint {
    enum class Form : std::uint8_t { binary, text };
    Form form = Form::binary;
    TextEncoding encoding = TextEncoding::utf8;  ///< of the form text
    static constexpr StreamBodyHint binary() { return {}; }
    static constexpr StreamBodyHint text(TextEncoding encoding) { return {Form::text, encoding}; }
    bool operator==(const StreamBodyHint&) const = default;
};

/// What a message carries for machines, by key, as a packet's attributes do: "method", "url", "status".
struct StreamAttribute {
    std::string key;
    VELValue value;
    bool operator==(const StreamAttribute&) const = default;
};

struct StreamPart;

/// Takes a part of a stream, which it may move from, and says whether to go on.
using StreamPartVisitor = std::function<bool(StreamPart&)>;

/// One row of the stream view; made with the names of what it has, as in `StreamMessage{.direction = …, .summary = …}`.
struct StreamMessage {
    UUID id = UUID::random();  ///< made with the message and kept by its copies
    TCPSegment::Direction direction = TCPSegment::Direction::clientToServer;
    StreamMessageKind kind = StreamMessageKind::data;
    std::string summary;
    std::vector<DetailRow> detail;   ///< for people
    std::optional<StreamBody> body;  ///< perhaps made only when it is asked for
    std::optional<StreamBodyHint> bodyHint;
    std::optional<ByteRange> byteRange;  ///< of the direction's data; nothing when the message covers none
    std::vector<std::int64_t> packetIds;
    double timestamp = 0;                 ///< seconds since 1970; 0 when unknown
    std::optional<std::string> filename;  ///< suggested for saving the body
    bool isDecrypted = false;
    std::vector<StreamAttribute> attributes;  ///< for machines, each key once
    /// Of the message's last byte, where it is known to differ from `timestamp`.
    std::optional<double> endTimestamp;
    /// Tells what was said on a stream that began with this message, such as the WebSocket behind a handshake, where that is not among
    /// the messages beside it. Empty for most; reads the stream anew whenever it is called.
    std::function<void(const StreamPartVisitor&)> tellCarried;

    /// The value under a key, or null.
    const VELValue* attribute(std::string_view key) const;
    /// Bytes that it takes while it is held, about; of its body those that are at hand.
    std::size_t heldBytes() const;
};

enum class PairingStatus : std::uint8_t { matched, unmatched };

/// A request and its reply, as positions in one message list.
struct Pairing {
    std::int64_t requestIndex = 0;
    std::optional<std::int64_t> replyIndex;
    std::string summary;
    PairingStatus status = PairingStatus::unmatched;
    bool operator==(const Pairing&) const = default;
};

/// What an interpreter made of one stream. Pairings point into `messages`.
struct StreamInterpretation {
    std::vector<StreamMessage> messages;
    std::optional<std::vector<Pairing>> pairings;
};

/// Some of a stream's messages, one behind another. Pairings point to positions among all of the stream's messages: one of the two may
/// have come in an earlier part. The whole stream may be one part.
struct StreamPart {
    std::int64_t first = 0;  ///< the position of the first of these messages
    std::vector<StreamMessage> messages;
    std::vector<Pairing> pairings;
};
/// All that an interpreter made of a stream, as one part.
StreamPart partOf(StreamInterpretation interpretation);

}  // namespace sealscope SEALSCOPE_API
