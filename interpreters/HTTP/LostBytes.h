// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/TCPStream.h"

#include <optional>

namespace sealscope {

/// Where a direction has zeros in place of bytes that the capture lost. Any thread may ask.
class LostBytes {
public:
    LostBytes(const TCPStream& stream, TCPSegment::Direction direction)
        : data_(stream.data(direction)),
          index_(direction == TCPSegment::Direction::clientToServer ? stream.clientByteIndex : stream.serverByteIndex)
    {}

    /// The first lost bytes of a range, cut to it; nothing where all are there.
    std::optional<ByteRange> firstIn(ByteRange range) const;
    /// How many bytes of a range were lost.
    std::int64_t countIn(ByteRange range) const;
    /// Whether a stretch of the data that begins at an offset is lost.
    bool isLost(std::int64_t offset, DataView stretch) const;

private:
    StreamData data_;
    ByteToSegmentIndex index_;
};

}  // namespace sealscope
