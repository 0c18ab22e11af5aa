// SPDX-License-Identifier: Apache-2.0
#include "interpreters/HTTP/HTTP2Interpreter.h"

#include "interpreters/HTTP/BodyMessages.h"
#include "interpreters/HTTP/Carried.h"
#include "interpreters/HTTP/CarriedStream.h"
#include "interpreters/HTTP/Conversation.h"
#include "interpreters/HTTP/HTTP1Interpreter.h"
#include "interpreters/HTTP/HTTP2Direction.h"
#include "interpreters/HTTP/HTTPMessage.h"
#include "interpreters/HTTP/MessageText.h"
#include "platform/SideBySide.h"

#include <absl/container/flat_hash_set.h>
#include <algorithm>
#include <charconv>
#include <fmt/format.h>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace sealscope {

namespace {

using Direction = TCPSegment::Direction;
using Type = HTTP2Frame::Type;

// Frames in a row, and how far from the start they are looked for, of a connection whose start the capture lacks.
constexpr int framesToRecognize = 4;
constexpr std::int64_t searchedForFrames = 2'048;

bool holdsFrames(const StreamData& data)
{
    StreamReader reader(data);
    std::vector<std::uint8_t> scratch;
    const DataView head = data.gather(0, std::min(searchedForFrames, data.size()), scratch);
    // The first byte of a length, of which none needs three.
    static_assert(HTTP2Frame::longestAtFirst < 1 << 16);
    for (std::int64_t offset = 0; offset < head.size(); ++offset)
        if (head.u8(offset) == 0 && HTTP2Frame::isChain(reader, offset, framesToRecognize, HTTP2Frame::longestAtFirst)) return true;
    return false;
}

std::int64_t number(std::string_view text)
{
    std::int64_t value = -1;
    std::from_chars(text.data(), text.data() + text.size(), value);
    return value;
}

std::optional<std::string_view> pseudoField(const HTTP2Block& block, std::string_view wanted)
{
    std::optional<std::string_view> found;
    // They come first (RFC 9113 §8.3).
    block.fields.forEach([&](std::string_view name, std::string_view value) {
        if (!name.starts_with(':') && !name.starts_with('(')) return false;
        if (name == wanted) found = value;
        return !found;
    });
    return found;
}

/// The pseudo-fields of a request, the first of each.
struct RequestFields {
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

bool isGRPC(const HTTP2Block& block)
{
    const auto type = block.fields.find("content-type");
    return type && type->starts_with("application/grpc");
}

/// Which block the reply begins with: the first that is no interim one.
std::size_t finalHead(const HTTP2Half& half)
{
    const auto isInterim = [](const HTTP2Block& block) {
        const auto status = pseudoField(block, ":status");
        return status && number(*status) >= 100 && number(*status) <= 199;
    };
    return static_cast<std::size_t>(std::ranges::find_if_not(half.blocks, isInterim) - half.blocks.begin());
}

bool hasRequest(const HTTP2Half& half) { return !half.blocks.empty() || !half.data.isEmpty(); }
bool hasReply(const HTTP2Half& half, std::size_t head) { return head < half.blocks.size() || !half.data.isEmpty(); }

/// What is read in the tunnels of a connection that goes on, by their streams. Null where nothing of it is an exchange.
using HTTP2Tunnels = std::map<std::uint32_t, std::unique_ptr<StreamFollowing>>;

/// Makes messages of what two directions sent.
class HTTP2Reading {
public:
    HTTP2Reading(const TCPStream& stream, const StreamContext& context, HTTP2Direction& asking, HTTP2Direction& answering)
        : stream_(stream), context_(context), asking_(asking), answering_(answering)
    {}

    /// All of it, but what was told of tunnels that have been followed.
    StreamInterpretation read(HTTP2Tunnels tunnels = {})
    {
        conversation_.reserve(asking_.halves().size() + answering_.halves().size());
        for (const HTTP2Direction* direction : {&asking_, &answering_}) readConnection(*direction);
        for (auto& [number, inner] : tunnels) {
            followTunnel(number, inner.get(), StreamExtent::whole);
            answered_.insert(number);
        }
        for (HTTP2Half& half : asking_.halves())
            if (hasRequest(half) && !tunnels.contains(half.stream)) readExchange(half, answering_.half(half.stream));
        // A promise may come behind what it promises, whose reply it is all the same.
        for (HTTP2Half& half : answering_.halves())
            if (half.promisedOn) readExchange(half, answering_.half(half.stream & 0x7FFF'FFFF));
        for (HTTP2Half& half : answering_.halves())
            if (!half.promisedOn && !answered_.contains(half.stream)) readReply(half, nullptr, 0, asking_.half(half.stream));
        return conversation_.finish();
    }

    /// The streams of which nothing more is to come, which are taken away from both directions, and what tunnels have said since.
    StreamInterpretation takeFinished(HTTP2Tunnels& tunnels)
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
                if (hasRequest(half)) readExchange(half, answer);
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
            const bool isReply = !half.blocks.empty() && pseudoField(half.blocks.front(), ":status");
            if (isReply && !half.isEnded && !half.resetCode) continue;
            // What comes on a stream behind its end says nothing.
            if (isReply) readReply(half, nullptr, 0, nullptr);
            finished.insert(half.stream);
        }
        if (!finished.empty())
            for (HTTP2Direction* direction : {&asking_, &answering_}) direction->forget(finished);
        return conversation_.finish();
    }

    /// The request of a stream; `asked` gives up what it says. `rows` stand in front of the fields, or are memory to be used again.
    HTTPMessage requestOf(HTTP2Half& asked, const HTTP2Half* answer, HeaderFields rows = {}, std::size_t inFront = 0)
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

    /// The reply that begins with a block; `half` gives up what it says. `url` and `method` are those of its request.
    HTTPMessage replyOf(HTTP2Half& half, std::size_t head, std::string_view url, std::string_view method, const HTTP2Half* asked,
                        HeaderFields rows = {}, std::size_t inFront = 0)
    {
        HTTPMessage reply{.direction = answering_.direction(), .kind = StreamMessageKind::reply};
        reply.fields = std::move(rows);
        reply.url = url;
        fill(reply, half, asked, head);
        if (head < half.blocks.size()) {
            if (const auto status = pseudoField(half.blocks[head], ":status"))
                reply.status = static_cast<int>(std::clamp<std::int64_t>(number(*status), 0, 999));
            takeFields(reply, half, head, inFront);
            readGRPCStatus(reply);
        } else {
            reply.fields.resize(inFront);
        }
        if (method == "CONNECT" && reply.status / 100 == 2) reply.body = {};
        return reply;
    }

private:
    static bool isFinished(const HTTP2Half& asked, const HTTP2Half* answer)
    {
        const bool isReset = asked.resetCode || (answer && answer->resetCode);
        return isReset || ((asked.isEnded || asked.promisedOn) && answer && answer->isEnded);
    }

    /// Whether a stream has become a tunnel (RFC 9113 §8.5, RFC 8441).
    static bool isTunnel(const HTTP2Half& asked, const HTTP2Half& answer)
    {
        if (asked.blocks.empty() || pseudoField(asked.blocks.front(), ":method") != "CONNECT") return false;
        const std::size_t head = finalHead(answer);
        const auto status = head < answer.blocks.size() ? pseudoField(answer.blocks[head], ":status") : std::nullopt;
        return status && number(*status) / 100 == 2;
    }

    /// Tells what opened the tunnel, of whose end nothing is known yet, and gives who reads what is in it.
    std::unique_ptr<StreamFollowing> beginTunnel(HTTP2Half& asked, HTTP2Half& answer)
    {
        const ByteRanges askedData = std::exchange(asked.data, {}), answeredData = std::exchange(answer.data, {});
        const bool wasAskedEnded = std::exchange(asked.isEnded, true), wasAnswerEnded = std::exchange(answer.isEnded, true);
        const auto connect = pseudoField(asked.blocks.front(), ":protocol");
        const Carried carried{.protocol = connect ? std::optional(std::string(*connect)) : std::nullopt, .streamId = asked.stream};
        readExchange(asked, &answer);
        asked.isEnded = wasAskedEnded;
        answer.isEnded = wasAnswerEnded;
        asked.data = askedData;
        answer.data = answeredData;
        return carried.follow(context_);
    }

    /// Adds what has become complete in a tunnel by now, and lets go of its data that are done with.
    void followTunnel(std::uint32_t number, StreamFollowing* inner, StreamExtent extent)
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

    /// A stream: request, interim replies and reply.
    void readExchange(HTTP2Half& asked, HTTP2Half* answer)
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

    /// What came back on a stream; the position of the reply, if there is one.
    std::optional<std::int64_t> readReply(HTTP2Half& half, const HTTPMessage* request, std::int64_t position, const HTTP2Half* asked)
    {
        std::optional<std::int64_t> final;
        const std::size_t head = finalHead(half);
        for (std::size_t i = 0; i < head; ++i) {
            HTTP2Block& block = half.blocks[i];
            HTTPMessage interim{.direction = answering_.direction(), .kind = StreamMessageKind::data, .protocol = "HTTP/2"};
            interim.status = static_cast<int>(number(*pseudoField(block, ":status")));
            interim.range = block.range;
            interim.streamId = half.stream;
            block.fields.appendTo(interim.fields);
            conversation_.add(HTTPMessages::shown(std::move(interim), stream_, context_));
        }
        if (hasReply(half, head)) {
            HTTPMessage reply = request ? replyOf(half, head, request->url, request->method, asked) : replyOf(half, head, {}, {}, asked);
            const auto inside = BodyMessages::in(reply, reply.url);
            final = conversation_.add(HTTPMessages::shown(std::move(reply), stream_, context_));
            if (inside) inside->append(conversation_, stream_, context_);
        }
        if (request) conversation_.pair(position, final);
        return final;
    }

    /// What request and reply have in common. `head` is the block that the message begins with.
    void fill(HTTPMessage& message, HTTP2Half& half, const HTTP2Half* other, std::size_t head)
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

    void takeFields(HTTPMessage& message, HTTP2Half& half, std::size_t head, std::size_t inFront)
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
            message.notes.push_back({"Content length unclear", fmt::format("content-length is {}, but {} bytes came", *length,
                                                                           groupedText(message.body.ranges.size()))});
    }

    /// The status of a call stands behind its messages, or in place of them.
    static void readGRPCStatus(HTTPMessage& reply)
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

    std::string urlOf(const HTTP2Block& head, const RequestFields& known) const
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

    void readConnection(const HTTP2Direction& direction)
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

    /// A frame that is shown by itself.
    StreamMessage shown(const HTTP2Frame& frame, Direction direction) const
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

    static void setBody(StreamMessage& message, const StreamData& data, ByteRange range)
    {
        if (range.isEmpty()) return;
        message.body = StreamBody(CarriedStream::data(data, range));
        message.bodyHint = StreamBodyHint::binary();
    }

    const TCPStream& stream_;
    const StreamContext& context_;
    HTTP2Direction& asking_;
    HTTP2Direction& answering_;
    Conversation conversation_;
    absl::flat_hash_set<std::uint32_t> answered_;
};

/// Whether a direction's first header is a reply's: of a connection whose start is missing the sides may be taken for each other.
bool answers(HTTP2Direction& direction)
{
    for (const HTTP2Half& half : direction.halves())
        for (const HTTP2Block& block : half.blocks) {
            if (pseudoField(block, ":status")) return true;
            if (pseudoField(block, ":method")) return false;
        }
    return false;
}

/// The two directions of a connection, read to their ends.
class HTTP2Connection {
public:
    explicit HTTP2Connection(const TCPStream& stream)
        : isClientAsking_(HTTP2Frame::beginsWithPreface(stream.clientToServerData)),
          isWhole_(isClientAsking_ || HTTP2Frame::beginsWithPreface(stream.serverToClientData)),
          client_(std::in_place, stream, Direction::clientToServer, isWhole_ ? HTTP2Direction::Start::whole : HTTP2Direction::Start::missing),
          server_(std::in_place, stream, Direction::serverToClient, isWhole_ ? HTTP2Direction::Start::whole : HTTP2Direction::Start::missing)
    {
        constexpr std::int64_t longSide = 250'000;
        isLong_ = std::min(stream.clientToServerData.size(), stream.serverToClientData.size()) >= longSide;
        withBoth([&](std::optional<HTTP2Direction>& direction) { direction->goOn(stream, StreamExtent::whole); });
        isSwapped_ = isWhole_ ? !isClientAsking_ : answers(*client_) && !answers(*server_);
    }
    // To give back the memory of a hundred thousand messages takes its time too.
    ~HTTP2Connection()
    {
        try {
            withBoth([](std::optional<HTTP2Direction>& direction) { direction.reset(); });
        } catch (const std::bad_alloc&) {
            return;  // what is left goes with the members
        }
    }
    HTTP2Connection(const HTTP2Connection&) = delete;
    HTTP2Connection& operator=(const HTTP2Connection&) = delete;

    bool isLong() const { return isLong_; }
    HTTP2Direction& asking() { return isSwapped_ ? *server_ : *client_; }
    HTTP2Direction& answering() { return isSwapped_ ? *client_ : *server_; }

private:
    /// Side by side, where both are long.
    template <class Do> void withBoth(const Do& work)
    {
        if (isLong_) {
            sideBySide([&] { work(client_); }, [&] { work(server_); });
        } else {
            work(client_);
            work(server_);
        }
    }

    bool isClientAsking_, isWhole_, isSwapped_ = false, isLong_ = false;
    std::optional<HTTP2Direction> client_, server_;
};

/// Makes the exchanges of a connection when their turns come.
class HTTP2Exchanges final : public StreamExchangeReader {
public:
    HTTP2Exchanges(const TCPStream& stream, const StreamContext& context)
        : stream_(stream), context_(context), connection_(stream_),
          reading_(stream_, context_, connection_.asking(), connection_.answering())
    {}

    /// False for a connection that is left to `interpret`: with tunnels, pushed replies, replies to nothing, or bytes of which nobody
    /// knows when they came.
    bool findOrder()
    {
        HTTP2Direction& asking = connection_.asking();
        HTTP2Direction& answering = connection_.answering();
        std::size_t answered = 0;
        turns_.reserve(asking.halves().size());
        for (HTTP2Half& half : asking.halves()) {
            if (half.promisedOn) return false;
            if (!hasRequest(half)) continue;
            if (!half.blocks.empty() && pseudoField(half.blocks.front(), ":method") == "CONNECT") return false;
            turns_.push_back({.asked = &half, .answer = answering.half(half.stream)});
            if (turns_.back().answer) ++answered;
        }
        const auto middle = turns_.begin() + std::ssize(turns_) / 2;
        bool isFirstTimed = false, isSecondTimed = false;
        const auto timeFirst = [&] { isFirstTimed = std::all_of(turns_.begin(), middle, [&](Turn& turn) { return findTime(turn); }); };
        const auto timeSecond = [&] { isSecondTimed = std::all_of(middle, turns_.end(), [&](Turn& turn) { return findTime(turn); }); };
        if (connection_.isLong()) {
            sideBySide(timeFirst, timeSecond);
        } else {
            timeFirst();
            timeSecond();
        }
        if (!isFirstTimed || !isSecondTimed) return false;
        if (!std::ranges::is_sorted(turns_, {}, &Turn::time)) std::ranges::stable_sort(turns_, {}, &Turn::time);
        return answered == answering.halves().size();
    }

    std::optional<double> nextTime() const override { return next_ < turns_.size() ? std::optional(turns_[next_].time) : std::nullopt; }
    void next(StreamExchange& exchange) override
    {
        const auto& [time, packetId, asked, answer] = turns_[next_++];
        const std::size_t inFront = context_.rowsInFront.size();
        // The memory of what was told last is used again.
        const auto messageIn = [](std::optional<StreamMessage>& held) -> StreamMessage& { return held ? *held : held.emplace(); };
        StreamMessage& shownRequest = messageIn(exchange.request);
        HTTPMessage request = reading_.requestOf(*asked, answer, rowsFrom(shownRequest), inFront);
        if (packetId > 0) request.packet = {packetId, time};
        const std::size_t head = answer ? finalHead(*answer) : 0;
        if (answer && hasReply(*answer, head)) {
            StreamMessage& shownReply = messageIn(exchange.reply);
            HTTPMessages::show(reading_.replyOf(*answer, head, request.url, request.method, asked, rowsFrom(shownReply), inFront), stream_,
                               context_, shownReply);
        } else {
            exchange.reply.reset();
        }
        HTTPMessages::show(std::move(request), stream_, context_, shownRequest);
    }
    bool addsRowsInFront() const override { return true; }

private:
    struct Turn {
        double time = 0;
        std::int64_t packetId = 0;  ///< of the only packet that carried the request; else 0
        HTTP2Half* asked = nullptr;
        HTTP2Half* answer = nullptr;
    };

    /// The rows of a message that was told, as room for others: behind those that stand in front of all.
    HeaderFields rowsFrom(StreamMessage& told) const
    {
        HeaderFields rows = std::move(told.detail);
        const std::vector<DetailRow>& front = context_.rowsInFront;
        if (rows.size() < front.size()) rows.resize(front.size());
        for (std::size_t i = 0; i < front.size(); ++i)
            if (rows[i] != front[i]) rows[i] = front[i];
        return rows;
    }

    /// The earliest of the times at which its frames were captured, as its message has it; false where there is none.
    bool findTime(Turn& turn)
    {
        std::optional<double> earliest;
        const ByteRanges& frames = turn.asked->frames;
        frames.forEach([&](ByteRange range) {
            const ByteLocation place = stream_.locate(range, connection_.asking().direction());
            if (place.timestamp) earliest = std::min(earliest.value_or(*place.timestamp), *place.timestamp);
            if (place.packetIds.size() == 1 && frames.isInOnePlace()) turn.packetId = place.packetIds.front();
            return true;
        });
        turn.time = earliest.value_or(0);
        return earliest.has_value();
    }

    TCPStream stream_;
    StreamContext context_;
    HTTP2Connection connection_;
    HTTP2Reading reading_;
    std::vector<Turn> turns_;
    std::size_t next_ = 0;
};

/// Reads a connection that still goes on.
class HTTP2Following final : public StreamFollowing {
public:
    explicit HTTP2Following(const StreamContext& context) : context_(context) {}

    StreamInterpretation goOn(const TCPStream& stream, StreamExtent extent) override
    {
        stream_ = stream;
        bool areBothThere = true;
        for (const Direction direction : {Direction::clientToServer, Direction::serverToClient}) {
            auto& reading = directions_[std::to_underlying(direction)];
            // As much as the preface that one of them begins with.
            const bool isThere = stream.data(direction).size() >= std::ssize(HTTP2Frame::preface) || extent == StreamExtent::whole;
            if (!reading && isThere) reading.emplace(stream_, direction, startOf(direction));
            if (reading)
                reading->goOn(stream_, extent);
            else
                areBothThere = false;
        }
        if (!areBothThere) return {};
        HTTP2Reading reading(stream_, context_, *directions_[0], *directions_[1]);
        return extent == StreamExtent::whole ? reading.read(std::move(tunnels_)) : reading.takeFinished(tunnels_);
    }
    std::int64_t neededFrom(Direction direction) const override
    {
        const auto& reading = directions_[std::to_underlying(direction)];
        return reading ? reading->neededFrom() : 0;
    }
    bool waits() const override
    {
        return std::ranges::any_of(tunnels_, [](const auto& tunnel) { return tunnel.second && tunnel.second->waits(); });
    }
    std::int64_t held() const override
    {
        std::int64_t bytes = 0;
        for (const auto& [number, inner] : tunnels_) bytes += inner ? inner->held() : 0;
        return bytes;
    }

private:
    /// The server's side is whole where the client's is, which came first.
    HTTP2Direction::Start startOf(Direction direction)
    {
        const StreamData& data = stream_.clientToServerData;
        if (direction == Direction::clientToServer) isWhole_ = HTTP2Frame::beginsWithPreface(data);
        return isWhole_ ? HTTP2Direction::Start::whole : HTTP2Direction::Start::missing;
    }

    StreamContext context_;
    TCPStream stream_;
    bool isWhole_ = false;
    std::optional<HTTP2Direction> directions_[2];
    HTTP2Tunnels tunnels_;
};

}  // namespace

bool HTTP2Interpreter::canInterpret(const TCPStream& stream, const StreamContext& context)
{
    if (const auto& protocol = context.applicationProtocol) return *protocol == "h2" || *protocol == "h2c";
    for (const StreamData* data : {&stream.clientToServerData, &stream.serverToClientData})
        if (HTTP2Frame::beginsWithPreface(*data)) return true;
    // A connection of HTTP/1 may have been upgraded.
    if (HTTP1Interpreter::isBeginning(stream)) return false;
    return holdsFrames(stream.clientToServerData) || holdsFrames(stream.serverToClientData);
}

StreamInterpretation HTTP2Interpreter::interpret(const TCPStream& stream, const StreamContext& context)
{
    HTTP2Connection connection(stream);
    return HTTP2Reading(stream, context, connection.asking(), connection.answering()).read();
}

std::unique_ptr<StreamExchangeReader> HTTP2Interpreter::exchanges(const TCPStream& stream, const StreamContext& context)
{
    auto exchanges = std::make_unique<HTTP2Exchanges>(stream, context);
    if (!exchanges->findOrder()) return nullptr;
    return exchanges;
}

std::unique_ptr<StreamFollowing> HTTP2Interpreter::follow(const StreamContext& context) { return std::make_unique<HTTP2Following>(context); }

}  // namespace sealscope
