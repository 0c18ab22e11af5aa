// SPDX-License-Identifier: Apache-2.0
#include "interpreters/HTTP/HTTP2Interpreter.h"

#include "interpreters/HTTP/ExchangesInParts.h"
#include "interpreters/HTTP/HTTP1Interpreter.h"
#include "interpreters/HTTP/HTTP2Direction.h"
#include "interpreters/HTTP/HTTP2Reading.h"
#include "interpreters/HTTP/HTTPMessage.h"
#include "platform/SideBySide.h"

#include <algorithm>
#include <cstddef>
#include <limits>
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

/// The two directions of a connection, read to their ends, unless that is more for one of them than may be held: a stream takes a few
/// hundred bytes, and ten of the wire.
class HTTP2Connection {
public:
    HTTP2Connection(const TCPStream& stream, std::size_t most)
        : isClientAsking_(HTTP2Frame::beginsWithPreface(stream.clientToServerData)),
          isWhole_(isClientAsking_ || HTTP2Frame::beginsWithPreface(stream.serverToClientData)),
          client_(std::in_place, stream, Direction::clientToServer,
                  isWhole_ ? HTTP2Direction::Start::whole : HTTP2Direction::Start::missing),
          server_(std::in_place, stream, Direction::serverToClient,
                  isWhole_ ? HTTP2Direction::Start::whole : HTTP2Direction::Start::missing)
    {
        constexpr std::int64_t longSide = 250'000;
        isLong_ = std::min(stream.clientToServerData.size(), stream.serverToClientData.size()) >= longSide;
        withBoth([&](std::optional<HTTP2Direction>& direction) { direction->goOn(stream, StreamExtent::whole, most); });
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

    /// Whether all of it was read.
    bool isHeld() const { return client_->isAtEnd() && server_->isAtEnd(); }
    bool isLong() const { return isLong_; }
    /// Takes the streams away, and gives what has read nothing yet in their place.
    HTTP2Connection& startAgain(const TCPStream& stream)
    {
        const auto start = isWhole_ ? HTTP2Direction::Start::whole : HTTP2Direction::Start::missing;
        withBoth([&](std::optional<HTTP2Direction>& direction) {
            const Direction which = direction->direction();
            direction.emplace(stream, which, start);
        });
        return *this;
    }
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

/// A connection with what it was read from.
struct HTTP2ReadStream {
    HTTP2ReadStream(const TCPStream& captured, const StreamContext& known)
        : stream(captured), context(known), connection(stream, known.mostHeld)
    {}
    TCPStream stream;
    StreamContext context;
    HTTP2Connection connection;
};

/// Reads a connection of more streams than may be held, a little at a time.
class HTTP2PartReading {
public:
    HTTP2PartReading(HTTP2Connection& connection, const TCPStream& stream, const StreamContext& context, Told told,
                     const StreamPartVisitor* visit = nullptr)
        : stream_(stream), mostHeld_(context.mostHeld), connection_(connection.startAgain(stream)),
          reading_(stream, context, connection.asking(), connection.answering(), told, visit)
    {}

    /// False when there is no more.
    bool readSome()
    {
        HTTP2Direction *asking = &connection_.asking(), *answering = &connection_.answering();
        if ((asking->isAtEnd() && answering->isAtEnd()) || reading_.isFull()) return false;
        const bool isAnswersTurn = asking->isAtEnd() || (!answering->isAtEnd() && isBehind(*answering, *asking));
        (isAnswersTurn ? answering : asking)->readSome(std::max<std::size_t>(mostHeld_ / 16, 1));
        reading_.tellFinished(mostHeld_ / 4);
        return true;
    }
    HTTP2Reading& reading() { return reading_; }
    /// When the oldest stream began that is open still, or what is to be read next came.
    double openSince()
    {
        double oldest = std::numeric_limits<double>::max();
        for (HTTP2Direction* const direction : {&connection_.asking(), &connection_.answering()}) {
            const auto& halves = direction->halves();
            const std::int64_t from = halves.empty() ? direction->offset() : halves.front().frames.bounds().lower;
            oldest = std::min(oldest, stream_.locate({from, from + 1}, direction->direction()).timestamp.value_or(oldest));
        }
        return oldest;
    }

private:
    /// Whether what comes next in a direction came before what comes next in the other.
    bool isBehind(const HTTP2Direction& direction, const HTTP2Direction& other) const
    {
        const auto next = [](const HTTP2Direction& one) { return ByteRange{one.offset(), one.offset() + 1}; };
        const auto time = stream_.locate(next(direction), direction.direction()).timestamp;
        const auto otherTime = stream_.locate(next(other), other.direction()).timestamp;
        if (time && otherTime) return *time < *otherTime;
        const auto part = [&](const HTTP2Direction& one) {
            return static_cast<double>(one.offset()) / static_cast<double>(stream_.data(one.direction()).size());
        };
        return part(direction) < part(other);
    }

    const TCPStream& stream_;
    std::size_t mostHeld_;
    HTTP2Connection& connection_;
    HTTP2Reading reading_;
};

/// The earliest of the times at which frames were captured, as their message has it. `packet` is the only one, where that is known.
std::optional<double> timeOf(const TCPStream& stream, const ByteRanges& frames, Direction direction, std::int64_t& packet)
{
    std::optional<double> earliest;
    frames.forEach([&](ByteRange range) {
        const ByteLocation place = stream.locate(range, direction);
        if (place.timestamp) earliest = std::min(earliest.value_or(*place.timestamp), *place.timestamp);
        if (place.packetIds.size() == 1 && frames.isInOnePlace()) packet = place.packetIds.front();
        return true;
    });
    return earliest;
}

/// Makes the exchanges of a connection that is read a little at a time, or that carries others.
class HTTP2ExchangesInParts final : public ExchangesInParts<std::unique_ptr<HTTP2Turn>> {
public:
    explicit HTTP2ExchangesInParts(std::unique_ptr<HTTP2ReadStream> read)
        : ExchangesInParts(read->context.mostHeld / 4), read_(std::move(read))
    {
        auto& [stream, context, connection] = *read_;
        setRowsOfCarried(context.rowsInFront);
        if (connection.isHeld())
            whole_.emplace(stream, context, connection.asking(), connection.answering(), Told::exchanges);
        else
            parts_.emplace(connection, stream, context, Told::exchanges);
        readAhead();
    }
    bool addsRowsInFront() const override { return true; }

private:
    HTTP2Reading& reading() { return whole_ ? *whole_ : parts_->reading(); }

    bool readSome() override
    {
        if (isRead_) return false;
        isRead_ = !parts_ || !parts_->readSome();
        if (isRead_) reading().read();
        openSince_ = isRead_ ? std::numeric_limits<double>::max() : parts_->openSince();
        HTTP2Connection& connection = read_->connection;
        for (HTTP2Turn& turn : reading().takeTurns()) {
            const bool isAsked = !turn.isReplyAlone && !turn.asked->promisedOn;
            const Direction direction = (isAsked ? connection.asking() : connection.answering()).direction();
            ByteRanges frames = turn.isReplyAlone ? turn.answer->frames : turn.asked->frames;
            // A reply begins behind the interim ones.
            const std::size_t head = turn.isReplyAlone ? turn.answer->finalHead() : 0;
            if (head > 0 && head < turn.answer->blocks.size() && frames.isInOnePlace())
                frames = ByteRanges({turn.answer->blocks[head].range.lower, frames.bounds().upper});
            std::int64_t packet = 0;
            const double time = timeOf(read_->stream, frames, direction, packet).value_or(0);
            const std::size_t bytes = (turn.asked ? HTTP2Direction::heldBy(*turn.asked) : 0) +
                                      (turn.answer ? HTTP2Direction::heldBy(*turn.answer) : 0) + sizeof turn;
            const Beginning began = beginning(time, direction, frames.bounds().lower, turn.isReplyAlone);
            wait(began, isRead_ ? 0 : bytes, std::make_unique<HTTP2Turn>(std::move(turn)));
        }
        return true;
    }

    void make(std::unique_ptr<HTTP2Turn>& turn, StreamExchange& exchange) override
    {
        reading().make(*turn, exchange);
        for (auto& inside : reading().takeInside()) add(std::move(inside));
    }
    double toldUpTo() const override { return openSince_; }

    std::unique_ptr<HTTP2ReadStream> read_;
    std::optional<HTTP2Reading> whole_;
    std::optional<HTTP2PartReading> parts_;
    double openSince_ = std::numeric_limits<double>::max();
    bool isRead_ = false;
};

/// Makes the exchanges of a connection when their turns come.
class HTTP2Exchanges final : public StreamExchangeReader {
public:
    explicit HTTP2Exchanges(std::unique_ptr<HTTP2ReadStream> read)
        : read_(std::move(read)), stream_(read_->stream), context_(read_->context), connection_(read_->connection),
          reading_(stream_, context_, connection_.asking(), connection_.answering())
    {}
    /// The connection, for somebody else.
    std::unique_ptr<HTTP2ReadStream> giveUp() { return std::move(read_); }

    /// False for a connection that is not all held, or has tunnels, pushed replies, replies to nothing, or bytes of which nobody knows
    /// when they came.
    bool findOrder()
    {
        if (!connection_.isHeld()) return false;
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
        reading_.make(asked, answer, packetId > 0 ? std::optional(HTTPMessage::Packet{packetId, time}) : std::nullopt, exchange);
    }
    bool addsRowsInFront() const override { return true; }

private:
    struct Turn {
        double time = 0;
        std::int64_t packetId = 0;  ///< of the only packet that carried the request; else 0
        HTTP2Half* asked = nullptr;
        HTTP2Half* answer = nullptr;
    };

    /// False where there is none.
    bool findTime(Turn& turn) const
    {
        const auto time = timeOf(stream_, turn.asked->frames, connection_.asking().direction(), turn.packetId);
        turn.time = time.value_or(0);
        return time.has_value();
    }

    std::unique_ptr<HTTP2ReadStream> read_;
    const TCPStream& stream_;
    const StreamContext& context_;
    HTTP2Connection& connection_;
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
    HTTP2Connection connection(stream, std::numeric_limits<std::size_t>::max());
    return HTTP2Reading(stream, context, connection.asking(), connection.answering()).read();
}

void HTTP2Interpreter::forEachPart(const TCPStream& stream, const StreamContext& context, const StreamPartVisitor& visit)
{
    HTTP2Connection connection(stream, context.mostHeld);
    if (connection.isHeld())
        return HTTP2Reading(stream, context, connection.asking(), connection.answering(), Told::everything, &visit).tell();
    HTTP2PartReading parts(connection, stream, context, Told::everything, &visit);
    while (parts.readSome()) {}
    parts.reading().tell();
}

std::unique_ptr<StreamExchangeReader> HTTP2Interpreter::exchanges(const TCPStream& stream, const StreamContext& context)
{
    auto exchanges = std::make_unique<HTTP2Exchanges>(std::make_unique<HTTP2ReadStream>(stream, context));
    if (exchanges->findOrder()) return exchanges;
    return std::make_unique<HTTP2ExchangesInParts>(exchanges->giveUp());
}

std::unique_ptr<StreamFollowing> HTTP2Interpreter::follow(const StreamContext& context)
{
    return std::make_unique<HTTP2Following>(context);
}

}  // namespace sealscope
