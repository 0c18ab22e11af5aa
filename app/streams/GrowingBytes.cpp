// SPDX-License-Identifier: Apache-2.0
#include "app/streams/GrowingBytes.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <utility>

namespace sealscope {

namespace {

constexpr std::array<std::uint8_t, 16'384> zeros{};

}  // namespace

void GrowingBytes::append(DataView bytes, ByteLocation carriedBy)
{
    if (bytes.isEmpty()) return;
    pieces_.push_back({.begin = end_, .bytes = Data(bytes), .carriedBy = std::move(carriedBy)});
    end_ += bytes.size();
    held_ += bytes.size();
}

void GrowingBytes::appendHole(std::int64_t count)
{
    if (count <= 0) return;
    if (pieces_.empty() || !pieces_.back().bytes.isEmpty()) pieces_.push_back({.begin = end_});
    end_ += count;
}

void GrowingBytes::letGo(std::int64_t before)
{
    while (!pieces_.empty() && endOf(pieces_.begin()) <= before) {
        held_ -= pieces_.front().bytes.size();
        pieces_.pop_front();
    }
}

std::int64_t GrowingBytes::endOf(std::deque<Piece>::const_iterator piece) const
{
    const auto next = std::next(piece);
    return next == pieces_.end() ? end_ : next->begin;
}

std::deque<GrowingBytes::Piece>::const_iterator GrowingBytes::pieceAt(std::int64_t offset) const
{
    const auto after = std::ranges::upper_bound(pieces_, offset, {}, &Piece::begin);
    return after == pieces_.begin() ? pieces_.end() : std::prev(after);
}

DataView GrowingBytes::stretch(std::int64_t offset) const
{
    const auto piece = pieceAt(offset);
    if (piece != pieces_.end() && !piece->bytes.isEmpty()) return piece->bytes.view().from(offset - piece->begin);
    const std::int64_t end = piece == pieces_.end() ? begin() : endOf(piece);
    return DataView(zeros).sub(0, end - offset);
}

std::optional<ByteRange> GrowingBytes::hole(std::int64_t offset) const
{
    const auto piece = pieceAt(offset);
    if (piece == pieces_.end()) {
        const bool goesOn = !pieces_.empty() && pieces_.front().bytes.isEmpty();
        return ByteRange{0, goesOn ? endOf(pieces_.begin()) : begin()};
    }
    if (!piece->bytes.isEmpty()) return std::nullopt;
    return ByteRange{piece == pieces_.begin() ? 0 : piece->begin, endOf(piece)};
}

ByteLocation GrowingBytes::locate(ByteRange range) const
{
    ByteLocation location;
    PacketIdCollector packets(location.packetIds);
    auto piece = pieceAt(std::max(range.lower, begin()));
    for (; piece != pieces_.end() && piece->begin < range.upper; ++piece) {
        for (const std::int64_t packetId : piece->carriedBy.packetIds) packets.add(packetId);
        const auto& time = piece->carriedBy.timestamp;
        if (time) location.timestamp = std::min(location.timestamp.value_or(*time), *time);
    }
    return location;
}

}  // namespace sealscope
