// SPDX-License-Identifier: Apache-2.0
#include "interpreters/HTTP/LostBytes.h"

#include <algorithm>

namespace sealscope {

bool LostBytes::isLost(std::int64_t offset, DataView stretch) const
{
    // Lost bytes are zeros in a stretch of their own, and no packet has them. Most stretches begin with something else.
    if (stretch.isEmpty() || stretch[0] != 0) return false;
    return !index_.locate({offset, offset + 1}).timestamp;
}

std::optional<ByteRange> LostBytes::firstIn(ByteRange range) const
{
    range.upper = std::min(range.upper, data_.size());
    for (std::int64_t offset = std::max<std::int64_t>(range.lower, 0); offset < range.upper;) {
        const DataView stretch = data_.stretch(offset);
        std::int64_t end = offset + stretch.size();
        if (isLost(offset, stretch)) {
            while (end < range.upper && isLost(end, data_.stretch(end))) end += data_.stretch(end).size();
            return ByteRange{offset, std::min(end, range.upper)};
        }
        offset = end;
    }
    return std::nullopt;
}

std::int64_t LostBytes::countIn(ByteRange range) const
{
    std::int64_t count = 0;
    for (auto lost = firstIn(range); lost; lost = firstIn({lost->upper, range.upper})) count += lost->size();
    return count;
}

}  // namespace sealscope
