// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/ByteToSegmentIndex.h"
#include "host/VELModels/StreamData.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

namespace sealscope {

/// The plaintext of one direction, record by record, with holes in place of records that could not be opened as long as these are
/// known to have been. Immutable once it is built; any thread may read it then.
class ReachPlaintext final : public StreamByteSource, public ByteLocator {
public:
    explicit ReachPlaintext(ByteToSegmentIndex captured) : captured_(std::move(captured)) {}

    /// Room for the next record's plaintext: `count` bytes, which stay where they are.
    std::uint8_t* room(std::int64_t count);
    /// What was opened into the room last: `count` bytes of it, from a record whose body lies at `body`.
    void add(std::int64_t count, ByteRange body);
    /// As many bytes that nobody opened.
    void addHole(std::int64_t count);

    std::int64_t size() const { return size_; }
    std::int64_t openedBytes() const { return size_ - holes_; }

    DataView stretch(std::int64_t offset) const override;
    std::optional<ByteRange> hole(std::int64_t offset) const override;
    std::int64_t holeBytes() const override { return holes_; }
    ByteLocation locate(ByteRange range) const override;

private:
    static constexpr std::int64_t blockSize = 1 << 20;
    struct Piece {
        std::int64_t end = 0;                 ///< in the plaintext
        const std::uint8_t* bytes = nullptr;  ///< null for a hole
        ByteRange body;
    };
    std::vector<Piece>::const_iterator pieceAt(std::int64_t offset) const;
    std::int64_t startOf(std::vector<Piece>::const_iterator piece) const { return piece == pieces_.begin() ? 0 : std::prev(piece)->end; }

    ByteToSegmentIndex captured_;
    std::vector<Piece> pieces_;
    std::vector<std::unique_ptr<std::uint8_t[]>> blocks_;
    std::int64_t left_ = 0;  ///< bytes at the end of the last block
    std::uint8_t* next_ = nullptr;
    std::int64_t size_ = 0;
    std::int64_t holes_ = 0;
};

}  // namespace sealscope
