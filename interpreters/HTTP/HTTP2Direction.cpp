// SPDX-License-Identifier: Apache-2.0
#include "interpreters/HTTP/HTTP2Direction.h"

#include "interpreters/HTTP/MessageText.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <fmt/format.h>
#include <iterator>
#include <system_error>
#include <utility>

namespace sealscope {

namespace {

using Type = HTTP2Frame::Type;

// A connection that pings every second is shown for a while, then counted.
constexpr std::size_t mostFrames = 1'000;
constexpr std::size_t mostPriorityRows = 100;
constexpr std::size_t mostGaps = 1'000;
// Frames in a row that make it certain that they are frames.
constexpr int framesToGoOn = 3;

/// "weight 16, after stream 3" (RFC 7540 §5.3.2): five bytes.
std::string priorityText(StreamReader& reader, std::int64_t offset)
{
    const std::uint32_t dependency = static_cast<std::uint32_t>(reader.u16(offset)) << 16 | reader.u16(offset + 2);
    return fmt::format("weight {}, {} stream {}", reader.u8(offset + 4) + 1, dependency >> 31 ? "alone below" : "below",
                       dependency & 0x7FFF'FFFF);
}

// Room that the heap takes apart from what was asked for counts as well.
constexpr std::size_t heldByStream = sizeof(HTTP2Half) + 64;

std::size_t heldByBlock(const HTTP2Block& block)
{
    std::size_t bytes = block.fields.heldBytes() + 32;
    for (const DetailRow& note : block.notes) bytes += sizeof note + note.name.size() + note.value.size();
    return bytes;
}

// What is kept of a stream takes some hundred bytes in small pieces. The heap of a thread other than the first grows by as many pages as
// the next piece needs, with a system call each, for which the other threads wait; what was asked for at once and given back stays there.
constexpr std::size_t streamsPerRoom = 8'192;

void makeRoomInHeap()
{
    constexpr std::size_t room = 3 << 20;
    void* const volatile asked = std::malloc(room);  // a pair that the compiler sees through it leaves out
    std::free(asked);
}

}  // namespace

std::optional<std::string_view> HTTP2Block::pseudoField(std::string_view wanted) const
{
    std::optional<std::string_view> found;
    fields.forEach([&](std::string_view name, std::string_view value) {
        if (!name.starts_with(':') && !name.starts_with('(')) return false;
        if (name == wanted) found = value;
        return !found;
    });
    return found;
}

std::size_t HTTP2Half::finalHead() const
{
    const auto isInterim = [](const HTTP2Block& block) {
        const auto status = block.pseudoField(":status");
        int code = 0;
        return status && std::from_chars(status->data(), status->data() + status->size(), code).ec == std::errc() && code / 100 == 1;
    };
    return static_cast<std::size_t>(std::ranges::find_if_not(blocks, isInterim) - blocks.begin());
}

HTTP2Direction::HTTP2Direction(const TCPStream& stream, TCPSegment::Direction direction, Start start)
    : data_(stream.data(direction)), direction_(direction), lost_(stream, direction), reader_(data_)
{
    if (HTTP2Frame::beginsWithPreface(data_)) {
        offset_ = std::ssize(HTTP2Frame::preface);
    } else if (start == Start::missing) {
        decompressor_.forget();
        if (!HTTP2Frame::isChain(reader_, 0, framesToGoOn)) resynchronize(0);
    }
}

void HTTP2Direction::goOn(const TCPStream& stream, StreamExtent extent, std::size_t mostHeld)
{
    lost_ = LostBytes(stream, direction_);
    reader_ = StreamReader(data_);
    read(extent, [&] { return held_ < mostHeld; });
    if (open_ && extent == StreamExtent::whole && isAtEnd()) endHeaders();
}

void HTTP2Direction::readSome(std::size_t more)
{
    constexpr std::int64_t atOnce = 1 << 18, rowsAtOnce = 1 << 20;
    const std::size_t heldBefore = held_;
    const std::int64_t from = offset_, rowsBefore = rowBytes_;
    read(StreamExtent::whole, [&] { return held_ < heldBefore + more && offset_ < from + atOnce && rowBytes_ < rowsBefore + rowsAtOnce; });
    if (open_ && isAtEnd()) endHeaders();
}

std::int64_t HTTP2Direction::neededFrom() const
{
    std::int64_t from = offset_;
    for (const HTTP2Half& half : halves_) {
        if (half.neededFrom)
            from = std::min(from, *half.neededFrom);
        else if (!half.frames.isEmpty())
            from = std::min(from, half.frames.bounds().lower);
    }
    return from;
}

std::size_t HTTP2Direction::heldBy(const HTTP2Half& half)
{
    std::size_t bytes = heldByStream;
    for (const HTTP2Block& block : half.blocks) bytes += heldByBlock(block);
    return bytes;
}

void HTTP2Direction::forget(const absl::flat_hash_set<std::uint32_t>& streams)
{
    // A header block that has begun is read to its end whatever becomes of its stream, for the sake of those behind it.
    const auto isForgotten = [&](const HTTP2Half& half) { return streams.contains(half.stream) && !isInHeaders(half.stream); };
    // Those that are over are the oldest for the most part.
    while (!halves_.empty() && isForgotten(halves_.front())) halves_.pop_front();
    std::erase_if(halves_, isForgotten);
    held_ = 0;
    for (const HTTP2Half& half : halves_) held_ += heldBy(half);
    places_.clear();
    latest_ = 0;
    if (!isAscending_)
        for (std::size_t place = 0; place < halves_.size(); ++place) places_.emplace(halves_[place].stream, place);
    if (open_) open_->place = *find(open_->stream);
}

void HTTP2Direction::forgetConnection()
{
    frames_.clear();
    gaps_.clear();
    shownFrames_ = shownGaps_ = 0;
    priorityRows_.clear();
    windowUpdates_ = connectionWindow_ = priorities_ = furtherFrames_ = 0;
}

HTTP2Half* HTTP2Direction::half(std::uint32_t stream)
{
    // Most often the one that was asked for last, or the next.
    for (std::size_t place = latest_; place < std::min(latest_ + 2, halves_.size()); ++place)
        if (halves_[place].stream == stream) return &halves_[latest_ = place];
    const auto place = find(stream);
    return place ? &halves_[latest_ = *place] : nullptr;
}

HTTP2Half& HTTP2Direction::halfFor(std::uint32_t stream)
{
    if (latest_ < halves_.size() && halves_[latest_].stream == stream) return halves_[latest_];
    if (const auto place = find(stream)) return halves_[latest_ = *place];
    if (isAscending_ && !halves_.empty() && stream < halves_.back().stream) {
        isAscending_ = false;
        for (std::size_t place = 0; place < halves_.size(); ++place) places_.emplace(halves_[place].stream, place);
    }
    latest_ = halves_.size();
    if (!isAscending_) places_.emplace(stream, latest_);
    if (halves_.size() % streamsPerRoom == streamsPerRoom / 8) makeRoomInHeap();
    HTTP2Half& half = halves_.emplace_back();
    half.stream = stream;
    held_ += heldByStream;
    highestStream_ = std::max(highestStream_, stream & 0x7FFF'FFFF);
    return half;
}

std::optional<std::size_t> HTTP2Direction::find(std::uint32_t stream) const
{
    if (!isAscending_) {
        const auto place = places_.find(stream);
        return place == places_.end() ? std::nullopt : std::optional(place->second);
    }
    if (halves_.empty() || halves_.back().stream < stream) return std::nullopt;
    const auto found = std::ranges::lower_bound(halves_, stream, {}, &HTTP2Half::stream);
    return found->stream == stream ? std::optional(static_cast<std::size_t>(found - halves_.begin())) : std::nullopt;
}

void HTTP2Direction::appendFrame(HTTP2Half& half, const HTTP2Frame& frame)
{
    half.frames.append({frame.offset, std::min(frame.range().upper, data_.size())});
}

void HTTP2Direction::resynchronize(std::int64_t from)
{
    if (open_) {
        open_->block.notes.push_back({"Header incomplete", "the capture lacks its end"});
        endHeaders();
    }
    decompressor_.forget();
    std::int64_t offset = from;
    while (offset < data_.size() && !HTTP2Frame::isChain(reader_, offset, framesToGoOn)) {
        // A hole may be longer than any memory.
        const auto lost = reader_.u8(offset) == 0 ? lost_.firstIn({offset, offset + 1}) : std::nullopt;
        offset = lost ? std::max(offset + data_.stretch(offset).size(), offset + 1) : offset + 1;
    }
    if (shownGaps_ < mostGaps && offset > offset_) {
        gaps_.push_back({offset_, offset});
        ++shownGaps_;
    }
    offset_ = offset;
}

template <class Goes> void HTTP2Direction::read(StreamExtent extent, const Goes& goesOn)
{
    const bool isGrowing = extent == StreamExtent::growing;
    while (offset_ < data_.size() && goesOn()) {
        const HTTP2Frame frame = HTTP2Frame::read(reader_, offset_);
        const ByteRange header{offset_, std::min(offset_ + HTTP2Frame::headerLength, data_.size())};
        if (const auto lost = lost_.firstIn(header)) {
            resynchronize(lost->upper);
            continue;
        }
        if (header.size() < HTTP2Frame::headerLength) {
            if (isGrowing) return;
            gaps_.push_back(header);  // the capture ends in it
            offset_ = data_.size();
            break;
        }
        if (!frame.isPossible()) {
            resynchronize(offset_ + 1);
            continue;
        }
        if (isGrowing && frame.range().upper > data_.size()) return;
        readFrame(frame);
        offset_ = frame.range().upper;
    }
}

ByteRange HTTP2Direction::withoutPadding(const HTTP2Frame& frame)
{
    ByteRange payload = frame.payload();
    if (frame.has(HTTP2Frame::padded) && frame.length > 0) {
        const std::int64_t padding = reader_.u8(payload.lower++);
        payload.upper = std::max(payload.lower, payload.upper - padding);
    }
    payload.upper = std::min(payload.upper, data_.size());
    payload.lower = std::min(payload.lower, payload.upper);
    return payload;
}

void HTTP2Direction::readFrame(const HTTP2Frame& frame)
{
    // Nothing may come between a header block's frames (RFC 9113 §4.3).
    if (open_ && (frame.type != Type::continuation || frame.stream != open_->frameStream)) {
        open_->block.notes.push_back({"Header incomplete", frame.typeName() + " came in its middle"});
        endHeaders();
    }
    switch (frame.type) {
    case Type::data: {
        HTTP2Half& half = halfFor(frame.stream);
        appendFrame(half, frame);
        half.data.append(withoutPadding(frame));
        if (frame.has(HTTP2Frame::endStream) && frame.range().upper <= data_.size()) half.isEnded = true;
        return;
    }
    case Type::headers: return readHeaders(frame, frame.has(HTTP2Frame::hasPriority) ? 5 : 0, frame.stream);
    case Type::pushPromise: {
        const std::int64_t offset = withoutPadding(frame).lower;
        const std::uint32_t promised = (static_cast<std::uint32_t>(reader_.u16(offset)) << 16 | reader_.u16(offset + 2)) & 0x7FFF'FFFF;
        // The promised request is kept apart from what is sent on its stream.
        readHeaders(frame, 4, promised | 0x8000'0000);
        halfFor(promised | 0x8000'0000).promisedOn = frame.stream;
        return;
    }
    case Type::continuation:
        if (!open_) return;  // of a block whose beginning the capture lacks
        return readHeaders(frame, 0, frame.stream);
    case Type::rstStream: {
        HTTP2Half& half = halfFor(frame.stream);
        const std::int64_t code = frame.payload().lower;
        half.resetCode = static_cast<std::uint32_t>(reader_.u16(code)) << 16 | reader_.u16(code + 2);
        appendFrame(half, frame);
        break;
    }
    case Type::priority:
        if (++priorities_ <= static_cast<std::int64_t>(mostPriorityRows))
            priorityRows_.push_back({fmt::format("Priority of stream {}", frame.stream), priorityText(reader_, frame.payload().lower)});
        return;
    case Type::windowUpdate:
        ++windowUpdates_;
        if (frame.stream == 0) {
            const std::int64_t increment = frame.payload().lower;
            connectionWindow_ += (reader_.u16(increment) & 0x7FFF) << 16 | reader_.u16(increment + 2);
        }
        return;
    default: break;
    }
    if (shownFrames_ < mostFrames) {
        frames_.push_back(frame);
        ++shownFrames_;
    } else {
        ++furtherFrames_;
    }
}

void HTTP2Direction::readHeaders(const HTTP2Frame& frame, std::int64_t prefix, std::uint32_t stream)
{
    ByteRange payload = frame.type == Type::continuation ? ByteRange{frame.payload().lower, std::min(frame.payload().upper, data_.size())}
                                                         : withoutPadding(frame);
    if (!open_) {
        halfFor(stream);
        open_.emplace().place = latest_;
        open_->stream = stream;
        open_->frameStream = frame.stream;
        open_->endsStream = frame.type == Type::headers && frame.has(HTTP2Frame::endStream);
        open_->block.range = {frame.offset, frame.offset};
        open_->decompressed.fields = std::move(spareFields_);
        if (prefix == 5 && payload.size() >= 5) open_->block.notes.push_back({"Stream priority", priorityText(reader_, payload.lower)});
    }
    payload.lower = std::min(payload.lower + prefix, payload.upper);
    open_->block.range.upper = std::min(frame.range().upper, data_.size());
    appendFrame(halves_[open_->place], frame);

    if (lost_.firstIn(payload)) open_->lostBytes += lost_.countIn(payload);
    if (frame.range().upper > data_.size()) open_->block.notes.push_back({"Header incomplete", "the capture ends in it"});
    if (open_->lostBytes == 0) {
        constexpr std::int64_t atOnce = 1 << 20;  // a frame may have 16 MB
        for (; !payload.isEmpty(); payload.lower += std::min(atOnce, payload.size())) {
            data_.findStretches(payload.lower, std::min(atOnce, payload.size()), stretches_);
            for (const DataView& stretch : stretches_) decompressor_.push(stretch, open_->decompressed);
        }
    }
    if (frame.has(HTTP2Frame::endHeaders) || frame.range().upper > data_.size()) endHeaders();
}

void HTTP2Direction::endHeaders()
{
    HTTP2OpenBlock& open = *open_;
    if (open.lostBytes > 0) {
        open.block.notes.push_back({"Header incomplete", fmt::format("the capture lacks {} of it", byteCountText(open.lostBytes))});
        decompressor_.forget();
    } else {
        decompressor_.end(open.decompressed);
        const auto& [shown, count, bytes, unshown, unknown, problem] = open.decompressed;
        if (problem) open.block.notes.push_back({"Header malformed", std::string(HeaderDecompressor::text(*problem))});
        if (unknown > 0)
            open.block.notes.push_back(
                {"Header incomplete", fmt::format("{} of its fields refer to earlier ones that the capture lacks", unknown)});
        if (unshown > 0) open.block.notes.push_back({"Header cut", groupedText(unshown) + " further fields are not shown"});
    }
    HTTP2Half& half = halves_[open.place];
    const std::int64_t rowBytes = open.decompressed.fieldBytes + static_cast<std::int64_t>(open.decompressed.count * sizeof(DetailRow));
    rowBytes_ += rowBytes;
    // All of a stream's fields become one message.
    constexpr std::int64_t mostRowBytes = 2 << 20;
    if (half.rowBytes + rowBytes <= mostRowBytes)
        open.block.fields = open.decompressed.fields.fitted();
    else if (half.rowBytes <= mostRowBytes)
        open.block.notes.push_back({"Header cut", "the fields of further headers on the stream are not shown"});
    half.rowBytes += rowBytes;
    spareFields_ = std::move(open.decompressed.fields);
    spareFields_.clear();
    held_ += heldByBlock(open.block);
    if (open.endsStream) half.isEnded = true;
    half.blocks.push_back(std::move(open.block));
    open_.reset();
}

namespace {

template <class Piece, class OffsetOf>
std::vector<Piece> takeFront(std::deque<Piece>& pieces, std::int64_t before, const OffsetOf& offsetOf)
{
    const auto end = std::ranges::find_if(pieces, [&](const Piece& piece) { return offsetOf(piece) >= before; });
    std::vector<Piece> taken(pieces.begin(), end);
    pieces.erase(pieces.begin(), end);
    return taken;
}

}  // namespace

std::vector<HTTP2Frame> HTTP2Direction::takeFrames(std::int64_t before)
{
    return takeFront(frames_, before, [](const HTTP2Frame& frame) { return frame.offset; });
}

std::vector<ByteRange> HTTP2Direction::takeGaps(std::int64_t before)
{
    return takeFront(gaps_, before, [](const ByteRange& gap) { return gap.lower; });
}

std::vector<DetailRow> HTTP2Direction::connectionRows() const
{
    std::vector<DetailRow> rows;
    if (windowUpdates_ > 0) rows.push_back({"Window updates", groupedText(windowUpdates_)});
    if (connectionWindow_ > 0) rows.push_back({"Granted to the connection", byteCountText(connectionWindow_)});
    rows.insert(rows.end(), priorityRows_.begin(), priorityRows_.end());
    if (priorities_ > std::ssize(priorityRows_))
        rows.push_back({"Further priorities", groupedText(priorities_ - std::ssize(priorityRows_))});
    if (furtherFrames_ > 0) rows.push_back({"Further frames", groupedText(furtherFrames_)});
    return rows;
}

}  // namespace sealscope
