// SPDX-License-Identifier: Apache-2.0
#include "interpreters/HTTP/WebSocketInterpreter.h"

#include "interpreters/HTTP/Conversation.h"
#include "interpreters/HTTP/HTTPMessage.h"
#include "interpreters/HTTP/MessageText.h"
#include "interpreters/HTTP/WebSocketFrame.h"
#include "interpreters/HTTP/WebSocketInflation.h"
#include "platform/UTF8.h"

#include <algorithm>
#include <fmt/format.h>
#include <optional>
#include <string>
#include <utility>

namespace sealscope {

namespace {

using Direction = TCPSegment::Direction;
using Opcode = WebSocketFrame::Opcode;

// Characters of a text that its summary quotes.
constexpr std::int64_t quoted = 80;

/// The payload of a message that is not deflated.
class PlainBody final : public StreamBody::Source {
public:
    PlainBody(const TCPStream& stream, Direction direction, ByteRange frames, std::int64_t length, std::int64_t missing)
        : payload_(stream, direction), frames_(frames), length_(length), missing_(missing)
    {}
    std::optional<std::int64_t> knownLength() const override { return length_; }
    StreamBody::Ending forEachPiece(const StreamBody::Take& take) const override
    {
        const std::int64_t lost = payload_.forEachPiece(frames_, take);
        if (missing_ > 0) return {false, fmt::format("the capture lacks its last {} bytes", groupedText(missing_))};
        if (lost > 0) return {false, fmt::format("the capture lacks {} of it, shown as zeros", byteCountText(lost))};
        return {};
    }

private:
    WebSocketPayload payload_;
    ByteRange frames_;
    std::int64_t length_;
    std::int64_t missing_;
};

/// The payload of a deflated message.
class DeflatedBody final : public StreamBody::Source {
public:
    DeflatedBody(std::shared_ptr<const WebSocketInflation> inflation, std::size_t message)
        : inflation_(std::move(inflation)), message_(message)
    {}
    std::optional<std::int64_t> knownLength() const override { return std::nullopt; }
    StreamBody::Ending forEachPiece(const StreamBody::Take& take) const override { return inflation_->forEachPiece(message_, take); }

private:
    std::shared_ptr<const WebSocketInflation> inflation_;
    std::size_t message_;
};

/// The payload of a deflated message behind too many others.
class UnreadBody final : public StreamBody::Source {
public:
    std::optional<std::int64_t> knownLength() const override { return 0; }
    StreamBody::Ending forEachPiece(const StreamBody::Take&) const override
    {
        return {false, "too many deflated messages of few bytes came before it"};
    }
};

/// RFC 6455 §7.4.1.
std::string_view closeName(int code)
{
    switch (code) {
    case 1000: return "normal closure";
    case 1001: return "going away";
    case 1002: return "protocol error";
    case 1003: return "unsupported data";
    case 1007: return "invalid payload data";
    case 1008: return "policy violation";
    case 1009: return "message too big";
    case 1010: return "extension missing";
    case 1011: return "internal error";
    default: return {};
    }
}

/// A message of which the last fragment is yet to come.
struct OpenMessage {
    WebSocketFrame first;
    WebSocketFrame last;
    std::int64_t bytes = 0;
    std::int64_t fragments = 0;
};

/// Reads one direction.
class DirectionReading {
public:
    DirectionReading(const TCPStream& stream, const StreamContext& context, Direction direction, WebSocketInflation::Context inflation,
                     Conversation& conversation)
        : stream_(stream), data_(stream.data(direction)), direction_(direction), conversation_(conversation), lost_(stream, direction),
          reader_(data_), inflation_(std::make_shared<WebSocketInflation>(stream, direction, inflation, context))
    {}

    bool isOver() const { return isOver_; }
    /// When the next frame came, as far as anybody knows.
    double time() const { return stream_.locate({offset_, offset_ + 1}, direction_).timestamp.value_or(0); }

    /// Reads on by a frame, or what is left.
    void readFrame()
    {
        if (offset_ < data_.size()) {
            const WebSocketFrame frame = WebSocketFrame::read(reader_, offset_);
            const ByteRange header{offset_, offset_ + std::max<std::int64_t>(frame.headerLength, 2)};
            if (frame.headerLength > 0 && frame.isPossible && !lost_.firstIn(header)) {
                if (frame.isControl())
                    add(frame, frame, frame.length, 1);
                else
                    readData(frame);
                offset_ = frame.end();
                return;
            }
        }
        isOver_ = true;
        if (open_) addData(LastFragment::missing);
        if (offset_ >= data_.size()) return;
        // Where a frame begins can only be told from the one before it.
        const ByteRange rest{offset_, data_.size()};
        StreamMessage message{.direction = direction_, .summary = byteCountText(rest.size()) + " that are no WebSocket frame"};
        message.attributes = {{"protocol", "WebSocket"}, {"encodedBytes", rest.size()}};
        message.body = StreamBody(std::make_shared<const MessageBody>(stream_, direction_, CarriedBody{.ranges = rest}, StreamContext()));
        message.bodyHint = StreamBodyHint::binary();
        HTTPMessages::locate(message, stream_, rest, {});
        conversation_.add(std::move(message));
    }

private:
    void readData(const WebSocketFrame& frame)
    {
        if (open_ && frame.opcode != Opcode::continuation) addData(LastFragment::missing);
        if (!open_) open_.emplace().first = frame;
        open_->last = frame;
        open_->bytes += frame.length;
        ++open_->fragments;
        if (frame.isFinal) addData(LastFragment::present);
    }

    enum class LastFragment : std::uint8_t { present, missing };

    void addData(LastFragment lastFragment)
    {
        const OpenMessage open = *std::exchange(open_, std::nullopt);
        StreamMessage& message = add(open.first, open.last, open.bytes, open.fragments);
        if (lastFragment == LastFragment::missing) message.detail.push_back({"Message incomplete", "its last fragment is missing"});
        if (open.first.opcode == Opcode::continuation) message.detail.push_back({"Message incomplete", "its first fragment is missing"});
    }

    StreamMessage& add(const WebSocketFrame& first, const WebSocketFrame& last, std::int64_t bytes, std::int64_t fragments)
    {
        const ByteRange range{first.offset, std::min(last.end(), data_.size())};
        const std::int64_t missing = last.end() - range.upper;
        StreamMessage message{.direction = direction_};
        message.attributes = {{"protocol", "WebSocket"},
                              {"websocketOpcode", std::int64_t{static_cast<std::uint8_t>(first.opcode)}},
                              {"encodedBytes", bytes - missing}};
        if (fragments > 1) message.detail.push_back({"Fragments", groupedText(fragments)});
        const bool isText = first.opcode == Opcode::text;
        if (first.isCompressed) {
            if (const auto position = inflation_->add(range))
                message.body = StreamBody(std::make_shared<const DeflatedBody>(inflation_, *position));
            else
                message.body = StreamBody(std::make_shared<const UnreadBody>());
            message.detail.push_back({"Compression", "permessage-deflate"});
        } else if (bytes > 0) {
            message.body = StreamBody(std::make_shared<const PlainBody>(stream_, direction_, range, bytes - missing, missing));
        }
        if (message.body) message.bodyHint = isText ? StreamBodyHint::text(TextEncoding::utf8) : StreamBodyHint::binary();
        message.summary = summary(first, message, bytes);
        if (missing > 0)
            message.detail.push_back({"Message incomplete", fmt::format("the capture lacks its last {} bytes", groupedText(missing))});
        HTTPMessages::locate(message, stream_, range, {});
        return conversation_[conversation_.add(std::move(message))];
    }

    static std::string summary(const WebSocketFrame& first, StreamMessage& message, std::int64_t bytes)
    {
        switch (first.opcode) {
        case Opcode::close: {
            if (bytes < 2) return "Close";
            const Data payload = message.body->bytes();
            const int code = payload.view().u16(0);
            std::string text = fmt::format("Close {}", code);
            if (const std::string_view name = closeName(code); !name.empty()) text += fmt::format(" ({})", name);
            message.attributes.push_back({"closeCode", std::int64_t{code}});
            message.detail.push_back({"Code", std::to_string(code)});
            if (payload.size() > 2) {
                message.detail.push_back({"Reason", HeaderField::text(payload.view().from(2).text())});
                text += ": " + message.detail.back().value;
            }
            return text;
        }
        case Opcode::ping: return "Ping";
        case Opcode::pong: return "Pong";
        case Opcode::text:
            if (!first.isCompressed && bytes > 0 && bytes <= quoted)
                return fmt::format("Text \"{}\"", HeaderField::text(message.body->bytes().view().text()));
            return fmt::format("Text ({}{})", byteCountText(bytes), first.isCompressed ? " deflated" : "");
        default: return fmt::format("Binary ({}{})", byteCountText(bytes), first.isCompressed ? " deflated" : "");
        }
    }

    const TCPStream& stream_;
    const StreamData& data_;
    Direction direction_;
    Conversation& conversation_;
    LostBytes lost_;
    StreamReader reader_;
    std::shared_ptr<WebSocketInflation> inflation_;
    std::optional<OpenMessage> open_;
    std::int64_t offset_ = 0;
    bool isOver_ = false;
};

/// Adds both directions, in the order of their frames' times about.
void readBoth(const TCPStream& stream, const StreamContext& context, const WebSocketInterpreter::Agreement& agreement,
              Conversation& conversation)
{
    DirectionReading client(stream, context, Direction::clientToServer, agreement.client, conversation);
    DirectionReading server(stream, context, Direction::serverToClient, agreement.server, conversation);
    while (!conversation.isFull() && !(client.isOver() && server.isOver())) {
        const bool isServersTurn = client.isOver() || (!server.isOver() && server.time() < client.time());
        // A few at once: to ask for times takes longer than to read.
        DirectionReading& next = isServersTurn ? server : client;
        for (int frames = 0; frames < 16 && !next.isOver() && !conversation.isFull(); ++frames) {
            next.readFrame();
            conversation.handOver();
        }
    }
}

/// Whether a direction is WebSocket from its first byte to its last, masked or not as its side has to; with the number of its frames.
std::optional<int> frameCount(const TCPStream& stream, Direction direction)
{
    const StreamData& data = stream.data(direction);
    StreamReader reader(data);
    std::vector<std::uint8_t> scratch;
    int count = 0;
    for (std::int64_t offset = 0; offset < data.size();) {
        const WebSocketFrame frame = WebSocketFrame::read(reader, offset);
        const bool isClient = direction == Direction::clientToServer;
        if (frame.headerLength == 0 || !frame.isPossible || frame.isMasked != isClient) return std::nullopt;
        // A text that is short and whole must be one.
        if (frame.opcode == Opcode::text && frame.isFinal && !frame.isCompressed && frame.length <= 1'000 && frame.end() <= data.size()) {
            DataView text = data.gather(frame.payload(), frame.length, scratch);
            std::vector<std::uint8_t> unmasked(text.begin(), text.end());
            for (std::size_t i = 0; i < unmasked.size() && frame.isMasked; ++i) unmasked[i] ^= frame.mask[i & 3];
            if (!utf8::isWellFormed(unmasked)) return std::nullopt;
        }
        offset = frame.end();
        if (++count == 16) break;
    }
    return count;
}

}  // namespace

WebSocketInterpreter::Agreement WebSocketInterpreter::agreement(const HeaderFields& reply)
{
    Agreement agreement{.isKnown = true};
    for (const std::string_view extension : HeaderField::list(reply, "sec-websocket-extensions")) {
        if (HeaderField::mediaType(extension) != "permessage-deflate") continue;
        const auto context = [&](std::string_view parameter) {
            return extension.contains(parameter) ? WebSocketInflation::Context::beginsAnew : WebSocketInflation::Context::isKept;
        };
        agreement.client = context("client_no_context_takeover");
        agreement.server = context("server_no_context_takeover");
    }
    return agreement;
}

bool WebSocketInterpreter::canInterpret(const TCPStream& stream, const StreamContext& context)
{
    if (const auto& protocol = context.applicationProtocol) return HeaderField::isNamed(*protocol, "websocket");
    const auto client = frameCount(stream, Direction::clientToServer);
    const auto server = client ? frameCount(stream, Direction::serverToClient) : std::nullopt;
    return server && *client + *server >= 8 && *client >= 3;
}

StreamInterpretation WebSocketInterpreter::interpret(const TCPStream& stream, const StreamContext& context)
{
    Conversation conversation;
    readBoth(stream, context, {}, conversation);
    return conversation.finish();
}

void WebSocketInterpreter::forEachPart(const TCPStream& stream, const StreamContext& context, const StreamPartVisitor& visit)
{
    forEachPart(stream, context, {}, visit);
}

void WebSocketInterpreter::forEachPart(const TCPStream& stream, const StreamContext& context, const Agreement& agreement,
                                       const StreamPartVisitor& visit)
{
    Conversation conversation(&visit, context.mostHeld / 4);
    readBoth(stream, context, agreement, conversation);
    conversation.handOverRest();
}

}  // namespace sealscope
