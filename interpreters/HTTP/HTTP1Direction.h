// SPDX-License-Identifier: Apache-2.0
#pragma once

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

    /// The next message, or nothing at the end. How a reply is framed depends on its request; null where that is unknown.
    std::optional<HTTP1Message> next(const HTTPMessage* request);
    /// Offset of the first byte that no message has taken.
    std::int64_t offset() const { return offset_; }
    TCPSegment::Direction direction() const { return direction_; }
    double time(std::int64_t offset) const { return stream_.locate({offset, offset + 1}, direction_).timestamp.value_or(0); }
    /// Bytes that are no part of a message, as rows to show, and whether there were any, each since it was last asked.
    std::vector<StreamMessage> takeOthers() { return std::exchange(others_, {}); }
    bool takeGap() { return std::exchange(hasGap_, false); }

private:
    struct Framing;

    HTTP1Message readMessage(DataView head, const HTTPMessage* request);
    Framing framing(const HTTP1Head& head, HTTPMessage& message, const HTTPMessage* request) const;
    std::int64_t lengthFrom(const HTTPMessage& message, std::vector<DetailRow>& notes) const;
    void readBody(const Framing& framing, HTTPMessage& message);
    void readChunks(HTTPMessage& message);
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
    bool hasGap_ = false;
    std::vector<StreamMessage> others_;
    std::size_t otherCount_ = 0;
};

}  // namespace sealscope
