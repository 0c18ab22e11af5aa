// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/TCPStream.h"

#include <cstdint>
#include <optional>

namespace sealscope {

/// Which bytes of one direction no packet of the capture carried. They read as zeros and lie in stretches of their own, so that
/// few others have to be looked up. Outlived by the stream.
class LostBytes {
public:
    LostBytes(const TCPStream& stream, TCPSegment::Direction direction) : stream_(stream), data_(stream.data(direction)), direction_(direction) {}

    bool isLost(std::int64_t offset) const
    {
        const DataView stretch = data_.stretch(offset);
        return !stretch.isEmpty() && stretch[0] == 0 && stream_.locate({offset, offset + 1}, direction_).packetIds.empty();
    }
    /// Whether any byte of a range is.
    bool anyOf(ByteRange range) const;
    /// Where the bytes that are lost at an offset end; the offset itself when that one is not.
    std::int64_t endOfLoss(std::int64_t offset) const;

private:
    const TCPStream& stream_;
    const StreamData& data_;
    TCPSegment::Direction direction_;
};

}  // namespace sealscope
