// SPDX-License-Identifier: Apache-2.0
#include "interpreters/HTTP/BodyMessages.h"

#include "interpreters/HTTP/CarriedStream.h"
#include "interpreters/HTTP/MessageText.h"
#include "interpreters/HTTP/ProtobufFields.h"

#include <algorithm>
#include <fmt/format.h>
#include <utility>

namespace sealscope {

namespace {

using Direction = TCPSegment::Direction;

/// The context of a body of which so many bytes are wanted.
StreamContext upTo(std::int64_t bytes, StreamContext context)
{
    context.largestDecodedBody = std::min(context.largestDecodedBody, bytes);
    return context;
}

// Messages whose fields are shown, and how much of an event stream is read for its events.
constexpr std::int64_t longestShown = 1 << 16;
constexpr std::int64_t longestEvents = 1 << 24;
constexpr std::size_t longestEvent = 1 << 20;

std::string_view lastPathParts(std::string_view url)
{
    const std::size_t authority = url.find("://");
    const std::size_t path = authority == std::string_view::npos ? url.find('/') : url.find('/', authority + 3);
    return path == std::string_view::npos ? url : url.substr(path);
}

/// The fields of one event while its lines come (HTML Living Standard, §9.2.6).
struct Event {
    std::string type;
    std::string data;
    std::string id;
    bool hasData = false;
    std::int64_t begin = 0;  ///< offset in the body

    void addLine(std::string_view line)
    {
        if (line.starts_with(':')) return;
        const std::size_t colon = std::min(line.find(':'), line.size());
        std::string_view value = line.substr(std::min(colon + 1, line.size()));
        if (value.starts_with(' ')) value.remove_prefix(1);
        const std::string_view name = line.substr(0, colon);
        if (name == "data") {
            if (std::exchange(hasData, true)) data += '\n';
            data += value;
        } else if (name == "event") {
            type = value;
        } else if (name == "id") {
            id = value;
        }
    }
};

}  // namespace

std::optional<BodyMessages> BodyMessages::in(const HTTPMessage& message, std::string url)
{
    if (message.body.ranges.isEmpty()) return std::nullopt;
    const std::string* const type = HeaderField::find(message.fields, "content-type");
    if (!type) return std::nullopt;
    const std::string_view media = HeaderField::mediaType(*type);
    const bool isCall = media.starts_with("application/grpc") && !media.starts_with("application/grpc-web-text");
    if (!isCall && !(media == "text/event-stream" && message.kind == StreamMessageKind::reply)) return std::nullopt;

    BodyMessages messages;
    messages.kind_ = isCall ? Kind::calls : Kind::events;
    messages.direction_ = message.direction;
    messages.body_ = message.body;
    messages.url_ = std::move(url);
    if (const std::string* const encoding = HeaderField::find(message.fields, "grpc-encoding")) messages.encoding_ = *encoding;
    messages.attributes_.push_back({"protocol", isCall ? "gRPC" : "Server-sent events"});
    if (message.streamId) messages.attributes_.push_back({"streamId", *message.streamId});
    return messages;
}

void BodyMessages::append(Conversation& conversation, const TCPStream& stream, const StreamContext& context) const
{
    kind_ == Kind::calls ? appendCalls(conversation, stream, context) : appendEvents(conversation, stream, context);
}

void BodyMessages::appendCalls(Conversation& conversation, const TCPStream& stream, const StreamContext& context) const
{
    const bool isClient = direction_ == Direction::clientToServer;
    const TCPStream inner = CarriedStream::inside(stream, isClient ? body_.ranges : ByteRanges(), isClient ? ByteRanges() : body_.ranges);
    const StreamData& data = inner.data(direction_);
    const CarriedPlaces places(body_.ranges);
    StreamReader reader(data);
    // Two bytes can be a field, whose row takes as long as decoding so many bytes.
    constexpr std::int64_t costOfRow = 512;
    bool mayShowFields = true;
    // A flag, a length and the message (gRPC over HTTP2, "Length-Prefixed-Message").
    for (std::int64_t offset = 0; offset + 5 <= data.size() && !conversation.isFull();) {
        const std::uint8_t flag = reader.u8(offset);
        const std::int64_t length = std::int64_t{reader.u16(offset + 1)} << 16 | reader.u16(offset + 3);
        const ByteRange payload{offset + 5, std::min(offset + 5 + length, data.size())};
        const std::int64_t missing = length - payload.size();
        const bool isTrailers = (flag & 0x80) != 0, isCompressed = (flag & 1) != 0;

        StreamMessage message{.direction = direction_};
        message.summary = fmt::format("{} {} ({}{})", isTrailers ? "gRPC trailers" : "gRPC message", lastPathParts(url_),
                                      byteCountText(length), isCompressed ? " " + encoding_ : "");
        message.attributes = attributes_;
        message.attributes.push_back({"encodedBytes", payload.size()});
        CarriedBody carried{.ranges = payload};
        if (missing > 0) carried.shortfall = fmt::format("{} of its {} bytes are missing", groupedText(missing), groupedText(length));
        const auto coding = isCompressed ? contentCodingNamed(encoding_) : std::nullopt;
        if (coding) carried.codings = {*coding};
        if (missing > 0) message.detail.push_back({"Message incomplete", carried.shortfall});
        if (!payload.isEmpty()) {
            // Only messages whose fields are shown are decoded now.
            if (!mayShowFields && !isTrailers) message.detail.push_back({"Fields unknown", "the capture has too many of them"});
            if (mayShowFields && payload.size() <= longestShown && missing == 0 && (!isCompressed || coding) && !isTrailers) {
                const MessageBody body(inner, direction_, carried, upTo(longestShown, context));
                std::vector<std::uint8_t> bytes;
                const auto ending = body.forEachPiece([&](DataView piece) {
                    bytes.insert(bytes.end(), piece.begin(), piece.end());
                    return true;
                });
                if (ending.isComplete) {
                    auto rows = ProtobufFields::rows(bytes);
                    const std::int64_t cost = costOfRow * std::ssize(rows);
                    mayShowFields = !context.decodingAllowance || context.decodingAllowance->take(cost) == cost;
                    std::ranges::move(rows, std::back_inserter(message.detail));
                } else {
                    message.detail.push_back({"Fields unknown", ending.reason});
                }
            }
            if (isCompressed && !coding) message.detail.push_back({"Fields unknown", "the coding " + encoding_ + " is not known"});
            message.body = StreamBody(std::make_shared<const MessageBody>(inner, direction_, std::move(carried), context));
            message.bodyHint = isTrailers ? StreamBodyHint::text(TextEncoding::utf8) : StreamBodyHint::binary();
        }
        HTTPMessages::locate(message, inner, {offset, payload.upper}, {});
        message.byteRange = places.outerRange(*message.byteRange);
        conversation.add(std::move(message));
        conversation.handOver();
        offset = payload.upper;
    }
}

void BodyMessages::appendEvents(Conversation& conversation, const TCPStream& stream, const StreamContext& context) const
{
    const bool isClient = direction_ == Direction::clientToServer;
    const TCPStream inner = CarriedStream::inside(stream, isClient ? body_.ranges : ByteRanges(), isClient ? ByteRanges() : body_.ranges);
    const CarriedPlaces places(body_.ranges);
    const bool isCoded = !body_.codings.empty();
    const MessageBody body(stream, direction_, body_, upTo(longestEvents, context));

    std::string line;
    Event event;
    std::int64_t offset = 0;
    bool wasReturn = false;
    const auto endLine = [&] {
        if (!line.empty()) {
            event.addLine(line);
            line.clear();
            return;
        }
        if (event.hasData) {
            StreamMessage message{.direction = direction_};
            message.summary = fmt::format("Event {} ({})", event.type.empty() ? "message" : HeaderField::text(event.type),
                                          byteCountText(std::ssize(event.data)));
            message.attributes = attributes_;
            message.attributes.push_back({"eventType", event.type.empty() ? "message" : HeaderField::text(event.type)});
            if (!event.id.empty()) message.detail.push_back({"Event ID", HeaderField::text(event.id)});
            message.bodyHint = StreamBodyHint::text(TextEncoding::utf8);
            // Where a coded body carried it cannot be told.
            if (!isCoded) {
                HTTPMessages::locate(message, inner, {event.begin, offset + 1}, {});
                message.byteRange = places.outerRange(*message.byteRange);
            }
            message.attributes.push_back({"encodedBytes", std::ssize(event.data)});
            message.body = StreamBody(Data::fromText(event.data));
            conversation.add(std::move(message));
            conversation.handOver();
        }
        event = {};
        event.begin = offset + 1;
    };
    body.forEachPiece([&](DataView piece) {
        for (const std::uint8_t byte : piece) {
            // Lines end in CR, LF or both.
            if (byte == '\n' && wasReturn) {
                if (event.begin == offset) ++event.begin;
            } else if (byte == '\n' || byte == '\r') {
                endLine();
            } else if (line.size() + event.data.size() < longestEvent) {
                line += static_cast<char>(byte);
            }
            wasReturn = byte == '\r';
            ++offset;
        }
        return offset < longestEvents && !conversation.isFull();
    });
}

}  // namespace sealscope
