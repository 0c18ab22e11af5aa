// SPDX-License-Identifier: Apache-2.0
#include "harness/VectorStream.h"

#include "harness/Hex.h"

#include <algorithm>

namespace sealscope {

namespace {

using Direction = TCPSegment::Direction;

/// Bytes that end where their packet ends.
class PieceSource final : public StreamByteSource {
public:
    explicit PieceSource(const std::vector<Data>& pieces)
    {
        for (const Data& piece : pieces) {
            if (piece.isEmpty()) continue;
            pieces_.push_back(piece);
            starts_.push_back(size_);
            size_ += piece.size();
        }
    }
    DataView stretch(std::int64_t offset) const override
    {
        const auto at = static_cast<std::size_t>(std::ranges::upper_bound(starts_, offset) - starts_.begin() - 1);
        return pieces_[at].view().from(offset - starts_[at]);
    }
    std::int64_t size() const { return size_; }

private:
    std::vector<Data> pieces_;
    std::vector<std::int64_t> starts_;
    std::int64_t size_ = 0;
};

class SegmentList final : public TCPSegmentSource {
public:
    explicit SegmentList(std::vector<TCPSegment> segments) : segments_(std::move(segments)) {}
    std::int64_t count() const override { return static_cast<std::int64_t>(segments_.size()); }
    TCPSegment segment(std::int64_t position) const override { return segments_[static_cast<std::size_t>(position)]; }

private:
    std::vector<TCPSegment> segments_;
};

StreamData streamData(const std::vector<Data>& pieces, bool isScattered)
{
    if (!isScattered) return joined(pieces);
    auto source = std::make_shared<PieceSource>(pieces);
    const std::int64_t size = source->size();
    return {std::move(source), size};
}

}  // namespace

TCPStream vectorStream(const std::vector<StreamPiece>& pieces, bool isScattered)
{
    TCPStream stream;
    stream.clientEndpoint = {.address = {192, 0, 2, 1}, .port = 50'000};
    stream.serverEndpoint = {.address = {192, 0, 2, 2}, .port = 443};
    stream.key = {.client = stream.clientEndpoint, .server = stream.serverEndpoint};
    stream.clientISN = 1'000;
    stream.serverISN = 2'000;

    struct {
        std::vector<Data> bytes;
        std::vector<ByteSpan> spans;
        std::int64_t size = 0;
    } sides[2];
    std::vector<TCPSegment> segments;
    for (const StreamPiece& piece : pieces) {
        auto& side = sides[piece.direction == Direction::clientToServer ? 0 : 1];
        const ByteRange range{side.size, side.size + piece.bytes.size()};
        side.bytes.push_back(piece.bytes);
        side.size = range.upper;
        if (!piece.packetId) continue;
        side.spans.push_back({range, {*piece.packetId}, piece.timestamp});
        const std::uint32_t isn = piece.direction == Direction::clientToServer ? stream.clientISN : stream.serverISN;
        const auto sequenceNumber = static_cast<std::uint32_t>(isn + 1 + static_cast<std::uint64_t>(range.lower));
        if (segments.empty()) stream.startTime = stream.endTime = piece.timestamp;
        stream.startTime = std::min(stream.startTime, piece.timestamp);
        stream.endTime = std::max(stream.endTime, piece.timestamp);
        segments.push_back({piece.direction, *piece.packetId, sequenceNumber, piece.bytes.size(), piece.timestamp});
    }
    stream.segments = TCPSegments(std::make_shared<SegmentList>(std::move(segments)));
    stream.clientToServerData = streamData(sides[0].bytes, isScattered);
    stream.serverToClientData = streamData(sides[1].bytes, isScattered);
    stream.clientByteIndex = ByteToSegmentIndex(std::move(sides[0].spans));
    stream.serverByteIndex = ByteToSegmentIndex(std::move(sides[1].spans));
    return stream;
}

std::vector<StreamPiece> streamPieces(const std::vector<TLSFlight>& flights, const VectorStreamOptions& options)
{
    std::vector<StreamPiece> pieces;
    for (const TLSFlight& flight : flights) {
        for (std::int64_t at = 0; at < flight.wire.size(); at += options.segmentSize) {
            const auto count = static_cast<std::int64_t>(pieces.size());
            pieces.push_back({flight.direction, flight.wire.sub(at, options.segmentSize), options.firstPacketId + count,
                              options.startTime + options.interval * static_cast<double>(count)});
        }
    }
    return pieces;
}

TCPStream vectorStream(const std::vector<TLSFlight>& flights, const VectorStreamOptions& options)
{
    return vectorStream(streamPieces(flights, options), options.isScattered);
}

TCPStream vectorStream(const Data& clientToServer, const Data& serverToClient, const VectorStreamOptions& options)
{
    return vectorStream(
        std::vector<TLSFlight>{{Direction::clientToServer, clientToServer, {}}, {Direction::serverToClient, serverToClient, {}}}, options);
}

}  // namespace sealscope
