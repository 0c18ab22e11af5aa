// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/TCPStream.h"

#include <optional>

namespace sealscope {

/// Where a direction has zeros in place of bytes that the capture lost: the holes of its data. Any thread may ask.
class LostBytes {
public:
    LostBytes(const TCPStream& stream, TCPSegment::Direction direction)
        : data_(stream.data(direction)), hasHoles_(data_.holeBytes() > 0)
    {}

    /// The first lost bytes of a range, cut to it; nothing where all are there.
    std::optional<ByteRange> firstIn(ByteRange range) const;
    /// How many bytes of a range were lost.
    std::int64_t countIn(ByteRange range) const;
    /// Whether a stretch of the data that begins at an offset is lost.
    bool isLost(std::int64_t offset, DataView stretch) const
    {
        // A hole reads as zeros, and most stretches begin with something else.
        return hasHoles_ && !stretch.isEmpty() && stretch[0] == 0 && data_.hole(offset);
    }

private:
    StreamData data_;
    bool hasHoles_;
};

}  // namespace sealscope
