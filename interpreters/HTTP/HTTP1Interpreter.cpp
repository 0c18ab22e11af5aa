// SPDX-License-Identifier: Apache-2.0
#include "interpreters/HTTP/HTTP1Interpreter.h"

#include "host/VELModels/StreamExchanges.h"
#include "interpreters/HTTP/BodyMessages.h"
#include "interpreters/HTTP/Carried.h"
#include "interpreters/HTTP/Conversation.h"
#include "interpreters/HTTP/HTTP1Direction.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace sealscope {

namespace {

using Direction = TCPSegment::Direction;
using Kind = HTTP1Head::Kind;

// As far as a stream whose start the capture lacks is searched for HTTP.
constexpr std::int64_t searchedForStart = 16'384;
constexpr std::int64_t longestStartLine = 65'536;

bool beginsWith(const TCPStream& stream, Direction direction, Kind kind)
{
    const StreamData& data = stream.data(direction);
    // One look at the first bytes settles most streams.
    const DataView first = data.stretch(0);
    if (kind == Kind::reply && (first.u8(0) != 'H' || data.size() < 12)) return false;
    StreamWindow window(data);
    return HTTP1Head::isStartLine(window.line(0, longestStartLine).text(), kind);
}

bool holds(const TCPStream& stream, Direction direction, Kind kind)
{
    StreamWindow window(stream.data(direction));
    return window.findLine({0, searchedForStart}, [&](std::string_view line) { return HTTP1Head::isStartLine(line, kind); }).has_value();
}

/// Who asks. Of a connection whose start the capture lacks the two sides may be taken for each other.
std::optional<Direction> askerFromTheStart(const TCPStream& stream)
{
    for (const Direction direction : {Direction::clientToServer, Direction::serverToClient})
        if (beginsWith(stream, direction, Kind::request) || beginsWith(stream, opposite(direction), Kind::reply)) return direction;
    return std::nullopt;
}

std::optional<Direction> asker(const TCPStream& stream)
{
    if (const auto direction = askerFromTheStart(stream)) return direction;
    for (const Direction direction : {Direction::clientToServer, Direction::serverToClient})
        if (holds(stream, direction, Kind::request) && holds(stream, opposite(direction), Kind::reply)) return direction;
    return std::nullopt;
}

/// What is told of a connection: all of it, or requests and replies alone.
enum class Told : std::uint8_t { everything, exchanges };

/// Reads both directions side by side: how a reply is framed depends on its request, and what follows a request may depend on
/// its reply.
class HTTP1Reading {
public:
    HTTP1Reading(const TCPStream& stream, const StreamContext& context, Direction asking, Told told = Told::everything)
        : stream_(stream), context_(context), told_(told), requests_(stream, asking, Kind::request, context),
          replies_(stream, opposite(asking), Kind::reply, context)
    {}

    /// What has become complete by now; of a stream that is whole, all that is left.
    StreamInterpretation read(StreamExtent extent)
    {
        isGrowing_ = extent == StreamExtent::growing;
        requests_.goOn(extent);
        replies_.goOn(extent);
        if (!isSwitched_) readReplies();
        if (inner_) followInside(extent);
        if (isGrowing_) return takeFinished();
        if (!isSwitched_) readUnanswered();
        for (Asked& asked : asked_)
            if (!asked.isAnswered) conversation_.pair(asked.position, std::nullopt);
        addOthers(requests_);
        addOthers(replies_);
        return conversation_.finish();
    }

    /// What is complete of a stream that is whole once about so many messages more were read; nothing when there are no more.
    std::optional<StreamInterpretation> readSome(std::int64_t messages)
    {
        if (isOver_) return std::nullopt;
        mostAtOnce_ = messages;
        if (!isSwitched_) readReplies();
        if (!isSwitched_ && hasRoom()) {
            readUnanswered();
            answered_ = pausedAt_.value_or(asked_.size());
        }
        isOver_ = isSwitched_ || hasRoom();
        if (isOver_) answered_ = asked_.size();
        return takeFinished();
    }

    /// Where the bytes of a direction begin that are not done with.
    std::int64_t neededFrom(Direction direction) const
    {
        if (isSwitched_) {
            constexpr std::int64_t nothing = std::numeric_limits<std::int64_t>::max();
            const std::int64_t inside = inner_ ? inner_->neededFrom(direction) : nothing;
            return inside == nothing ? nothing : switchedAt(direction) + inside;
        }
        if (direction == replies_.direction()) return replies_.offset();
        return asked_.empty() ? requests_.offset() : asked_.front().offset;
    }
    bool waits() const { return inner_ && inner_->waits(); }
    std::int64_t held() const { return inner_ ? inner_->held() : 0; }

private:
    /// A request that was read, as far as its reply needs it.
    struct Asked {
        HTTPMessage message;  ///< method and URL
        std::int64_t position = 0;
        std::int64_t offset = 0;  ///< of its first byte
        double time = 0;
        bool isAnswered = false;
    };

    /// All messages but the requests that wait for their replies.
    StreamInterpretation takeFinished()
    {
        asked_.erase(asked_.begin(), asked_.begin() + static_cast<std::ptrdiff_t>(answered_));
        if (pausedAt_) *pausedAt_ -= answered_;
        answered_ = 0;
        std::vector<std::int64_t*> waiting;
        for (Asked& asked : asked_) waiting.push_back(&asked.position);
        return conversation_.takeAllBut(waiting);
    }

    bool hasRoom() const { return conversation_.size() < mostAtOnce_; }

    void addOthers(HTTP1Direction& direction)
    {
        if (told_ == Told::exchanges) return static_cast<void>(direction.takeOthers());
        for (StreamMessage& other : direction.takeOthers()) conversation_.add(std::move(other));
    }

    bool readRequest()
    {
        if (pausedAt_ || conversation_.isFull()) return false;
        auto read = requests_.next(nullptr);
        addOthers(requests_);
        if (!read) return false;
        Asked asked{.offset = read->message.range.lower, .time = read->time};
        asked.message.method = read->message.method;
        asked.message.url = read->message.url;
        if (read->isUpgrade) {
            pausedAt_ = asked_.size();
            upgradeRequest_ = read->message.fields;
        }
        asked.position = add(std::move(read->message));
        asked_.push_back(std::move(asked));
        return true;
    }

    /// Adds a message, and those that its body is made of.
    std::int64_t add(HTTPMessage message)
    {
        const auto inside = told_ == Told::everything ? BodyMessages::in(message, message.url) : std::nullopt;
        const std::int64_t position = conversation_.add(HTTPMessages::shown(std::move(message), stream_, context_));
        if (inside) inside->append(conversation_, stream_, context_);
        return position;
    }

    /// The request that the reply in front answers, if it is there; replies come in the order of requests (RFC 9112 §9.3.2).
    Asked* findRequest()
    {
        if (answered_ == asked_.size()) readRequest();
        if (answered_ == asked_.size()) return nullptr;
        const double time = replies_.time(replies_.offset());
        // Nobody answers before the question: that request is not in the capture.
        if (time > 0 && asked_[answered_].time > time) return nullptr;
        if (!replies_.takeGap()) return &asked_[answered_];
        // After lost replies the order says nothing any more, but the times do: the latest question before this reply.
        while (time > 0 && !pausedAt_) {
            if (answered_ + 1 == asked_.size() && !readRequest()) break;
            if (asked_[answered_ + 1].time > time) break;
            ++answered_;
        }
        return &asked_[answered_];
    }

    void readReplies()
    {
        while (hasRoom() && !conversation_.isFull()) {
            Asked* asked = findRequest();
            if (isGrowing_ && !asked && requests_.isInMessage()) return;  // it may be the one
            auto read = replies_.next(asked ? &asked->message : nullptr);
            addOthers(replies_);
            if (!read) return;
            if (asked && read->time > 0 && asked->time > read->time) asked = nullptr;
            const bool isInterim = read->message.kind == StreamMessageKind::data;
            const bool isTunnel = read->isTunnel;
            const HeaderFields fields = isTunnel ? read->message.fields : HeaderFields();
            // The answer to a request that asked for HTTP/2 comes in HTTP/2, on its first stream (RFC 7540 §3.2).
            const std::string* const protocol = read->message.status == 101 ? HeaderField::find(fields, "upgrade") : nullptr;
            const bool isAnsweredLater = asked && protocol && HeaderField::isNamed(*protocol, "h2c");
            if (isAnsweredLater) read->message.kind = StreamMessageKind::data;
            if (isInterim && told_ == Told::exchanges) continue;
            const std::int64_t position = add(std::move(read->message));
            if (isInterim) continue;
            if (isAnsweredLater && isGrowing_) {
                pausedAt_.reset();
                switchProtocol(fields);
                isAnsweredInside_ = inner_ != nullptr;
                return;
            }
            if (isAnsweredLater) {
                asked->isAnswered = true;
                const std::int64_t request = asked->position, first = conversation_.size();
                switchProtocol(fields);
                conversation_.pair(request, firstStreamsReply(first));
                return;
            }
            if (asked) {
                asked->isAnswered = true;
                conversation_.pair(asked->position, position);
                const bool wasPaused = pausedAt_ == answered_;
                ++answered_;
                if (wasPaused) {
                    pausedAt_.reset();
                    if (isTunnel) return switchProtocol(fields);
                }
            }
            if (isTunnel && !asked) return switchProtocol(fields);
        }
    }

    /// What follows belongs to another protocol.
    void switchProtocol(const HeaderFields& reply)
    {
        isSwitched_ = true;
        const Carried carried = carriedNow(reply);
        if (told_ == Told::exchanges && carried.isWebSocket()) return;
        if (!isGrowing_) return Carried::append(conversation_, stream_, context_, carried);
        inner_ = carried.follow(context_);
    }

    Carried carriedNow(const HeaderFields& reply) const
    {
        const auto behind = [&](Direction direction) {
            const std::int64_t from = switchedAt(direction);
            return ByteRanges(ByteRange{from, std::max(from, stream_.data(direction).size())});
        };
        const std::string* const protocol = HeaderField::find(reply, "upgrade");
        return {.client = behind(Direction::clientToServer),
                .server = behind(Direction::serverToClient),
                .protocol = protocol ? std::optional(*protocol) : std::nullopt,
                .reply = reply};
    }

    /// Where the bytes of a direction begin that belong to another protocol.
    std::int64_t switchedAt(Direction direction) const
    {
        return direction == requests_.direction() ? requests_.offset() : replies_.offset();
    }

    /// Adds what has become complete inside by now.
    void followInside(StreamExtent extent)
    {
        const Carried carried = carriedNow({});
        StreamInterpretation inside = inner_->goOn(CarriedStream::inside(stream_, carried.client, carried.server), extent);
        carried.place(inside);
        const std::int64_t first = conversation_.size();
        conversation_.append(std::move(inside));
        if (!isAnsweredInside_ || answered_ == asked_.size()) return;
        const auto reply = firstStreamsReply(first);
        if (!reply) return;
        isAnsweredInside_ = false;
        asked_[answered_].isAnswered = true;
        conversation_.pair(asked_[answered_++].position, reply);
    }

    /// The reply on stream 1 among the messages from a position on.
    std::optional<std::int64_t> firstStreamsReply(std::int64_t from)
    {
        for (std::int64_t position = from; position < conversation_.size(); ++position)
            if (const StreamMessage& message = conversation_[position];
                message.kind == StreamMessageKind::reply && HTTPMessages::number(message, "streamId") == 1)
                return position;
        return std::nullopt;
    }

    /// Reads the requests behind the last reply, and what an upgrade among them led to.
    void readUnanswered()
    {
        for (;;) {
            while (hasRoom() && readRequest())
                if (goesOnUnanswered_) pausedAt_.reset();
            if (!pausedAt_ || !hasRoom()) return;
            goesOnUnanswered_ = switchUnanswered();
            if (!goesOnUnanswered_) return;
        }
    }

    /// A tunnel or an upgrade whose reply the capture lacks: what follows is HTTP, or it was granted. Whether it is HTTP.
    bool switchUnanswered()
    {
        const std::size_t paused = *std::exchange(pausedAt_, std::nullopt);
        const StreamData& data = stream_.data(requests_.direction());
        if (requests_.offset() == data.size()) return false;
        StreamWindow window(data);
        if (HTTP1Head::isStartLine(window.line(requests_.offset(), longestStartLine).text(), Kind::request)) return true;
        if (replies_.offset() == stream_.data(replies_.direction()).size()) {
            switchProtocol(asked_[paused].message.method == "CONNECT" ? HeaderFields() : upgradeRequest_);
        }
        return false;
    }

    const TCPStream& stream_;
    const StreamContext& context_;
    Told told_;
    HTTP1Direction requests_;
    HTTP1Direction replies_;
    Conversation conversation_;
    std::vector<Asked> asked_;
    std::size_t answered_ = 0;  ///< requests that are answered or passed over
    /// The request that may change what follows it; no further one is read until it is answered.
    std::optional<std::size_t> pausedAt_;
    HeaderFields upgradeRequest_;
    bool isSwitched_ = false;
    bool isGrowing_ = false;
    std::int64_t mostAtOnce_ = std::numeric_limits<std::int64_t>::max();  ///< messages
    bool goesOnUnanswered_ = false;                                       ///< nobody answers upgrades any more, and requests follow
    bool isOver_ = false;
    std::unique_ptr<StreamFollowing> inner_;  ///< what follows, of a stream that goes on
    bool isAnsweredInside_ = false;           ///< the request that comes next
};

/// Makes the exchanges of a connection a few at a time. Replies come in the order of requests, so that little waits for its other half.
class HTTP1Exchanges final : public StreamExchangeReader {
public:
    HTTP1Exchanges(const TCPStream& stream, const StreamContext& context)
        : stream_(stream), context_(context),
          reading_(stream_, context_, asker(stream_).value_or(Direction::clientToServer), Told::exchanges)
    {
        readAhead();
    }

    std::optional<double> nextTime() const override { return waiting_.empty() ? std::nullopt : std::optional(waiting_.begin()->first); }
    void next(StreamExchange& exchange) override
    {
        exchange = std::move(waiting_.begin()->second);
        waiting_.erase(waiting_.begin());
        readAhead();
    }

private:
    /// So many wait at the least, since packets may have been captured in another order than that of their bytes.
    void readAhead()
    {
        constexpr std::size_t reordered = 256;
        while (waiting_.size() < reordered) {
            auto some = reading_.readSome(reordered);
            if (!some) return;
            for (StreamExchange& exchange : exchangesOf(*std::move(some))) waiting_.emplace(exchange.time(), std::move(exchange));
        }
    }

    TCPStream stream_;
    StreamContext context_;
    HTTP1Reading reading_;
    std::multimap<double, StreamExchange> waiting_;
};

/// Reads a connection that still goes on, and what it changes to.
class HTTP1Following final : public StreamFollowing {
public:
    explicit HTTP1Following(const StreamContext& context) : context_(context) {}

    StreamInterpretation goOn(const TCPStream& stream, StreamExtent extent) override
    {
        stream_ = stream;
        if (!reading_) {
            const auto asking = asker(stream_);
            if (!asking && extent == StreamExtent::growing) return {};
            reading_.emplace(stream_, context_, asking.value_or(Direction::clientToServer));
        }
        return reading_->read(extent);
    }
    std::int64_t neededFrom(Direction direction) const override { return reading_ ? reading_->neededFrom(direction) : 0; }
    bool waits() const override { return reading_ && reading_->waits(); }
    std::int64_t held() const override { return reading_ ? reading_->held() : 0; }

private:
    StreamContext context_;
    TCPStream stream_;
    std::optional<HTTP1Reading> reading_;
};

}  // namespace

bool HTTP1Interpreter::isBeginning(const TCPStream& stream) { return askerFromTheStart(stream).has_value(); }

bool HTTP1Interpreter::canInterpret(const TCPStream& stream, const StreamContext& context)
{
    if (const auto& protocol = context.applicationProtocol) return *protocol == "http/1.1" || *protocol == "http/1.0";
    return asker(stream).has_value();
}

StreamInterpretation HTTP1Interpreter::interpret(const TCPStream& stream, const StreamContext& context)
{
    return HTTP1Reading(stream, context, asker(stream).value_or(Direction::clientToServer)).read(StreamExtent::whole);
}

std::unique_ptr<StreamExchangeReader> HTTP1Interpreter::exchanges(const TCPStream& stream, const StreamContext& context)
{
    return std::make_unique<HTTP1Exchanges>(stream, context);
}

std::unique_ptr<StreamFollowing> HTTP1Interpreter::follow(const StreamContext& context)
{
    return std::make_unique<HTTP1Following>(context);
}

}  // namespace sealscope
