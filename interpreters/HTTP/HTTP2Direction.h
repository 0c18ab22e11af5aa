// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/StreamFollowing.h"
#include "host/VELModels/TCPStream.h"
#include "interpreters/HTTP/ByteRanges.h"
#include "interpreters/HTTP/HTTP2Frame.h"
#include "interpreters/HTTP/HeaderDecompressor.h"
#include "interpreters/HTTP/LostBytes.h"

#include <absl/container/flat_hash_map.h>
#include <absl/container/flat_hash_set.h>
#include <absl/container/inlined_vector.h>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sealscope {

/// A header block of a stream: the head of a message, or trailers.
struct HTTP2Block {
    PackedFields fields;
    std::vector<DetailRow> notes;
    ByteRange range;  ///< of the frames that carried it

    /// The value of a field such as ":path", which come first (RFC 9113 §8.3).
    std::optional<std::string_view> pseudoField(std::string_view wanted) const;
};

/// What one side sent on a stream (RFC 9113 §5).
struct HTTP2Half {
    std::uint32_t stream = 0;
    std::optional<std::uint32_t> promisedOn;  ///< the stream that a pushed request was promised on
    absl::InlinedVector<HTTP2Block, 1> blocks;
    ByteRanges data;    ///< payloads of DATA frames, padding taken away
    ByteRanges frames;  ///< its frames whole
    bool isEnded = false;
    std::optional<std::uint32_t> resetCode;  ///< with which this side ended the stream early
    std::optional<std::int64_t> neededFrom;  ///< of a tunnel: where its data begin that are not done with, in place of its frames

    bool hasRequest() const { return !blocks.empty() || !data.isEmpty(); }
    /// Which block the reply begins with: the first that is no interim one.
    std::size_t finalHead() const;
    /// `head`: as `finalHead` gives it.
    bool hasReply(std::size_t head) const { return head < blocks.size() || !data.isEmpty(); }
};

/// A header block while its frames are being read.
struct HTTP2OpenBlock {
    std::size_t place = 0;  ///< of the half
    std::uint32_t stream = 0;
    std::uint32_t frameStream = 0;
    HTTP2Block block;
    HeaderDecompressor::Block decompressed;
    std::int64_t lostBytes = 0;
    bool endsStream = false;
};

/// Reads the frames of one direction of an HTTP/2 connection: what was sent on its streams, and what it says of the connection. Where
/// bytes are missing or make no sense, it goes on at the next frames that it can tell.
class HTTP2Direction {
public:
    enum class Start : std::uint8_t { whole, missing };

    /// Outlived by the stream, which may grow.
    HTTP2Direction(const TCPStream& stream, TCPSegment::Direction direction, Start start);
    /// Reads as far as the stream goes by now.
    void goOn(const TCPStream& stream, StreamExtent extent);
    /// Where the frames begin that were not read, or belong to streams that are there.
    std::int64_t neededFrom() const;

    TCPSegment::Direction direction() const { return direction_; }
    /// As far as it has read.
    std::int64_t offset() const { return offset_; }
    /// In the order of their first frames.
    std::deque<HTTP2Half>& halves() { return halves_; }
    /// What was sent on a stream, or null.
    HTTP2Half* half(std::uint32_t stream);
    /// Takes streams away.
    void forget(const absl::flat_hash_set<std::uint32_t>& streams);
    /// Takes away what is known of the connection apart from its streams.
    void forgetConnection();

    /// Frames that are shown by themselves.
    const std::vector<HTTP2Frame>& frames() const { return frames_; }
    /// Bytes that are no frame.
    const std::vector<ByteRange>& gaps() const { return gaps_; }
    /// What the frames that are not shown say together, as rows.
    std::vector<DetailRow> connectionRows() const;

private:
    void read(StreamExtent extent);
    void readFrame(const HTTP2Frame& frame);
    void readHeaders(const HTTP2Frame& frame, std::int64_t prefix, std::uint32_t stream);
    void endHeaders();
    /// Goes on at the next frames behind an offset; what was skipped may have held headers.
    void resynchronize(std::int64_t from);
    ByteRange withoutPadding(const HTTP2Frame& frame);
    HTTP2Half& halfFor(std::uint32_t stream);
    std::optional<std::size_t> find(std::uint32_t stream) const;
    void appendFrame(HTTP2Half& half, const HTTP2Frame& frame);

    const StreamData& data_;
    const TCPSegment::Direction direction_;
    LostBytes lost_;
    StreamReader reader_;
    HeaderDecompressor decompressor_;
    std::int64_t offset_ = 0;

    std::deque<HTTP2Half> halves_;
    bool isAscending_ = true;  ///< numbers of streams in `halves_`: those that a client begins come like that (RFC 9113 §5.1.1)
    absl::flat_hash_map<std::uint32_t, std::size_t> places_;  ///< of streams in `halves_`, where they are not
    std::size_t latest_ = 0;                                  ///< where the last stream was found that somebody asked for
    std::vector<HTTP2Frame> frames_;
    std::vector<ByteRange> gaps_;

    std::optional<HTTP2OpenBlock> open_;
    PackedFields spareFields_;  ///< room for a block's fields while their number is not known
    std::vector<DataView> stretches_;

    std::int64_t windowUpdates_ = 0;
    std::int64_t connectionWindow_ = 0;  ///< bytes that were granted to the whole connection
    std::int64_t priorities_ = 0;
    std::int64_t furtherFrames_ = 0;  ///< that would be shown if there were fewer
    std::vector<DetailRow> priorityRows_;
};

}  // namespace sealscope
