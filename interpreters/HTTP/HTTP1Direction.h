// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/StreamFollowing.h"
#include "interpreters/HTTP/HTTP1Head.h"
#include "interpreters/HTTP/HTTPMessage.h"
#include "interpreters/HTTP/LostBytes.h"
#include "interpreters/HTTP/StreamWindow.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace sealscope {

/// A message with what the conversation around it depends on.
struct HTTP1Message {
    HTTPMessage message;
    bool isUpgrade = false;  ///< asks for another protocol, or grants it (RFC 9110 §7.8); CONNECT does as well
    bool isTunnel = false;   ///< what follows it belongs to no HTTP
    double time = 0;         ///< of its first byte
};

/// Reads one direction of an HTTP/1 connection, message after message. Where a header is damaged it goes on at the next start line.
/// Not thread-safe; outlived by the stream.
class HTTP1Direction {
public:
    HTTP1Direction(const TCPStream& stream, TCPSegment::Direction direction, HTTP1Head::Kind kind, const StreamContext& context);

    /// The next message that is whole, or nothing at the end. How a reply is framed depends on its request; null where that is unknown.
    std::optional<HTTP1Message> next(const HTTPMessage* request);
    /// The stream by now; of one that is growing a message is whole once its last byte is there.
    void goOn(StreamExtent extent);
    /// Whether a message has begun that is not whole.
    bool isInMessage() const { return open_.has_value(); }
    /// Where the first byte lies that no message has taken.
    std::int64_t offset() const { return open_ ? open_->message.range.lower : offset_; }
    TCPSegment::Direction direction() const { return direction_; }
    double time(std::int64_t offset) const { return stream_.locate({offset, offset + 1}, direction_).timestamp.value_or(0); }
    /// Bytes that are no part of a message, as rows to show, and whether there were any, each since it was last asked.
    std::vector<StreamMessage> takeOthers() { return std::exchange(others_, {}); }
    bool takeGap() { return std::exchange(hasGap_, false); }

private:
    /// Where a body ends (RFC 9112 §6.3).
    struct Framing {
        enum class Kind : std::uint8_t { none, length, chunked, toTheEnd, toTheNextMessage };
        Kind kind = Kind::none;
        std::int64_t length = 0;
        // Of chunked data, where their reading stands.
        std::int64_t start = 0;
        std::int64_t chunkLeft = 0;
        bool isInChunk = false;
        bool isInTrailers = false;
    };

    void beginMessage(DataView head, const HTTPMessage* request);
    /// The message that has begun, if its body has come to its end.
    std::optional<HTTP1Message> endMessage();
    Framing framing(const HTTP1Head& head, HTTPMessage& message, const HTTPMessage* request) const;
    std::int64_t lengthFrom(const HTTPMessage& message, std::vector<DetailRow>& notes) const;
    /// False when there is more to come.
    bool readBody(Framing& framing, HTTPMessage& message);
    bool readChunks(Framing& framing, HTTPMessage& message);
    std::string urlOf(const HTTP1Head& head) const;
    /// Where the next message begins, from an offset on: the end of the data where none does.
    std::int64_t nextStart(std::int64_t from);
    bool isStartAt(std::int64_t offset) const;
    /// Whether the data ends in what may be a start line.
    bool isCutStartAt(std::int64_t offset) const;
    void skip(std::int64_t to, std::string_view what);

    const TCPStream& stream_;
    const StreamData& data_;
    const StreamContext& context_;
    const TCPSegment::Direction direction_;
    const HTTP1Head::Kind kind_;
    LostBytes lost_;
    mutable StreamWindow window_;
    std::int64_t offset_ = 0;
    bool isGrowing_ = false;
    std::optional<HTTP1Message> open_;  ///< a message that has begun
    Framing framing_;                   ///< of its body
    bool hasGap_ = false;
    std::vector<StreamMessage> others_;
    std::size_t otherCount_ = 0;
};

}  // namespace sealscope
