// SPDX-License-Identifier: Apache-2.0
#include "interpreters/HTTP/HTTP2Reading.h"

#include "interpreters/HTTP/CarriedStream.h"
#include "interpreters/HTTP/MessageText.h"

#include <algorithm>
#include <charconv>
#include <fmt/format.h>
#include <iterator>
#include <limits>
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
    for (auto& [number, inner] : tunnels) {
        followTunnel(number, inner.get(), StreamExtent::whole);
        answered_.insert(number);
    }
    readAll(tunnels);
    return conversation_.finish();
}

void HTTP2Reading::tell()
{
    readAll({});
    conversation_.handOverRest();
}

void HTTP2Reading::readAll(const HTTP2Tunnels& tunnels)
{
    // Nobody answers what a client promises, which it may not (RFC 9113 §8.4).
    for (HTTP2Half& half : asking_.halves())
        if (half.hasRequest() && !tunnels.contains(half.stream))
            readExchange(half, half.promisedOn ? nullptr : answering_.half(half.stream));
    // A promise may come behind what it promises, whose reply it is all the same.
    for (HTTP2Half& half : answering_.halves())
        if (half.promisedOn) readExchange(half, answering_.half(half.stream & 0x7FFF'FFFF));
    for (HTTP2Half& half : answering_.halves()) {
        if (half.promisedOn || answered_.contains(half.stream)) continue;
        readReply(half, nullptr, 0, asking_.half(half.stream));
        conversation_.handOver();
    }
    for (HTTP2Direction* direction : {&asking_, &answering_}) readConnection(*direction);
}

StreamInterpretation HTTP2Reading::takeFinished(HTTP2Tunnels& tunnels)
{
    for (HTTP2Direction* direction : {&asking_, &answering_}) {
        readConnection(*direction);
        direction->forgetConnection();
    }
    absl::flat_hash_set<std::uint32_t> finished;
    addFinished(finished, &tunnels);
    for (auto tunnel = tunnels.begin(); tunnel != tunnels.end();) {
        const auto& [number, inner] = *tunnel;
        const HTTP2Half* const asked = asking_.half(number);
        const bool isOver = !asked || isFinished(*asked, answering_.half(number));
        followTunnel(number, inner.get(), isOver ? StreamExtent::whole : StreamExtent::growing);
        if (isOver) finished.insert(number);
        tunnel = isOver ? tunnels.erase(tunnel) : std::next(tunnel);
    }
    forget(finished);
    return conversation_.finish();
}

void HTTP2Reading::tellFinished(std::size_t mostHeld)
{
    absl::flat_hash_set<std::uint32_t> finished;
    addFinished(finished, nullptr);
    forget(finished);
    answered_.clear();
    const std::size_t held = asking_.held() + answering_.held();
    if (held <= mostHeld) return;
    finished.clear();
    isCutShort_ = true;
    addOldest(finished, held - mostHeld + mostHeld / 16);
    isCutShort_ = false;
    forget(finished);
    answered_.clear();
}

void HTTP2Reading::addFinished(absl::flat_hash_set<std::uint32_t>& finished, HTTP2Tunnels* tunnels)
{
    enum class Opening : std::uint8_t { request, promise };
    const auto addExchanges = [&](HTTP2Direction& direction, Opening opening) {
        for (HTTP2Half& half : direction.halves()) {
            if (half.promisedOn.has_value() != (opening == Opening::promise) || (tunnels && tunnels->contains(half.stream))) continue;
            HTTP2Half* const answer = answering_.half(half.stream & 0x7FFF'FFFF);
            if (tunnels ? !isFinished(half, answer) : !isOver(half, answer)) {
                if (tunnels && answer && isTunnel(half, *answer)) tunnels->emplace(half.stream, beginTunnel(half, *answer));
                continue;
            }
            // A reset may come when everything has been said.
            if (half.hasRequest())
                readExchange(half, answer);
            else if (!tunnels && answer)
                readReply(*answer, nullptr, 0, &half);
            finished.insert(half.stream);
            finished.insert(half.stream & 0x7FFF'FFFF);
        }
    };
    addExchanges(asking_, Opening::request);
    addExchanges(answering_, Opening::promise);
    for (HTTP2Half& half : answering_.halves()) {
        if (half.promisedOn || finished.contains(half.stream) || asking_.half(half.stream)) continue;
        if (tunnels && tunnels->contains(half.stream)) continue;
        const bool isReply = !half.blocks.empty() && half.blocks.front().pseudoField(":status");
        // Of a stream that goes on, what comes on one behind its end says nothing.
        const bool isTold = isReply || (!tunnels && half.hasRequest());
        if (isTold && !half.isEnded && !half.resetCode) continue;
        // Of a connection that is whole, its request may not have been read yet.
        if (!tunnels && half.stream > asking_.highestStream() && half.stream % 2 == 1 && !asking_.isAtEnd()) continue;
        if (isTold) readReply(half, nullptr, 0, nullptr);
        finished.insert(half.stream);
        conversation_.handOver();
    }
}

bool HTTP2Reading::isOver(const HTTP2Half& asked, const HTTP2Half* answer) const
{
    if (!isFinished(asked, answer) || answering_.isInHeaders(asked.stream & 0x7FFF'FFFF)) return false;
    const auto isAtEnd = [](const HTTP2Half& half) { return half.isEnded || half.promisedOn || half.resetCode; };
    // Whether the other side was read until it must have heard of a reset.
    constexpr double underWay = 1;  // seconds
    const auto isReadUpTo = [&](const HTTP2Half& reset, TCPSegment::Direction direction, const HTTP2Direction& other) {
        if (other.isAtEnd()) return true;
        const std::int64_t end = reset.frames.bounds().upper;
        const auto time = stream_.locate({end - 1, end}, direction).timestamp;
        const auto next = stream_.locate({other.offset(), other.offset() + 1}, other.direction()).timestamp;
        return time && next && *next > *time + underWay;
    };
    if (asked.resetCode && !(answer && isAtEnd(*answer)))
        return isReadUpTo(asked, (asked.promisedOn ? answering_ : asking_).direction(), answering_);
    if (answer && answer->resetCode && !isAtEnd(asked)) return isReadUpTo(*answer, answering_.direction(), asking_);
    return true;
}

void HTTP2Reading::addOldest(absl::flat_hash_set<std::uint32_t>& finished, std::size_t bytes)
{
    std::size_t freed = 0;
    const auto addExchange = [&](HTTP2Half& half, HTTP2Half* answer) {
        freed += HTTP2Direction::heldBy(half) + (answer ? HTTP2Direction::heldBy(*answer) : 0);
        if (half.hasRequest())
            readExchange(half, answer);
        else if (answer)
            readReply(*answer, nullptr, 0, &half);
        finished.insert(half.stream);
        finished.insert(half.stream & 0x7FFF'FFFF);
    };
    for (HTTP2Half& half : asking_.halves())
        if (freed < bytes && !asking_.isInHeaders(half.stream) && !answering_.isInHeaders(half.stream))
            addExchange(half, half.promisedOn ? nullptr : answering_.half(half.stream));
    for (HTTP2Half& half : answering_.halves()) {
        if (freed >= bytes || answering_.isInHeaders(half.stream)) continue;
        if (half.promisedOn) {
            addExchange(half, answering_.half(half.stream & 0x7FFF'FFFF));
        } else if (!finished.contains(half.stream) && !asking_.half(half.stream)) {
            freed += HTTP2Direction::heldBy(half);
            readReply(half, nullptr, 0, nullptr);
            finished.insert(half.stream);
            conversation_.handOver();
        }
    }
}

void HTTP2Reading::forget(const absl::flat_hash_set<std::uint32_t>& finished)
{
    if (finished.empty()) return;
    for (HTTP2Direction* direction : {&asking_, &answering_}) direction->forget(finished);
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
    if (told_ == Told::exchanges) {
        const bool isAnswered = answer && answered_.insert(asked.stream & 0x7FFF'FFFF).second;
        turns_.push_back({std::move(asked), isAnswered ? std::optional(std::move(*answer)) : std::nullopt, isCutShort_});
        return;
    }
    readFrames(asked.promisedOn ? answering_ : asking_, asked.frames.bounds().lower);
    const std::uint32_t number = asked.stream & 0x7FFF'FFFF;
    const bool hasAnswer = answer && answered_.insert(number).second;
    if (hasAnswer) readFrames(answering_, answer->frames.bounds().lower);
    HTTPMessage request = requestOf(asked, answer);
    HTTPMessage known;
    known.method = request.method;
    known.url = request.url;
    const bool isTunnel = known.method == "CONNECT";
    const ByteRanges askedData = isTunnel ? std::exchange(request.body.ranges, {}) : ByteRanges();
    const auto inside = BodyMessages::in(request, known.url);
    const std::int64_t position = conversation_.addWaiting(HTTPMessages::shown(std::move(request), stream_, context_));
    if (inside) inside->append(conversation_, stream_, context_);
    if (!hasAnswer) {
        conversation_.pair(position, std::nullopt);
        return conversation_.handOver();
    }
    const std::string* const connect = asked.blocks.empty() ? nullptr : HeaderField::find(conversation_[position].detail, ":protocol");
    const std::optional<std::string> protocol = connect ? std::optional(*connect) : std::nullopt;
    const ByteRanges answeredData = isTunnel ? answer->data : ByteRanges();
    HeaderFields fields;
    if (readReply(*answer, &known, position, &asked, isTunnel ? &fields : nullptr)) {
        Carried carried = tunnel(number, protocol, askedData, answeredData);
        carried.reply = std::move(fields);
        Carried::append(conversation_, stream_, context_, carried);
    }
    conversation_.handOver();
}

Carried HTTP2Reading::tunnel(std::uint32_t stream, std::optional<std::string> protocol, ByteRanges asked, ByteRanges answered) const
{
    if (asking_.direction() != Direction::clientToServer) std::swap(asked, answered);
    return {.client = std::move(asked), .server = std::move(answered), .protocol = std::move(protocol), .streamId = stream};
}

HeaderFields HTTP2Reading::rowsFrom(StreamMessage& told) const
{
    HeaderFields rows = std::move(told.detail);
    const std::vector<DetailRow>& front = context_.rowsInFront;
    if (rows.size() < front.size()) rows.resize(front.size());
    for (std::size_t i = 0; i < front.size(); ++i)
        if (rows[i] != front[i]) rows[i] = front[i];
    return rows;
}

void HTTP2Reading::make(HTTP2Turn& turn, StreamExchange& exchange)
{
    isCutShort_ = turn.isCutShort;
    make(turn.asked ? &*turn.asked : nullptr, turn.answer ? &*turn.answer : nullptr, std::nullopt, exchange, turn.isReplyAlone);
    isCutShort_ = false;
}

void HTTP2Reading::make(HTTP2Half* asked, HTTP2Half* answer, std::optional<HTTPMessage::Packet> packet, StreamExchange& exchange,
                        bool isReplyAlone)
{
    const std::size_t inFront = context_.rowsInFront.size();
    // The memory of what was told last is used again.
    const auto messageIn = [](std::optional<StreamMessage>& held) -> StreamMessage& { return held ? *held : held.emplace(); };
    const std::size_t head = answer ? answer->finalHead() : 0;
    const bool hasReply = answer && answer->hasReply(head);
    std::optional<HTTPMessage> request;
    if (!isReplyAlone) {
        request = requestOf(*asked, answer, rowsFrom(messageIn(exchange.request)), inFront);
        request->packet = packet;
    } else {
        exchange.request.reset();
    }
    ByteRanges askedData, answeredData;
    std::optional<std::string> protocol;
    const bool isTunnel = request && request->method == "CONNECT";
    if (isTunnel) {
        askedData = std::exchange(request->body.ranges, {});
        if (answer) answeredData = answer->data;
        if (!asked->blocks.empty())
            if (const std::string* const connect = HeaderField::find(request->fields, ":protocol")) protocol = *connect;
    }
    if (hasReply) {
        StreamMessage& shownReply = messageIn(exchange.reply);
        HTTPMessage reply = request ? replyOf(*answer, head, request->url, request->method, asked, rowsFrom(shownReply), inFront)
                                    : replyOf(*answer, head, {}, {}, asked, rowsFrom(shownReply), inFront);  // how the stream ended
        const bool isOpened = isTunnel && reply.status / 100 == 2;
        HTTPMessages::show(std::move(reply), stream_, context_, shownReply);
        if (isOpened) {
            Carried carried = tunnel(asked->stream & 0x7FFF'FFFF, std::move(protocol), std::move(askedData), std::move(answeredData));
            carried.reply = shownReply.detail;
            if (carried.isWebSocket()) shownReply.tellCarried = carried.teller(stream_, context_);
            // There may be many at once.
            StreamContext share = context_;
            share.mostHeld /= 32;
            if (auto exchanges = carried.exchanges(stream_, share)) inside_.push_back(std::move(exchanges));
        }
    } else {
        exchange.reply.reset();
    }
    if (request) HTTPMessages::show(*std::move(request), stream_, context_, *exchange.request);
}

bool HTTP2Reading::readReply(HTTP2Half& half, const HTTPMessage* request, std::int64_t position, const HTTP2Half* asked,
                             HeaderFields* fields)
{
    if (conversation_.isFull() && !request) return false;
    const std::size_t head = half.finalHead();
    if (told_ == Told::exchanges) {
        if (!half.hasReply(head)) return false;
        HTTP2Turn& turn = turns_.emplace_back();
        if (asked) turn.asked.emplace().resetCode = asked->resetCode;
        turn.answer.emplace(std::move(half));
        turn.isCutShort = isCutShort_;
        turn.isReplyAlone = true;
        return false;
    }
    for (std::size_t i = 0; i < head; ++i) {
        HTTP2Block& block = half.blocks[i];
        HTTPMessage interim{.direction = answering_.direction(), .kind = StreamMessageKind::data, .protocol = "HTTP/2"};
        interim.status = static_cast<int>(number(*block.pseudoField(":status")));
        interim.range = block.range;
        interim.streamId = half.stream;
        block.fields.appendTo(interim.fields);
        conversation_.add(HTTPMessages::shown(std::move(interim), stream_, context_));
        conversation_.handOver();
    }
    std::optional<std::int64_t> final;
    std::optional<BodyMessages> inside;
    bool isTunnel = false;
    if (half.hasReply(head)) {
        HTTPMessage reply = request ? replyOf(half, head, request->url, request->method, asked) : replyOf(half, head, {}, {}, asked);
        inside = BodyMessages::in(reply, reply.url);
        isTunnel = fields && reply.status / 100 == 2;
        final = conversation_.add(HTTPMessages::shown(std::move(reply), stream_, context_));
    }
    if (isTunnel) *fields = conversation_[*final].detail;
    if (request) conversation_.pair(position, final);
    // The reply may be handed over in this.
    if (inside) inside->append(conversation_, stream_, context_);
    return isTunnel;
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
        std::string reason = code          ? "the stream was reset: " + HTTP2Frame::errorName(*code)
                             : isCutShort_ ? "too many streams were open at once to wait for its end"
                                           : "the capture has no end of it";
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

void HTTP2Reading::readFrames(HTTP2Direction& direction, std::int64_t before)
{
    if (told_ == Told::exchanges) return;
    for (const HTTP2Frame& frame : direction.takeFrames(before)) {
        conversation_.add(shown(frame, direction.direction()));
        conversation_.handOver();
    }
    for (const ByteRange& gap : direction.takeGaps(before)) {
        const std::string why = gap.upper == stream_.data(direction.direction()).size() && gap.size() < HTTP2Frame::headerLength
                                    ? " of a frame that the capture cuts"
                                    : " outside of any frame";
        StreamMessage message{.direction = direction.direction(), .summary = byteCountText(gap.size()) + why};
        message.attributes = {{"encodedBytes", gap.size()}};
        HTTPMessages::locate(message, stream_, gap, {});
        conversation_.add(std::move(message));
    }
}

void HTTP2Reading::readConnection(HTTP2Direction& direction)
{
    readFrames(direction, std::numeric_limits<std::int64_t>::max());
    if (told_ == Told::exchanges) return;
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
