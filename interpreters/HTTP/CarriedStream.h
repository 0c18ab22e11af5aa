// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/TCPStream.h"
#include "interpreters/HTTP/ByteRanges.h"

#include <algorithm>
#include <cstdint>
#include <vector>

namespace sealscope {

/// Ranges with the place of each in what they carry.
class CarriedPlaces {
public:
    explicit CarriedPlaces(const ByteRanges& carried)
    {
        std::int64_t inner = 0;
        carried.forEach([&](ByteRange range) {
            places_.push_back({inner, range});
            inner += range.size();
            return true;
        });
    }

    /// Calls `visit` with the outer ranges that carry an inner one, in order, until it gives false.
    template <class Visit> void forEach(ByteRange inner, const Visit& visit) const
    {
        auto place = std::ranges::upper_bound(places_, inner.lower, {}, &Place::inner);
        if (place != places_.begin()) --place;
        for (; place != places_.end() && place->inner < inner.upper; ++place) {
            const std::int64_t shift = place->outer.lower - place->inner;
            const ByteRange part{std::max(inner.lower + shift, place->outer.lower), std::min(inner.upper + shift, place->outer.upper)};
            if (!part.isEmpty() && !visit(part)) return;
        }
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
    ByteRange innerRange(ByteRange outer) const
    {
        const auto innerOf = [&](std::int64_t offset) {
            auto place = std::ranges::upper_bound(places_, offset, {}, [](const Place& one) { return one.outer.lower; });
            if (place == places_.begin()) return std::int64_t{0};
            --place;
            return place->inner + std::min(offset, place->outer.upper) - place->outer.lower;
        };
        return {innerOf(outer.lower), innerOf(outer.upper)};
    }

private:
    struct Place {
        std::int64_t inner = 0;  ///< offset of the first byte in what is carried
        ByteRange outer;
    };
    std::vector<Place> places_;
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
