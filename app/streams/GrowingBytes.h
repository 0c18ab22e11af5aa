// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/ByteToSegmentIndex.h"
#include "host/VELModels/StreamData.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace sealscope {

/// One direction of a stream that still goes on: its bytes in sequence order, with the packets that carried them. Offsets count from
/// the direction's first byte; what was let go of reads as lost. Used by one thread, other than its bases promise: who holds it knows.
class GrowingBytes final : public StreamByteSource, public ByteLocator {
public:
    /// Adds a copy of bytes that packets carried.
    void append(DataView bytes, ByteLocation carriedBy);
    /// Adds bytes that nobody captured.
    void appendHole(std::int64_t count);
    /// Lets go of what lies in front of an offset, as far as whole pieces do.
    void letGo(std::int64_t before);

    std::int64_t size() const { return end_; }
    /// Bytes that are held.
    std::int64_t held() const { return held_; }
    /// Where the first byte lies that was not let go of.
    std::int64_t begin() const { return first_ == pieces_.size() ? end_ : pieces_[first_].begin; }

    DataView stretch(std::int64_t offset) const override;
    std::optional<ByteRange> hole(std::int64_t offset) const override;
    std::int64_t holeBytes() const override { return end_ - held_; }
    ByteLocation locate(ByteRange range) const override;

private:
    struct Piece {
        std::int64_t begin = 0;
        Data bytes;  ///< empty for a hole
        ByteLocation carriedBy;
    };
    using Position = std::vector<Piece>::const_iterator;
    Position firstPiece() const { return pieces_.begin() + static_cast<std::ptrdiff_t>(first_); }
    Position pieceAt(std::int64_t offset) const;
    std::int64_t endOf(Position piece) const;

    std::vector<Piece> pieces_;
    std::size_t first_ = 0;  ///< of the pieces that are held; those before are empty, and taken away now and then
    std::int64_t end_ = 0;
    std::int64_t held_ = 0;
};

}  // namespace sealscope
