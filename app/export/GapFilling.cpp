// SPDX-License-Identifier: Apache-2.0
#include "app/export/GapFilling.h"

#include <algorithm>
#include <fmt/format.h>

namespace sealscope {

GapFiller::Fill GapFiller::fill(const PlaintextGap& gap)
{
    Fill fill;
    // What was stepped over may have held no application data.
    if (filling_ == GapFilling::skip || (gap.isExact && gap.contentLength == 0)) return fill;
    if (filling_ == GapFilling::mark) {
        constexpr std::int64_t farthest = 1 << 30;  // what a receiver may be ahead (RFC 7323 §2.3)
        const char* const what = gap.isLost ? "lost" : "not decrypted";
        fill.mark = gap.contentLength == 0 ? fmt::format("\n[bytes {}]\n", what)
                                           : fmt::format("\n[{}{} bytes {}]\n", gap.isExact ? "" : "up to ", gap.contentLength, what);
        fill.passed = std::clamp<std::int64_t>(gap.contentLength, 1, farthest);
    } else if (gap.isExact && gap.contentLength <= zerosLeft_) {
        fill.zeros = gap.contentLength;
        zerosLeft_ -= fill.zeros;
    }
    return fill;
}

}  // namespace sealscope
