// SPDX-License-Identifier: Apache-2.0
#include "harness/VectorStream.h"

#include "harness/Hex.h"

#include <algorithm>
#include <array>
#include <iterator>

namespace sealscope {

namespace {

using Direction = TCPSegment::Direction;

/// Bytes that end where their packet ends, and holes between them.
class PieceSource final : public StreamByteSource {
public:
    void add(const Data& bytes)
    {
        if (!bytes.isEmpty()) pieces_.push_back({size_, size_ += bytes.size(), bytes});
    }
    void lose(std::int64_t count)
    {
        if (count == 0) return;
        holeBytes_ += count;
        if (!pieces_.empty() && pieces_.back().bytes.isEmpty())
            pieces_.back().end = size_ += count;
        else
            pieces_.push_back({size_, size_ += count, {}});
    }

    DataView stretch(std::int64_t offset) const override
    {
        static constexpr std::array<std::uint8_t, 4'096> zeros{};
        const Piece& piece = at(offset);
        if (piece.bytes.isEmpty()) return DataView(zeros).sub(0, piece.end - offset);
        return piece.bytes.view().from(offset - piece.begin);
    }
    std::optional<ByteRange> hole(std::int64_t offset) const override
    {
        const Piece& piece = at(offset);
        return piece.bytes.isEmpty() ? std::optional(ByteRange{piece.begin, piece.end}) : std::nullopt;
    }
    std::int64_t holeBytes() const override { return holeBytes_; }
    std::int64_t size() const { return size_; }

private:
    struct Piece {
        std::int64_t begin = 0;
        std::int64_t end = 0;
        Data bytes;  ///< none: a hole
    };
    const Piece& at(std::int64_t offset) const { return *std::prev(std::ranges::upper_bound(pieces_, offset, {}, &Piece::begin)); }

    std::vector<Piece> pieces_;
    std::int64_t size_ = 0;
    std::int64_t holeBytes_ = 0;
};

class SegmentList final : public TCPSegmentSource {
public:
    explicit SegmentList(std::vector<TCPSegment> segments) : segments_(std::move(segments)) {}
    std::int64_t count() const override { return static_cast<std::int64_t>(segments_.size()); }
    TCPSegment segment(std::int64_t position) const override { return segments_[static_cast<std::size_t>(position)]; }

private:
    std::vector<TCPSegment> segments_;
};

}  // namespace

TCPStream vectorStream(const std::vector<StreamPiece>& pieces, StreamLayout layout)
{
    TCPStream stream;
    stream.clientEndpoint = {.address = {192, 0, 2, 1}, .port = 50'000};
    stream.serverEndpoint = {.address = {192, 0, 2, 2}, .port = 443};
    stream.key = {.client = stream.clientEndpoint, .server = stream.serverEndpoint};
    stream.clientISN = 1'000;
    stream.serverISN = 2'000;

    struct Side {
        std::shared_ptr<PieceSource> pieces = std::make_shared<PieceSource>();
        std::vector<ByteSpan> spans;

        StreamData data(StreamLayout layout) const
        {
            const StreamData scattered(pieces, pieces->size());
            return layout == StreamLayout::inPieces ? scattered : StreamData(scattered.whole());
        }
    } sides[2];
    std::vector<TCPSegment> segments;
    for (const StreamPiece& piece : pieces) {
        auto& side = sides[piece.direction == Direction::clientToServer ? 0 : 1];
        const ByteRange range{side.pieces->size(), side.pieces->size() + piece.bytes.size()};
        side.pieces->add(piece.bytes);
        side.pieces->lose(piece.lostBytes);
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
    stream.clientToServerData = sides[0].data(layout);
    stream.serverToClientData = sides[1].data(layout);
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

std::vector<StreamPiece> withZerosLost(const std::vector<StreamPiece>& pieces, std::int64_t least)
{
    std::vector<StreamPiece> result;
    for (const StreamPiece& piece : pieces) {
        std::int64_t begin = 0, zeros = 0;
        for (std::int64_t at = 0; at <= piece.bytes.size(); ++at) {
            if (at < piece.bytes.size() && piece.bytes[at] == 0) {
                ++zeros;
                continue;
            }
            if (zeros >= least) {
                const std::int64_t end = at - zeros;
                result.push_back({piece.direction, piece.bytes.sub(begin, end - begin), piece.packetId, piece.timestamp, zeros});
                begin = at;
            }
            zeros = 0;
        }
        result.push_back({piece.direction, piece.bytes.sub(begin, piece.bytes.size()), piece.packetId, piece.timestamp, piece.lostBytes});
    }
    return result;
}

TCPStream vectorStream(const std::vector<TLSFlight>& flights, const VectorStreamOptions& options)
{
    return vectorStream(streamPieces(flights, options), options.isScattered ? StreamLayout::inPieces : StreamLayout::inOnePlace);
}

TCPStream vectorStream(const Data& clientToServer, const Data& serverToClient, const VectorStreamOptions& options)
{
    return vectorStream(
        std::vector<TLSFlight>{{Direction::clientToServer, clientToServer, {}}, {Direction::serverToClient, serverToClient, {}}}, options);
}

}  // namespace sealscope
