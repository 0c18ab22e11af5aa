// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/streams/ConnectionIndex.h"
#include "app/streams/SegmentList.h"

#include <absl/container/inlined_vector.h>
#include <cstdint>
#include <optional>
#include <vector>

namespace sealscope {

/// A stretch of one direction's data that consecutive segments of its list carried in order, one after the other. Between them
/// may stand segments that add nothing. Each byte belongs to the first segment of the run that ends after it: no segment of a
/// run ends before one that precedes it, which makes that a binary search.
struct SegmentRun {
    std::int64_t offset = 0;   ///< of its first byte, in the direction's data
    std::uint32_t length = 0;  ///< bytes, at least one
    std::uint32_t number = 0;  ///< sequence number of its first byte
    std::uint32_t first = 0;   ///< position of its first segment in the list
    std::uint32_t count = 0;   ///< segments, from the first to the last that carries bytes of it

    std::int64_t end() const { return offset + length; }
};

/// One direction's data: which segment carries which bytes. What lies between the runs was lost.
struct Reassembly {
    /// Where an era of `SequenceSpace` begins, there and in the data.
    struct Era {
        std::int64_t position = 0;
        std::int64_t offset = 0;
    };

    std::vector<SegmentRun> runs;  ///< by offset; they do not overlap
    std::int64_t size = 0;         ///< bytes, lost ones included
    std::int64_t missingBytes = 0;
    std::int64_t restarts = 0;                 ///< jumps in the sequence numbers that are no plausible loss
    std::optional<std::uint32_t> firstNumber;  ///< sequence number of the data's first byte, when one is known
    absl::InlinedVector<Era, 1> eras;
    bool hasOverlaps = false;  ///< some segment was not beyond all those before it

    /// The offset of a position in `SequenceSpace`.
    std::int64_t offsetOf(std::int64_t position) const;
};

/// Puts one direction's segments in order, without a look at their bytes: the first copy of a byte in capture order stays.
/// In-order data costs one pass; with n out of order, n log n.
Reassembly reassemble(const SegmentTable& segments, std::optional<Acknowledged> acknowledged);

}  // namespace sealscope
