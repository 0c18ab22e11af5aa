// SPDX-License-Identifier: Apache-2.0
#include "interpreters/TLSReach/ReachPlaintext.h"

#include <algorithm>
#include <array>

namespace sealscope {

namespace {

constexpr std::array<std::uint8_t, 16'384> zeros{};

}  // namespace

std::uint8_t* ReachPlaintext::room(std::int64_t count)
{
    if (left_ < count) {
        left_ = std::max(count, blockSize);
        next_ = blocks_.emplace_back(std::make_unique_for_overwrite<std::uint8_t[]>(static_cast<std::size_t>(left_))).get();
    }
    return next_;
}

void ReachPlaintext::add(std::int64_t count, ByteRange body)
{
    if (count == 0) return;
    size_ += count;
    pieces_.push_back({.end = size_, .bytes = next_, .body = body});
    next_ += count;
    left_ -= count;
}

void ReachPlaintext::addHole(std::int64_t count)
{
    if (count <= 0) return;
    size_ += count;
    holes_ += count;
    if (!pieces_.empty() && !pieces_.back().bytes)
        pieces_.back().end = size_;
    else
        pieces_.push_back({.end = size_});
}

std::vector<ReachPlaintext::Piece>::const_iterator ReachPlaintext::pieceAt(std::int64_t offset) const
{
    return std::ranges::upper_bound(pieces_, offset, {}, &Piece::end);
}

DataView ReachPlaintext::stretch(std::int64_t offset) const
{
    const auto piece = pieceAt(offset);
    const std::int64_t start = startOf(piece), left = piece->end - offset;
    return piece->bytes ? DataView(piece->bytes + (offset - start), left) : DataView(zeros).sub(0, left);
}

std::optional<ByteRange> ReachPlaintext::hole(std::int64_t offset) const
{
    const auto piece = pieceAt(offset);
    return piece->bytes ? std::nullopt : std::optional(ByteRange{startOf(piece), piece->end});
}

ByteLocation ReachPlaintext::locate(ByteRange range) const
{
    ByteLocation location;
    PacketIdCollector packets(location.packetIds);
    for (auto piece = pieceAt(range.lower); piece != pieces_.end() && startOf(piece) < range.upper; ++piece) {
        if (!piece->bytes) continue;
        const ByteLocation behind = captured_.locate(piece->body);
        for (const std::int64_t packetId : behind.packetIds) packets.add(packetId);
        if (behind.timestamp) location.timestamp = std::min(location.timestamp.value_or(*behind.timestamp), *behind.timestamp);
    }
    return location;
}

}  // namespace sealscope
