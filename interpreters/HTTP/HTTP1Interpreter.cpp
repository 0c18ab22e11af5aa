// SPDX-License-Identifier: Apache-2.0
#include "interpreters/HTTP/HTTP1Interpreter.h"

#include "host/VELModels/StreamExchanges.h"
#include "interpreters/HTTP/BodyMessages.h"
#include "interpreters/HTTP/Carried.h"
#include "interpreters/HTTP/Conversation.h"
#include "interpreters/HTTP/ExchangesInParts.h"
#include "interpreters/HTTP/HTTP1Direction.h"

#include <algorithm>
#include <iterator>
#include <limits>
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
constexpr std::int64_t longestLineAtStart = 65'536;

bool beginsWith(const TCPStream& stream, Direction direction, Kind kind)
{
    const StreamData& data = stream.data(direction);
    // One look at the first bytes settles most streams.
    const DataView first = data.stretch(0);
    if (kind == Kind::reply && (first.u8(0) != 'H' || data.size() < 12)) return false;
    StreamWindow window(data);
    return HTTP1Head::isStartLine(window.line(0, longestLineAtStart).text(), kind);
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

/// Reads both directions side by side: how a reply is framed depends on its request, and what follows a request may depend on
/// its reply.
class HTTP1Reading {
public:
    HTTP1Reading(const TCPStream& stream, const StreamContext& context, Direction asking, Told told = Told::everything,
                 const StreamPartVisitor* visit = nullptr)
        : stream_(stream), context_(context), told_(told), requests_(stream, asking, Kind::request, context),
          replies_(stream, opposite(asking), Kind::reply, context), conversation_(visit, context.mostHeld / 4)
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
        readRest();
        return conversation_.finish();
    }

    /// Tells all of a stream that is whole to whom takes parts.
    void tell()
    {
        readReplies();
        readRest();
        conversation_.handOverRest();
    }

    /// What is complete of a stream that is whole once about so many messages more were read; nothing when there are no more.
    std::optional<StreamInterpretation> readSome(std::int64_t messages)
    {
        if (isOver_) return std::nullopt;
        constexpr std::size_t bytesAtOnce = 1 << 20;
        roomEnd_ = conversation_.size() + messages;
        roomEndBytes_ = conversation_.addedBytes() + bytesAtOnce;
        if (!isSwitched_) readReplies();
        if (!isSwitched_ && hasRoom()) readUnanswered();
        isOver_ = isSwitched_ || hasRoom();
        if (isOver_) passOver(asked_.size());
        return takeFinished();
    }
    /// The exchanges of what follows, once there are no more of its own, or null.
    std::unique_ptr<StreamExchangeReader> takeInside() { return std::move(inside_); }

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
        forgetAnswered();
        return conversation_.takeSettled();
    }

    bool hasRoom() const { return conversation_.size() < roomEnd_ && conversation_.addedBytes() < roomEndBytes_; }

    /// Gives up waiting for replies to the requests in front of one.
    void passOver(std::size_t end)
    {
        for (; answered_ < end; ++answered_)
            if (!std::exchange(asked_[answered_].isAnswered, true)) conversation_.pair(asked_[answered_].position, std::nullopt);
    }

    void forgetAnswered()
    {
        asked_.erase(asked_.begin(), asked_.begin() + static_cast<std::ptrdiff_t>(answered_));
        if (pausedAt_) *pausedAt_ -= answered_;
        answered_ = 0;
    }

    /// Lets go of what nobody waits for any more.
    void handOver()
    {
        constexpr std::size_t many = 256;
        if (answered_ >= many) forgetAnswered();
        conversation_.handOver();
    }

    void readRest()
    {
        if (!isSwitched_) readUnanswered();
        passOver(asked_.size());
        addOthers(requests_);
        addOthers(replies_);
    }

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
        const auto inside = insideOf(read->message);
        asked.position = conversation_.addWaiting(HTTPMessages::shown(std::move(read->message), stream_, context_));
        asked_.push_back(std::move(asked));
        if (inside) inside->append(conversation_, stream_, context_);
        return true;
    }

    /// The messages that a body is made of, where they are told.
    std::optional<BodyMessages> insideOf(const HTTPMessage& message) const
    {
        return told_ == Told::everything ? BodyMessages::in(message, message.url) : std::nullopt;
    }

    /// The request that the reply in front answers, if it is there; replies come in the order of requests (RFC 9112 §9.3.2).
    Asked* findRequest()
    {
        const bool isBehindGap = std::exchange(isSearching_, false);
        if (answered_ == asked_.size()) readRequest();
        if (answered_ == asked_.size()) return nullptr;
        const double time = replies_.time(replies_.offset());
        // Nobody answers before the question: that request is not in the capture.
        if (time > 0 && asked_[answered_].time > time) return nullptr;
        if (!replies_.takeGap() && !isBehindGap) return &asked_[answered_];
        // After lost replies the order says nothing any more, but the times do: the latest question before this reply.
        while (time > 0 && !pausedAt_) {
            isSearching_ = !hasRoom();
            if (isSearching_) return nullptr;
            if (answered_ + 1 == asked_.size() && !readRequest()) break;
            if (asked_[answered_ + 1].time > time) break;
            passOver(answered_ + 1);
            handOver();
        }
        return &asked_[answered_];
    }

    void readReplies()
    {
        while (hasRoom() && !conversation_.isFull()) {
            handOver();
            Asked* asked = findRequest();
            if (isSearching_) return;
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
            const auto inside = insideOf(read->message);
            const std::int64_t position = conversation_.add(HTTPMessages::shown(std::move(read->message), stream_, context_));
            if (isAnsweredLater && isGrowing_) {
                pausedAt_.reset();
                switchProtocol(fields);
                isAnsweredInside_ = inner_ != nullptr;
                return;
            }
            if (isAnsweredLater) return switchProtocol(fields, position, asked);
            bool isSwitching = isTunnel && !asked;
            if (asked && !isInterim) {
                asked->isAnswered = true;
                conversation_.pair(asked->position, position);
                if (pausedAt_ == answered_++) {
                    pausedAt_.reset();
                    isSwitching = isTunnel;
                }
            }
            if (inside) inside->append(conversation_, stream_, context_);
            if (isSwitching) return switchProtocol(fields, position);
        }
    }

    /// What follows a reply belongs to another protocol, in which a request in front of it may be answered.
    void switchProtocol(const HeaderFields& fields, std::optional<std::int64_t> reply = {}, Asked* answeredInside = nullptr)
    {
        isSwitched_ = true;
        const Carried carried = carriedNow(fields);
        if (isGrowing_) {
            inner_ = carried.follow(context_);
            return;
        }
        if (told_ == Told::exchanges) {
            if (reply && carried.isWebSocket()) conversation_[*reply].tellCarried = carried.teller(stream_, context_);
            inside_ = carried.exchanges(stream_, context_, answeredInside ? std::optional(takeRequest(*answeredInside)) : std::nullopt);
            return;
        }
        Carried::append(conversation_, stream_, context_, carried, [&](std::int64_t position) {
            if (!answeredInside || answeredInside->isAnswered || !isFirstStreamsReply(position)) return;
            answeredInside->isAnswered = true;
            conversation_.pair(answeredInside->position, position);
        });
    }

    /// A request that is told by somebody else.
    StreamMessage takeRequest(Asked& asked)
    {
        asked.isAnswered = true;
        StreamMessage& request = conversation_[asked.position];
        StreamMessage taken = std::move(request);
        request.kind = StreamMessageKind::data;
        return taken;
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
            if (isFirstStreamsReply(position)) return position;
        return std::nullopt;
    }
    bool isFirstStreamsReply(std::int64_t position)
    {
        const StreamMessage& message = conversation_[position];
        return message.kind == StreamMessageKind::reply && HTTPMessages::number(message, "streamId") == 1;
    }

    /// Reads the requests behind the last reply, and what an upgrade among them led to.
    void readUnanswered()
    {
        for (;;) {
            while (hasRoom() && readRequest()) {
                if (goesOnUnanswered_) pausedAt_.reset();
                passOver(pausedAt_.value_or(asked_.size()));
                handOver();
            }
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
        if (HTTP1Head::isStartLine(window.line(requests_.offset(), longestLineAtStart).text(), Kind::request)) return true;
        if (replies_.offset() == stream_.data(replies_.direction()).size()) {
            const bool isTunnel = asked_[paused].message.method == "CONNECT";
            passOver(paused + 1);
            switchProtocol(isTunnel ? HeaderFields() : upgradeRequest_);
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
    std::int64_t roomEnd_ = std::numeric_limits<std::int64_t>::max();     ///< messages that are to be read by now, of all
    std::size_t roomEndBytes_ = std::numeric_limits<std::size_t>::max();  ///< and bytes
    bool isSearching_ = false;       ///< for the request of a reply behind a gap, with no room to go on
    bool goesOnUnanswered_ = false;  ///< nobody answers upgrades any more, and requests follow
    bool isOver_ = false;
    std::unique_ptr<StreamFollowing> inner_;        ///< what follows, of a stream that goes on
    std::unique_ptr<StreamExchangeReader> inside_;  ///< the exchanges of what follows
    bool isAnsweredInside_ = false;                 ///< the request that comes next
};

/// Makes the exchanges of a connection a few at a time. Replies come in the order of requests, so that little waits for its other half.
class HTTP1Exchanges final : public ExchangesInParts<StreamExchange> {
public:
    HTTP1Exchanges(const TCPStream& stream, const StreamContext& context)
        : ExchangesInParts(context.mostHeld / 4), stream_(stream), context_(context),
          reading_(stream_, context_, asker(stream_).value_or(Direction::clientToServer), Told::exchanges)
    {
        readAhead();
    }

private:
    bool readSome() override
    {
        auto some = reading_.readSome(static_cast<std::int64_t>(reordered));
        if (auto inside = reading_.takeInside()) add(std::move(inside));
        if (!some) return false;
        for (StreamExchange& exchange : exchangesOf(*std::move(some))) {
            const StreamMessage& message = exchange.request ? *exchange.request : *exchange.reply;
            const std::int64_t first = message.byteRange ? message.byteRange->lower : 0;
            const Beginning began = beginning(message.timestamp, message.direction, first, !exchange.request);
            const std::size_t bytes = heldBytes(exchange);
            wait(began, bytes, std::move(exchange));
        }
        return true;
    }
    void make(StreamExchange& made, StreamExchange& exchange) override { exchange = std::move(made); }

    TCPStream stream_;
    StreamContext context_;
    HTTP1Reading reading_;
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

void HTTP1Interpreter::forEachPart(const TCPStream& stream, const StreamContext& context, const StreamPartVisitor& visit)
{
    HTTP1Reading(stream, context, asker(stream).value_or(Direction::clientToServer), Told::everything, &visit).tell();
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
