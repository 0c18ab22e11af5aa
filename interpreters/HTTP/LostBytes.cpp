// SPDX-License-Identifier: Apache-2.0
#include "interpreters/HTTP/LostBytes.h"

#include <algorithm>

namespace sealscope {

std::optional<ByteRange> LostBytes::firstIn(ByteRange range) const
{
    range.upper = std::min(range.upper, data_.size());
    if (!hasHoles_) return std::nullopt;
    for (std::int64_t offset = std::max<std::int64_t>(range.lower, 0); offset < range.upper;) {
        const DataView stretch = data_.stretch(offset);
        const auto hole = stretch[0] == 0 ? data_.hole(offset) : std::nullopt;
        if (hole) return ByteRange{offset, std::min(hole->upper, range.upper)};
        offset += stretch.size();
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
