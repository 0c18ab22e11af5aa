// SPDX-License-Identifier: Apache-2.0
#include "interpreters/HTTP/CarriedStream.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace sealscope {

namespace {

/// Ranges with the place of each in what they carry.
class Places {
public:
    explicit Places(const ByteRanges& carried)
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

private:
    struct Place {
        std::int64_t inner = 0;  ///< offset of the first byte in what is carried
        ByteRange outer;
    };
    std::vector<Place> places_;
};

class CarriedBytes final : public StreamByteSource {
public:
    CarriedBytes(StreamData outer, const ByteRanges& carried) : outer_(std::move(outer)), places_(carried) {}

    DataView stretch(std::int64_t offset) const override
    {
        DataView found;
        places_.forEach({offset, offset + 1}, [&](ByteRange here) {
            found = outer_.stretch(here.lower);
            return false;
        });
        // The outer stretch may reach beyond what is carried.
        std::int64_t left = 0;
        places_.forEach({offset, offset + found.size()}, [&](ByteRange here) {
            left = here.size();
            return false;
        });
        return found.sub(0, left);
    }

private:
    StreamData outer_;
    Places places_;
};

class CarriedIndex final : public ByteLocator {
public:
    CarriedIndex(ByteToSegmentIndex outer, const ByteRanges& carried) : outer_(std::move(outer)), places_(carried) {}

    ByteLocation locate(ByteRange range) const override
    {
        ByteLocation location;
        PacketIdCollector packets(location.packetIds);
        places_.forEach(range, [&](ByteRange outer) {
            const ByteLocation part = outer_.locate(outer);
            for (const std::int64_t packetId : part.packetIds) packets.add(packetId);
            if (part.timestamp) location.timestamp = std::min(location.timestamp.value_or(*part.timestamp), *part.timestamp);
            return true;
        });
        return location;
    }

private:
    ByteToSegmentIndex outer_;
    Places places_;
};

}  // namespace

StreamData CarriedStream::data(const StreamData& outer, const ByteRanges& carried)
{
    if (carried.isEmpty()) return {};
    return {std::make_shared<const CarriedBytes>(outer, carried), carried.size()};
}

TCPStream CarriedStream::inside(const TCPStream& outer, const ByteRanges& clientToServer, const ByteRanges& serverToClient)
{
    TCPStream inner = outer;
    inner.clientToServerData = data(outer.clientToServerData, clientToServer);
    inner.serverToClientData = data(outer.serverToClientData, serverToClient);
    inner.clientByteIndex = ByteToSegmentIndex(std::make_shared<const CarriedIndex>(outer.clientByteIndex, clientToServer));
    inner.serverByteIndex = ByteToSegmentIndex(std::make_shared<const CarriedIndex>(outer.serverByteIndex, serverToClient));
    return inner;
}

ByteRange CarriedStream::outerRange(const ByteRanges& carried, ByteRange inner)
{
    ByteRange outer;
    std::int64_t offset = 0;
    carried.forEach([&](ByteRange range) {
        const std::int64_t shift = range.lower - offset;
        const ByteRange part{std::max(inner.lower + shift, range.lower), std::min(inner.upper + shift, range.upper)};
        offset += range.size();
        if (!part.isEmpty()) outer = {outer.isEmpty() ? part.lower : outer.lower, part.upper};
        return offset < inner.upper;
    });
    return outer;
}

}  // namespace sealscope
