// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/ByteToSegmentIndex.h"
#include "host/VELModels/StreamData.h"
#include "interpreters/TLSReach/RecordOpener.h"
#include "platform/LentBlocks.h"

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace sealscope {

/// The plaintext of one direction, with holes in place of records that could not be opened as long as these are known to have been.
/// The first of it is kept; what lies behind is opened anew when somebody reads it, where that is possible. Nothing changes once it is
/// built; any thread may read it then.
class ReachPlaintext final : public StreamByteSource, public ByteLocator {
public:
    /// `captured` and `index`: the direction's data, and where they came from.
    ReachPlaintext(StreamData captured, ByteToSegmentIndex index) : captured_(std::move(captured)), index_(std::move(index)) {}

    /// What opened a record.
    struct Key {
        std::shared_ptr<RecordOpener> opener;
        std::uint64_t sequence = 0;
        std::int64_t offset = 0;  ///< as `ProtectedRecord::offsetUnderKey`
    };

    /// Room for the next record's plaintext: `count` bytes, no more than `blockSize`.
    std::uint8_t* room(std::int64_t count);
    /// What was opened into the room last: `count` bytes of it, from a record whose body lies at `body`.
    void add(std::int64_t count, ByteRange body, const Key& key);
    /// As many bytes that nobody opened.
    void addHole(std::int64_t count);
    /// Nothing more comes.
    void end();

    std::int64_t size() const { return size_; }
    std::int64_t openedBytes() const { return size_ - holes_; }

    DataView stretch(std::int64_t offset) const override;
    std::optional<ByteRange> hole(std::int64_t offset) const override;
    std::int64_t holeBytes() const override { return holes_; }
    bool lendsForLong() const override { return isKept_; }
    ByteLocation locate(ByteRange range) const override;

private:
    static constexpr std::int64_t blockSize = 1 << 18;
    static constexpr std::int64_t keptBytes = 4 << 20;
    static constexpr std::uint32_t longestRun = 16;  ///< records that are counted through to find one
    static constexpr std::int64_t betweenStandings = 16 << 20;

    using Bytes = std::shared_ptr<std::uint8_t[]>;
    struct Record {
        std::uint16_t content = 0;
        std::uint16_t body = 0;
    };
    /// Records one behind another, or a hole.
    struct Run {
        std::int64_t begin = 0;  ///< in the plaintext
        std::int64_t body = 0;   ///< where the first record's body begins in the captured data
        std::uint64_t sequence = 0;
        std::int64_t offsetUnderKey = 0;  ///< of that body
        std::size_t first = 0;            ///< of its records
        std::uint32_t count = 0;
        std::uint32_t block = 0;
        std::uint32_t opener = 0;
        bool isHole = false;
    };
    /// Where an opener stands between two records, of a key whose records only open one behind another.
    struct Standing {
        std::int64_t begin = 0;           ///< in the plaintext
        std::int64_t header = 0;          ///< of the next record in the captured data
        std::int64_t offsetUnderKey = 0;  ///< of that header
        std::uint64_t sequence = 0;
        std::shared_ptr<RecordOpener> opener;
    };
    struct Block {
        std::int64_t begin = 0;  ///< in the plaintext
        std::int64_t end = 0;
        std::size_t firstRun = 0;
        Bytes bytes;  ///< null: to be opened anew
    };

    class Sealed;

    void endBlock();
    std::vector<Run>::const_iterator runAt(std::int64_t offset) const;
    std::int64_t endOf(std::vector<Run>::const_iterator run) const { return std::next(run) == runs_.end() ? size_ : std::next(run)->begin; }
    /// The bytes of a block that was not kept.
    Bytes opened(std::uint32_t number) const;
    /// The same where records only open one behind another. `last`: where this thread stopped, if it did.
    Bytes openedInTurn(const Block& block, Standing& last) const;
    void keepStanding();

    StreamData captured_;
    ByteToSegmentIndex index_;
    std::vector<Record> records_;
    std::vector<Run> runs_;
    std::deque<Block> blocks_;
    static constexpr std::size_t mostOpeners = 512;
    std::vector<std::shared_ptr<RecordOpener>> openers_;  ///< by key; null: not kept
    std::shared_ptr<RecordOpener> lastOpener_;            ///< of the last record, while there are more to come
    std::vector<Standing> standings_;  ///< in ascending order
    std::int64_t used_ = 0;            ///< bytes of the last block
    std::int64_t lastBody_ = 0;        ///< where the last record ends in the captured data
    std::int64_t lastOffset_ = 0;      ///< the same, as an offset under its key
    std::uint64_t lastSequence_ = 0;
    std::shared_ptr<RecordOpener> openerOfStandings_;  ///< that the last of them is of
    Bytes spare_;                                      ///< of a block that is not kept
    bool isOpen_ = false;                              ///< the last block may grow
    bool canReopen_ = true;                            ///< all records of the last block
    bool isKept_ = true;                               ///< every block
    std::int64_t kept_ = 0;
    std::int64_t size_ = 0;
    std::int64_t holes_ = 0;

    mutable LentBlocks<Standing> lent_;  ///< with where the thread stopped that opens one behind another
};

}  // namespace sealscope
