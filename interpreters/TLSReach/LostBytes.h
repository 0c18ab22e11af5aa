// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/StreamData.h"

#include <cstdint>

namespace sealscope {

/// Which bytes of one direction no packet of the capture carried: its holes. They read as zeros and lie in stretches of their own,
/// so that few others have to be looked up. Outlived by the data.
class LostBytes {
public:
    explicit LostBytes(const StreamData& data) : data_(&data), isNeeded_(data.holeBytes() > 0) {}

    bool isLost(std::int64_t offset) const
    {
        if (!isNeeded_) return false;
        const DataView stretch = data_->stretch(offset);
        return !stretch.isEmpty() && stretch[0] == 0 && data_->hole(offset);
    }
    /// The same for an offset at which a stretch begins that the caller has in hand.
    bool isLost(std::int64_t offset, DataView stretch) const { return isNeeded_ && stretch[0] == 0 && data_->hole(offset); }
    /// Whether any byte of a range is.
    bool anyOf(ByteRange range) const;
    /// Where the bytes that are lost at an offset end; the offset itself when that one is not.
    std::int64_t endOfLoss(std::int64_t offset) const;

private:
    const StreamData* data_;
    bool isNeeded_;
};

}  // namespace sealscope
