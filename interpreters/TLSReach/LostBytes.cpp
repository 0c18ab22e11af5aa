// SPDX-License-Identifier: Apache-2.0
#include "interpreters/TLSReach/LostBytes.h"

#include <algorithm>

namespace sealscope {

bool LostBytes::anyOf(ByteRange range) const
{
    const std::int64_t upper = isNeeded_ ? std::min(range.upper, data_->size()) : 0;
    for (std::int64_t offset = std::max<std::int64_t>(range.lower, 0); offset < upper; offset += data_->stretch(offset).size())
        if (isLost(offset)) return true;
    return false;
}

std::int64_t LostBytes::endOfLoss(std::int64_t offset) const
{
    // A hole may be longer than anybody can walk through.
    while (isLost(offset)) offset = data_->hole(offset)->upper;
    return offset;
}

}  // namespace sealscope
