// SPDX-License-Identifier: Apache-2.0
#include "interpreters/TLSReach/LostBytes.h"

#include <algorithm>

namespace sealscope {

bool LostBytes::anyOf(ByteRange range) const
{
    const std::int64_t upper = std::min(range.upper, data_.size());
    for (std::int64_t offset = std::max<std::int64_t>(range.lower, 0); offset < upper; offset += data_.stretch(offset).size())
        if (isLost(offset)) return true;
    return false;
}

std::int64_t LostBytes::endOfLoss(std::int64_t offset) const
{
    while (offset < data_.size() && isLost(offset)) {
        // A hole may be longer than anybody can walk through.
        const auto hole = data_.hole(offset);
        offset = hole ? hole->upper : offset + data_.stretch(offset).size();
    }
    return offset;
}

}  // namespace sealscope
