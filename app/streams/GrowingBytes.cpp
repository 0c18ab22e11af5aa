// SPDX-License-Identifier: Apache-2.0
#include "app/streams/GrowingBytes.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <utility>

namespace sealscope {

namespace {

constexpr std::array<std::uint8_t, 16'384> lostBytes{};  // what holes are read from

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
    if (first_ == pieces_.size() || !pieces_.back().bytes.isEmpty()) pieces_.push_back({.begin = end_});
    end_ += count;
}

void GrowingBytes::letGo(std::int64_t before)
{
    for (; first_ < pieces_.size() && endOf(firstPiece()) <= before; ++first_) {
        held_ -= pieces_[first_].bytes.size();
        pieces_[first_] = {};
    }
    if (first_ <= pieces_.size() / 2) return;
    pieces_.erase(pieces_.begin(), firstPiece());
    first_ = 0;
}

std::int64_t GrowingBytes::endOf(Position piece) const
{
    const auto next = std::next(piece);
    return next == pieces_.end() ? end_ : next->begin;
}

GrowingBytes::Position GrowingBytes::pieceAt(std::int64_t offset) const
{
    const auto after = std::ranges::upper_bound(firstPiece(), pieces_.end(), offset, {}, &Piece::begin);
    return after == firstPiece() ? pieces_.end() : std::prev(after);
}

DataView GrowingBytes::stretch(std::int64_t offset) const
{
    const auto piece = pieceAt(offset);
    if (piece != pieces_.end() && !piece->bytes.isEmpty()) return piece->bytes.view().from(offset - piece->begin);
    const std::int64_t end = piece == pieces_.end() ? begin() : endOf(piece);
    return DataView(lostBytes).sub(0, end - offset);
}

std::optional<ByteRange> GrowingBytes::hole(std::int64_t offset) const
{
    const auto piece = pieceAt(offset);
    if (piece == pieces_.end()) {
        const bool goesOn = first_ < pieces_.size() && firstPiece()->bytes.isEmpty();
        return ByteRange{0, goesOn ? endOf(firstPiece()) : begin()};
    }
    if (!piece->bytes.isEmpty()) return std::nullopt;
    return ByteRange{piece == firstPiece() ? 0 : piece->begin, endOf(piece)};
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
