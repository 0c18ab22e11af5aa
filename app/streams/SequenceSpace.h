// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/streams/ConnectionIndex.h"
#include "app/streams/SegmentList.h"
#include "app/streams/SequenceNumber.h"

#include <absl/container/inlined_vector.h>
#include <cstdint>
#include <optional>

namespace sealscope {

/// Turns one direction's wrapping sequence numbers into positions that only grow, segment by segment in capture order.
///
/// A direction is one era as long as its numbers hang together. A jump that no loss explains opens another era, whose
/// positions lie beyond all those of the eras before; a later segment still goes to the era that it fits.
class SequenceSpace {
public:
    /// A lost stretch is no longer than this; what lies farther ahead is another era.
    static constexpr std::int64_t largestLoss = std::int64_t{1} << 30;
    /// Eras of one direction; segments that would open more are left out.
    static constexpr std::size_t maximumEras = 1 << 16;
    /// Positions that belong to each era. Its data begins and ends well inside them, see `isWithin`.
    static constexpr std::int64_t eraLength = std::int64_t{1} << 44;

    struct Era {
        std::int64_t origin = 0;  ///< position of `originNumber`
        std::uint32_t originNumber = 0;
        std::int64_t begin = 0;  ///< position of the first byte: after the SYN, else the lowest seen in time
        std::int64_t end = 0;    ///< position after the last byte
        bool hasSYN = false;
        bool hasData = false;

        std::uint32_t numberAt(std::int64_t position) const { return originNumber + static_cast<std::uint32_t>(position - origin); }
        std::int64_t positionOf(std::uint32_t number) const { return end + sequenceDistance(numberAt(end), number); }
        /// Whether a segment may begin at a position: however far a stream goes, it stays within its era's positions.
        bool isWithin(std::int64_t position) const { return position >= origin - eraLength / 4 && position <= origin + eraLength / 4; }
    };

    using Eras = absl::InlinedVector<Era, 1>;

    /// The positions of a segment's payload. `begin` counts from where the era's data begins at the least.
    struct Placed {
        std::int64_t begin = 0;
        std::int64_t capturedEnd = 0;
        std::int64_t end = 0;
        std::uint32_t number = 0;  ///< sequence number at `begin`
        bool isNew = false;        ///< nothing at or beyond `begin` was seen before
    };

    /// `acknowledged` is what the receiver has acknowledged in the whole capture, when that is known.
    explicit SequenceSpace(std::optional<Acknowledged> acknowledged) : acknowledged_(acknowledged) {}

    /// Where the next segment's payload lies; nothing when it brings no bytes.
    std::optional<Placed> place(const SegmentRecord& segment);

    const Eras& eras() const { return eras_; }
    static std::size_t eraOf(std::int64_t position) { return static_cast<std::size_t>(position / eraLength); }

private:
    Era& open(std::uint32_t originNumber);
    void takeSYN(std::uint32_t dataNumber);
    bool fits(std::size_t era, std::uint32_t number, std::int64_t length) const;
    std::optional<std::size_t> eraFor(std::uint32_t number, std::int64_t length);

    std::optional<Acknowledged> acknowledged_;
    Eras eras_;
    std::size_t current_ = 0;
};

}  // namespace sealscope
