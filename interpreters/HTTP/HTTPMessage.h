// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/StreamContext.h"
#include "host/VELModels/StreamMessage.h"
#include "interpreters/HTTP/ByteRanges.h"
#include "interpreters/HTTP/HeaderFields.h"
#include "interpreters/HTTP/MessageBody.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sealscope {

/// A request or a reply, whichever version of HTTP carries it (RFC 9110 §6).
struct HTTPMessage {
    TCPSegment::Direction direction = TCPSegment::Direction::clientToServer;
    StreamMessageKind kind = StreamMessageKind::request;  ///< an interim reply is `data`: the reply to its request is yet to come
    std::string_view protocol;                            ///< "HTTP/1.1"
    std::string method;                                   ///< of a request
    std::string url;                                      ///< of a request, absolute
    int status = 0;                                       ///< of a reply
    std::string reason;                                   ///< the words behind the status, where they are sent
    HeaderFields fields;                                  ///< pseudo-fields included
    HeaderFields trailers;
    std::vector<DetailRow> notes;  ///< what else there is to say, under names that no field can have
    CarriedBody body;
    ByteRange range;                          ///< of the direction's data, first byte to last
    ByteRanges pieces;                        ///< the message's own bytes where others lie among them; else empty
    std::optional<std::int64_t> streamId;     ///< of HTTP/2
    std::vector<StreamAttribute> attributes;  ///< beside those that every message has
    /// Of a message that one packet carried, where that is known: which, and when.
    struct Packet {
        std::int64_t id = 0;
        double time = 0;
    };
    std::optional<Packet> packet;
};

/// How messages of HTTP are shown.
struct HTTPMessages {
    HTTPMessages() = delete;

    /// Reads the codings of a body from its fields. One that is not known leaves the body as it is carried, and says so in a note.
    static void readCodings(HTTPMessage& message);
    /// The message as a row of the stream view. Its body is made when it is asked for.
    static StreamMessage shown(HTTPMessage message, const TCPStream& stream, const StreamContext& context);
    /// The same in place of what `shown` held, whose memory is used again.
    static void show(HTTPMessage&& message, const TCPStream& stream, const StreamContext& context, StreamMessage& shown);
    /// "GET /index.html → 200 (text/html, 5.2 kB, 31 ms)".
    static std::string pairingSummary(const StreamMessage& request, const StreamMessage* reply);
    /// Adds the parts of a reply that stand in brackets.
    static void appendBodyText(std::string& summary, const StreamMessage& reply);
    static std::string_view text(const StreamMessage& message, std::string_view key);
    static std::int64_t number(const StreamMessage& message, std::string_view key);
    /// Sets where and when a message was carried.
    static void locate(StreamMessage& shown, const TCPStream& stream, ByteRange range, const ByteRanges& pieces);
};

}  // namespace sealscope
