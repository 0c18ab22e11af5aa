// SPDX-License-Identifier: Apache-2.0
#include "interpreters/HTTP/HTTP2Reading.h"

#include "interpreters/HTTP/BodyMessages.h"
#include "interpreters/HTTP/Carried.h"
#include "interpreters/HTTP/CarriedStream.h"
#include "interpreters/HTTP/MessageText.h"

#include <algorithm>
#include <charconv>
#include <fmt/format.h>
#include <iterator>
#include <utility>

namespace sealscope {

namespace {

using Direction = TCPSegment::Direction;
using Type = HTTP2Frame::Type;

std::int64_t number(std::string_view text)
{
    std::int64_t value = -1;
    std::from_chars(text.data(), text.data() + text.size(), value);
    return value;
}

bool isGRPC(const HTTP2Block& block)
{
    const auto type = block.fields.find("content-type");
    return type && type->starts_with("application/grpc");
}

bool isFinished(const HTTP2Half& asked, const HTTP2Half* answer)
{
    const bool isReset = asked.resetCode || (answer && answer->resetCode);
    return isReset || ((asked.isEnded || asked.promisedOn) && answer && answer->isEnded);
}

/// Whether a stream has become a tunnel (RFC 9113 §8.5, RFC 8441).
bool isTunnel(const HTTP2Half& asked, const HTTP2Half& answer)
{
    if (asked.blocks.empty() || asked.blocks.front().pseudoField(":method") != "CONNECT") return false;
    const std::size_t head = answer.finalHead();
    const auto status = head < answer.blocks.size() ? answer.blocks[head].pseudoField(":status") : std::nullopt;
    return status && number(*status) / 100 == 2;
}

/// The status of a call stands behind its messages, or in place of them.
void readGRPCStatus(HTTPMessage& reply)
{
    if (reply.protocol != "gRPC") return;
    for (const HeaderFields* fields : {&reply.trailers, &reply.fields}) {
        const std::string* const status = HeaderField::find(*fields, "grpc-status");
        if (!status) continue;
        reply.attributes.push_back({"grpcStatus", number(*status)});
        if (const std::string* const text = HeaderField::find(*fields, "grpc-message"))
            reply.attributes.push_back({"grpcMessage", HeaderField::text(HeaderField::percentDecoded(*text))});
        return;
    }
}

void setBody(StreamMessage& message, const StreamData& data, ByteRange range)
{
    if (range.isEmpty()) return;
    message.body = StreamBody(CarriedStream::data(data, range));
    message.bodyHint = StreamBodyHint::binary();
}

}  // namespace

/// The pseudo-fields of a request, the first of each.
struct HTTP2Reading::RequestFields {
    explicit RequestFields(const HTTP2Block& block)
    {
        block.fields.forEach([&](std::string_view name, std::string_view value) {
            if (!name.starts_with(':') && !name.starts_with('(')) return false;
            auto* const field = name == ":method"      ? &method
                                : name == ":path"      ? &path
                                : name == ":scheme"    ? &scheme
                                : name == ":authority" ? &authority
                                                       : nullptr;
            if (field && !*field) *field = value;
            return true;
        });
    }
    std::optional<std::string_view> method, path, scheme, authority;
};

StreamInterpretation HTTP2Reading::read(HTTP2Tunnels tunnels)
{
    conversation_.reserve(asking_.halves().size() + answering_.halves().size());
    for (const HTTP2Direction* direction : {&asking_, &answering_}) readConnection(*direction);
    for (auto& [number, inner] : tunnels) {
        followTunnel(number, inner.get(), StreamExtent::whole);
        answered_.insert(number);
    }
    for (HTTP2Half& half : asking_.halves())
        if (half.hasRequest() && !tunnels.contains(half.stream)) readExchange(half, answering_.half(half.stream));
    // A promise may come behind what it promises, whose reply it is all the same.
    for (HTTP2Half& half : answering_.halves())
        if (half.promisedOn) readExchange(half, answering_.half(half.stream & 0x7FFF'FFFF));
    for (HTTP2Half& half : answering_.halves())
        if (!half.promisedOn && !answered_.contains(half.stream)) readReply(half, nullptr, 0, asking_.half(half.stream));
    return conversation_.finish();
}

StreamInterpretation HTTP2Reading::takeFinished(HTTP2Tunnels& tunnels)
{
    for (HTTP2Direction* direction : {&asking_, &answering_}) {
        readConnection(*direction);
        direction->forgetConnection();
    }
    absl::flat_hash_set<std::uint32_t> finished;
    enum class Opening : std::uint8_t { request, promise };
    const auto takeExchanges = [&](HTTP2Direction& direction, Opening opening) {
        for (HTTP2Half& half : direction.halves()) {
            if (half.promisedOn.has_value() != (opening == Opening::promise) || tunnels.contains(half.stream)) continue;
            HTTP2Half* const answer = answering_.half(half.stream & 0x7FFF'FFFF);
            if (!isFinished(half, answer)) {
                if (answer && isTunnel(half, *answer)) tunnels.emplace(half.stream, beginTunnel(half, *answer));
                continue;
            }
            // A reset may come when everything has been said.
            if (half.hasRequest()) readExchange(half, answer);
            finished.insert(half.stream);
            finished.insert(half.stream & 0x7FFF'FFFF);
        }
    };
    takeExchanges(asking_, Opening::request);
    takeExchanges(answering_, Opening::promise);
    for (auto tunnel = tunnels.begin(); tunnel != tunnels.end();) {
        const auto& [number, inner] = *tunnel;
        const HTTP2Half* const asked = asking_.half(number);
        const bool isOver = !asked || isFinished(*asked, answering_.half(number));
        followTunnel(number, inner.get(), isOver ? StreamExtent::whole : StreamExtent::growing);
        if (isOver) finished.insert(number);
        tunnel = isOver ? tunnels.erase(tunnel) : std::next(tunnel);
    }
    for (HTTP2Half& half : answering_.halves()) {
        if (half.promisedOn || finished.contains(half.stream) || asking_.half(half.stream)) continue;
        const bool isReply = !half.blocks.empty() && half.blocks.front().pseudoField(":status");
        if (isReply && !half.isEnded && !half.resetCode) continue;
        // What comes on a stream behind its end says nothing.
        if (isReply) readReply(half, nullptr, 0, nullptr);
        finished.insert(half.stream);
    }
    if (!finished.empty())
        for (HTTP2Direction* direction : {&asking_, &answering_}) direction->forget(finished);
    return conversation_.finish();
}

HTTPMessage HTTP2Reading::requestOf(HTTP2Half& asked, const HTTP2Half* answer, HeaderFields rows, std::size_t inFront)
{
    HTTPMessage request{.direction = asked.promisedOn ? answering_.direction() : asking_.direction()};
    request.fields = std::move(rows);
    fill(request, asked, answer, 0);
    if (!asked.blocks.empty()) {
        const HTTP2Block& head = asked.blocks.front();
        const RequestFields known(head);
        if (known.method) request.method = *known.method;
        request.url = urlOf(head, known);
    }
    if (request.method.empty()) request.method = "(unknown method)";
    if (asked.promisedOn) request.notes.push_back({"Pushed by the server", fmt::format("on stream {}", *asked.promisedOn)});
    if (!asked.blocks.empty())
        takeFields(request, asked, 0, inFront);
    else
        request.fields.resize(inFront);
    return request;
}

HTTPMessage HTTP2Reading::replyOf(HTTP2Half& half, std::size_t head, std::string_view url, std::string_view method, const HTTP2Half* asked,
                                  HeaderFields rows, std::size_t inFront)
{
    HTTPMessage reply{.direction = answering_.direction(), .kind = StreamMessageKind::reply};
    reply.fields = std::move(rows);
    reply.url = url;
    fill(reply, half, asked, head);
    if (head < half.blocks.size()) {
        if (const auto status = half.blocks[head].pseudoField(":status"))
            reply.status = static_cast<int>(std::clamp<std::int64_t>(number(*status), 0, 999));
        takeFields(reply, half, head, inFront);
        readGRPCStatus(reply);
    } else {
        reply.fields.resize(inFront);
    }
    if (method == "CONNECT" && reply.status / 100 == 2) reply.body = {};
    return reply;
}

std::unique_ptr<StreamFollowing> HTTP2Reading::beginTunnel(HTTP2Half& asked, HTTP2Half& answer)
{
    const ByteRanges askedData = std::exchange(asked.data, {}), answeredData = std::exchange(answer.data, {});
    const bool wasAskedEnded = std::exchange(asked.isEnded, true), wasAnswerEnded = std::exchange(answer.isEnded, true);
    const auto connect = asked.blocks.front().pseudoField(":protocol");
    const Carried carried{.protocol = connect ? std::optional(std::string(*connect)) : std::nullopt, .streamId = asked.stream};
    readExchange(asked, &answer);
    asked.isEnded = wasAskedEnded;
    answer.isEnded = wasAnswerEnded;
    asked.data = askedData;
    answer.data = answeredData;
    return carried.follow(context_);
}

void HTTP2Reading::followTunnel(std::uint32_t number, StreamFollowing* inner, StreamExtent extent)
{
    const auto dataOf = [&](Direction direction) -> ByteRanges {
        HTTP2Half* const half = (direction == asking_.direction() ? asking_ : answering_).half(number);
        return half ? half->data : ByteRanges();
    };
    const Carried carried{.client = dataOf(Direction::clientToServer), .server = dataOf(Direction::serverToClient), .streamId = number};
    if (inner) {
        StreamInterpretation inside = inner->goOn(CarriedStream::inside(stream_, carried.client, carried.server), extent);
        carried.place(inside);
        conversation_.append(std::move(inside));
    }
    for (HTTP2Direction* direction : {&asking_, &answering_}) {
        HTTP2Half* const half = direction->half(number);
        if (!half) continue;
        const std::int64_t place = inner ? std::min(inner->neededFrom(direction->direction()), half->data.size()) : half->data.size();
        half->neededFrom = half->data.isEmpty() ? direction->offset() : half->data.positionOf(place);
        half->data = half->data.forgotten(place);
        half->frames = {};
    }
}

void HTTP2Reading::readExchange(HTTP2Half& asked, HTTP2Half* answer)
{
    if (conversation_.isFull()) return;
    const std::uint32_t number = asked.stream & 0x7FFF'FFFF;
    const bool hasAnswer = answer && answered_.insert(number).second;
    HTTPMessage request = requestOf(asked, answer);
    HTTPMessage known;
    known.method = request.method;
    known.url = request.url;
    const bool isTunnel = known.method == "CONNECT";
    const ByteRanges askedData = isTunnel ? std::exchange(request.body.ranges, {}) : ByteRanges();
    const auto inside = BodyMessages::in(request, known.url);
    const std::int64_t position = conversation_.add(HTTPMessages::shown(std::move(request), stream_, context_));
    if (inside) inside->append(conversation_, stream_, context_);
    if (!hasAnswer) {
        conversation_.pair(position, std::nullopt);
        return;
    }
    const std::string* const connect = asked.blocks.empty() ? nullptr : HeaderField::find(conversation_[position].detail, ":protocol");
    const std::optional<std::string> protocol = connect ? std::optional(*connect) : std::nullopt;
    const ByteRanges answeredData = isTunnel ? answer->data : ByteRanges();
    const auto reply = readReply(*answer, &known, position, &asked);
    if (isTunnel && reply && HTTPMessages::number(conversation_[*reply], "status") / 100 == 2)
        Carried::append(conversation_, stream_, context_,
                        {.client = asking_.direction() == Direction::clientToServer ? askedData : answeredData,
                         .server = asking_.direction() == Direction::clientToServer ? answeredData : askedData,
                         .protocol = protocol,
                         .streamId = number,
                         .reply = conversation_[*reply].detail});
}

std::optional<std::int64_t> HTTP2Reading::readReply(HTTP2Half& half, const HTTPMessage* request, std::int64_t position,
                                                    const HTTP2Half* asked)
{
    std::optional<std::int64_t> final;
    const std::size_t head = half.finalHead();
    for (std::size_t i = 0; i < head; ++i) {
        HTTP2Block& block = half.blocks[i];
        HTTPMessage interim{.direction = answering_.direction(), .kind = StreamMessageKind::data, .protocol = "HTTP/2"};
        interim.status = static_cast<int>(number(*block.pseudoField(":status")));
        interim.range = block.range;
        interim.streamId = half.stream;
        block.fields.appendTo(interim.fields);
        conversation_.add(HTTPMessages::shown(std::move(interim), stream_, context_));
    }
    if (half.hasReply(head)) {
        HTTPMessage reply = request ? replyOf(half, head, request->url, request->method, asked) : replyOf(half, head, {}, {}, asked);
        const auto inside = BodyMessages::in(reply, reply.url);
        final = conversation_.add(HTTPMessages::shown(std::move(reply), stream_, context_));
        if (inside) inside->append(conversation_, stream_, context_);
    }
    if (request) conversation_.pair(position, final);
    return final;
}

void HTTP2Reading::fill(HTTPMessage& message, HTTP2Half& half, const HTTP2Half* other, std::size_t head)
{
    message.protocol = head < half.blocks.size() && isGRPC(half.blocks[head]) ? "gRPC" : "HTTP/2";
    message.range = half.frames.bounds();
    if (head > 0 && head < half.blocks.size()) message.range.lower = half.blocks[head].range.lower;
    message.streamId = half.stream & 0x7FFF'FFFF;
    message.body.ranges = std::exchange(half.data, {});
    if (!half.frames.isInOnePlace()) message.pieces = std::exchange(half.frames, {});
    if (!half.isEnded && !half.promisedOn) {
        const auto code = half.resetCode ? half.resetCode : other ? other->resetCode : std::nullopt;
        std::string reason = code ? "the stream was reset: " + HTTP2Frame::errorName(*code) : "the capture has no end of it";
        if (message.body.ranges.isEmpty())
            message.notes.push_back({"Message incomplete", std::move(reason)});
        else
            message.body.shortfall = std::move(reason);
    }
    if (half.resetCode && half.isEnded) message.notes.push_back({"Stream reset", HTTP2Frame::errorName(*half.resetCode)});
    if (half.blocks.size() <= head) message.notes.push_back({"Header incomplete", "the capture lacks it"});
}

void HTTP2Reading::takeFields(HTTPMessage& message, HTTP2Half& half, std::size_t head, std::size_t inFront)
{
    half.blocks[head].fields.assignTo(message.fields, inFront, 1 - std::min<std::size_t>(inFront, 1));  // who decrypted them adds a row
    std::ranges::move(half.blocks[head].notes, std::back_inserter(message.notes));
    for (std::size_t trailers = head + 1; trailers < half.blocks.size(); ++trailers) {
        half.blocks[trailers].fields.appendTo(message.trailers);
        std::ranges::move(half.blocks[trailers].notes, std::back_inserter(message.notes));
    }
    HTTPMessages::readCodings(message);
    if (!half.isEnded || message.body.ranges.isEmpty()) return;
    const std::string* const length = HeaderField::find(message.fields, "content-length");
    if (length && number(*length) != message.body.ranges.size())
        message.notes.push_back({"Content length unclear",
                                 fmt::format("content-length is {}, but {} bytes came", *length, groupedText(message.body.ranges.size()))});
}

std::string HTTP2Reading::urlOf(const HTTP2Block& head, const RequestFields& known) const
{
    const std::string_view scheme = known.scheme ? *known.scheme : context_.isDecrypted ? "https" : "http";
    const auto authority = known.authority ? known.authority : head.fields.find("host");
    std::string url;
    url.reserve(scheme.size() + 3 + (authority ? authority->size() : 64) + (known.path ? known.path->size() : 16));
    url.append(scheme).append("://");
    if (authority)
        url.append(*authority);
    else
        url.append(context_.serverName ? *context_.serverName : stream_.serverEndpoint.text());
    if (known.path && *known.path != "*")
        url.append(*known.path);
    else if (!known.path && known.method != "CONNECT")
        url.append("/(unknown path)");
    return url;
}

void HTTP2Reading::readConnection(const HTTP2Direction& direction)
{
    for (const HTTP2Frame& frame : direction.frames()) conversation_.add(shown(frame, direction.direction()));
    for (const ByteRange& gap : direction.gaps()) {
        const std::string why = gap.upper == stream_.data(direction.direction()).size() && gap.size() < HTTP2Frame::headerLength
                                    ? " of a frame that the capture cuts"
                                    : " outside of any frame";
        StreamMessage message{.direction = direction.direction(), .summary = byteCountText(gap.size()) + why};
        message.attributes = {{"encodedBytes", gap.size()}};
        HTTPMessages::locate(message, stream_, gap, {});
        conversation_.add(std::move(message));
    }
    if (auto rows = direction.connectionRows(); !rows.empty()) {
        StreamMessage message{
            .direction = direction.direction(), .summary = "HTTP/2 flow control and priorities", .detail = std::move(rows)};
        message.timestamp = stream_.endTime;
        conversation_.add(std::move(message));
    }
}

StreamMessage HTTP2Reading::shown(const HTTP2Frame& frame, Direction direction) const
{
    const StreamData& data = stream_.data(direction);
    StreamReader reader(data);
    StreamMessage message{.direction = direction, .summary = frame.typeName()};
    const std::int64_t payload = frame.payload().lower, end = std::min(frame.payload().upper, data.size());
    const auto u32 = [&](std::int64_t offset) { return static_cast<std::uint32_t>(reader.u16(offset)) << 16 | reader.u16(offset + 2); };
    const bool isAcknowledgment = frame.has(HTTP2Frame::acknowledged) && (frame.type == Type::settings || frame.type == Type::ping);
    if (isAcknowledgment) message.summary += " acknowledged";
    if (frame.stream != 0) message.detail.push_back({"Stream", std::to_string(frame.stream)});
    switch (frame.type) {
    case Type::settings:
        for (std::int64_t offset = payload; offset + 6 <= end && message.detail.size() < 100; offset += 6)
            message.detail.push_back({HTTP2Frame::settingName(reader.u16(offset)), std::to_string(u32(offset + 2))});
        break;
    case Type::rstStream: message.summary += fmt::format(" {} {}", frame.stream, HTTP2Frame::errorName(u32(payload))); break;
    case Type::goAway:
        message.summary += ' ' + HTTP2Frame::errorName(u32(payload + 4));
        message.detail.push_back({"Last stream", std::to_string(u32(payload) & 0x7FFF'FFFF)});
        setBody(message, data, {payload + 8, end});
        break;
    default: setBody(message, data, {payload, end}); break;
    }
    message.attributes = {{"protocol", "HTTP/2"}, {"frameType", std::int64_t{static_cast<std::uint8_t>(frame.type)}}};
    HTTPMessages::locate(message, stream_, {frame.offset, end}, {});
    return message;
}

}  // namespace sealscope
