// SPDX-License-Identifier: Apache-2.0
#include "interpreters/HTTP/HTTP2Interpreter.h"

#include "interpreters/HTTP/HTTP1Interpreter.h"
#include "interpreters/HTTP/HTTP2Direction.h"
#include "interpreters/HTTP/HTTP2Reading.h"
#include "interpreters/HTTP/HTTPMessage.h"
#include "platform/SideBySide.h"

#include <algorithm>
#include <memory>
#include <new>
#include <optional>
#include <utility>
#include <vector>

namespace sealscope {

namespace {

using Direction = TCPSegment::Direction;

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

/// Whether a direction's first header is a reply's: of a connection whose start is missing the sides may be taken for each other.
bool answers(HTTP2Direction& direction)
{
    for (const HTTP2Half& half : direction.halves())
        for (const HTTP2Block& block : half.blocks) {
            if (block.pseudoField(":status")) return true;
            if (block.pseudoField(":method")) return false;
        }
    return false;
}

/// The two directions of a connection, read to their ends.
class HTTP2Connection {
public:
    explicit HTTP2Connection(const TCPStream& stream)
        : isClientAsking_(HTTP2Frame::beginsWithPreface(stream.clientToServerData)),
          isWhole_(isClientAsking_ || HTTP2Frame::beginsWithPreface(stream.serverToClientData)),
          client_(std::in_place, stream, Direction::clientToServer,
                  isWhole_ ? HTTP2Direction::Start::whole : HTTP2Direction::Start::missing),
          server_(std::in_place, stream, Direction::serverToClient,
                  isWhole_ ? HTTP2Direction::Start::whole : HTTP2Direction::Start::missing)
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
            if (!half.hasRequest()) continue;
            if (!half.blocks.empty() && half.blocks.front().pseudoField(":method") == "CONNECT") return false;
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
        const std::size_t head = answer ? answer->finalHead() : 0;
        if (answer && answer->hasReply(head)) {
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

std::unique_ptr<StreamFollowing> HTTP2Interpreter::follow(const StreamContext& context)
{
    return std::make_unique<HTTP2Following>(context);
}

}  // namespace sealscope
