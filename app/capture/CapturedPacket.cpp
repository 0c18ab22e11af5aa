// SPDX-License-Identifier: Apache-2.0
#include "app/capture/CapturedPacket.h"

#include <limits>

namespace sealscope {

std::int64_t CaptureTime::nanoseconds() const
{
    __extension__ using Wide = __int128;
    constexpr Wide perSecond = 1'000'000'000;
    const Wide time = Wide{seconds} * perSecond + static_cast<Wide>(units) * perSecond / static_cast<Wide>(resolution);
    constexpr Wide lowest = std::numeric_limits<std::int64_t>::min(), highest = std::numeric_limits<std::int64_t>::max();
    return static_cast<std::int64_t>(time < lowest ? lowest : time > highest ? highest : time);
}

}  // namespace sealscope
