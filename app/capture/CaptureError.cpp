// SPDX-License-Identifier: Apache-2.0
#include "app/capture/CaptureError.h"

#include <fmt/format.h>

namespace sealscope {

std::string CaptureError::text() const
{
    const std::string place = file.empty() ? reason : fmt::format("{}: {}", file == "-" ? "standard input" : file, reason);
    if (couldNotOpen || packetsBefore < 0) return place;
    const std::string before = packetsBefore == 0   ? "no packet before it was read"
                               : packetsBefore == 1 ? "1 packet before it was read"
                                                    : fmt::format("{} packets before it were read", packetsBefore);
    const std::string after = passedOver == 0   ? ""
                              : passedOver == 1 ? ", and it was passed over"
                                                : fmt::format(", and it and {} more were passed over", passedOver - 1);
    return fmt::format("{}; {}{}", place, before, after);
}

}  // namespace sealscope
