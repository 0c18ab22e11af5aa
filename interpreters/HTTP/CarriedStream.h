// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/TCPStream.h"
#include "interpreters/HTTP/ByteRanges.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <vector>

namespace sealscope {

/// Ranges with the place of each in what they carry.
class CarriedPlaces {
public:
    explicit CarriedPlaces(const ByteRanges& carried) : carried_(carried), marks_(carried.marks(betweenMarks)) {}

    /// Calls `visit` with the outer ranges that carry an inner one, in order, until it gives false.
    template <class Visit> void forEach(ByteRange inner, const Visit& visit) const
    {
        const ByteRanges::Mark& mark = markBefore(inner.lower, &ByteRanges::Mark::passed);
        std::int64_t passed = mark.passed;
        carried_.forEachFrom(mark, [&](ByteRange outer) {
            const std::int64_t shift = outer.lower - passed;
            passed += outer.size();
            const ByteRange part{std::max(inner.lower + shift, outer.lower), std::min(inner.upper + shift, outer.upper)};
            return (part.isEmpty() || visit(part)) && passed < inner.upper;
        });
    }
    /// Where an inner range lies in the outer bytes: from its first byte to its last.
    ByteRange outerRange(ByteRange inner) const
    {
        ByteRange outer;
        forEach({inner.lower, inner.lower + 1}, [&](ByteRange first) { return outer = first, false; });
        forEach({inner.upper - 1, inner.upper}, [&](ByteRange last) { return outer.upper = last.upper, false; });
        return outer;
    }

    /// Which inner bytes lie in an outer range.
    ByteRange innerRange(ByteRange outer) const { return {innerOf(outer.lower), innerOf(outer.upper)}; }

private:
    static constexpr std::int64_t betweenMarks = 32;  ///< ranges: there may be one for every few bytes

    /// The last that is not behind an offset, or the first.
    const ByteRanges::Mark& markBefore(std::int64_t offset, std::int64_t ByteRanges::Mark::* place) const
    {
        const auto behind = std::ranges::upper_bound(marks_, offset, {}, place);
        return behind == marks_.begin() ? marks_.front() : *std::prev(behind);
    }
    std::int64_t innerOf(std::int64_t offset) const
    {
        const ByteRanges::Mark& mark = markBefore(offset, &ByteRanges::Mark::lower);
        std::int64_t passed = mark.passed, found = 0;
        carried_.forEachFrom(mark, [&](ByteRange outer) {
            if (outer.lower > offset) return false;
            found = passed + std::min(offset, outer.upper) - outer.lower;
            passed += outer.size();
            return true;
        });
        return found;
    }

    ByteRanges carried_;
    std::vector<ByteRanges::Mark> marks_;
};

/// What a part of a stream carries, as a stream of its own: the inside of a tunnel. Its bytes stay where they are, and its
/// indexes find the packets of the outer stream.
struct CarriedStream {
    CarriedStream() = delete;

    /// The stream whose directions are the given ranges of the outer one's.
    static TCPStream inside(const TCPStream& outer, const ByteRanges& clientToServer, const ByteRanges& serverToClient);
    /// Bytes of a direction as data of their own.
    static StreamData data(const StreamData& outer, const ByteRanges& carried);
};

}  // namespace sealscope
