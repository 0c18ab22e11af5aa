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
    if (passedOver == 0) return fmt::format("{}; {}", place, before);
    return passedOver == 1 ? fmt::format("{}; it was passed over", place)
                           : fmt::format("{}; it and {} more were passed over", place, passedOver - 1);
}

}  // namespace sealscope
