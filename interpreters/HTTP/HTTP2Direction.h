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
#include <cstddef>
#include <cstdint>
#include <deque>
#include <limits>
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
    std::int64_t rowBytes = 0;               ///< that its fields take as rows
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
    /// Reads as far as the stream goes by now, or until about so many bytes are held.
    void goOn(const TCPStream& stream, StreamExtent extent, std::size_t mostHeld = std::numeric_limits<std::size_t>::max());
    /// Reads on in a stream that is whole: until so much more is held, but no more at once than can be told.
    void readSome(std::size_t more);
    bool isAtEnd() const { return offset_ >= data_.size(); }
    /// Bytes that its streams take, about.
    std::size_t held() const { return held_; }
    static std::size_t heldBy(const HTTP2Half& half);
    /// The highest number of a stream that it has spoken of.
    std::uint32_t highestStream() const { return highestStream_; }
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
    /// Whether a header block of a stream is being read.
    bool isInHeaders(std::uint32_t stream) const { return open_ && open_->stream == stream; }
    /// Takes away what is known of the connection apart from its streams.
    void forgetConnection();

    /// Frames that are shown by themselves, and bytes that are no frame: those in front of an offset, each once.
    std::vector<HTTP2Frame> takeFrames(std::int64_t before);
    std::vector<ByteRange> takeGaps(std::int64_t before);
    /// What the frames that are not shown say together, as rows.
    std::vector<DetailRow> connectionRows() const;

private:
    template <class Goes> void read(StreamExtent extent, const Goes& goesOn);
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
    std::deque<HTTP2Frame> frames_;
    std::deque<ByteRange> gaps_;
    std::size_t shownFrames_ = 0, shownGaps_ = 0;  ///< those that were taken among them
    std::size_t held_ = 0;
    std::int64_t rowBytes_ = 0;  ///< that all headers take as rows: a table's field is repeated for a byte
    std::uint32_t highestStream_ = 0;

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
