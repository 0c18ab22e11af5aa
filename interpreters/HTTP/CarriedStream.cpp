// SPDX-License-Identifier: Apache-2.0
#include "interpreters/HTTP/CarriedStream.h"

#include <algorithm>
#include <memory>
#include <utility>

namespace sealscope {

namespace {

class CarriedBytes final : public StreamByteSource {
public:
    CarriedBytes(StreamData outer, const ByteRanges& carried) : outer_(std::move(outer)), places_(carried)
    {
        if (outer_.holeBytes() == 0) return;
        carried.forEach([&](ByteRange range) {
            for (std::int64_t offset = range.lower; offset < range.upper;) {
                const auto hole = outer_.hole(offset);
                const std::int64_t end = std::min(hole ? hole->upper : offset + outer_.stretch(offset).size(), range.upper);
                if (hole) holeBytes_ += end - offset;
                offset = end;
            }
            return true;
        });
    }

    bool lendsForLong() const override { return outer_.lendsForLong(); }
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
    std::optional<ByteRange> hole(std::int64_t offset) const override
    {
        std::optional<ByteRange> hole;
        places_.forEach({offset, offset + 1}, [&](ByteRange here) {
            hole = outer_.hole(here.lower);
            return false;
        });
        if (hole) hole = places_.innerRange(*hole);
        return hole;
    }
    std::int64_t holeBytes() const override { return holeBytes_; }

private:
    StreamData outer_;
    CarriedPlaces places_;
    std::int64_t holeBytes_ = 0;
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
    CarriedPlaces places_;
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

}  // namespace sealscope
