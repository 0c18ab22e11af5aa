// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Export.h"

#include <cstdint>

namespace sealscope SEALSCOPE_API {

/// A colour in sRGB, eight bits a component.
struct Color {
    std::uint8_t red = 0;
    std::uint8_t green = 0;
    std::uint8_t blue = 0;
    std::uint8_t alpha = 255;  ///< 255 is opaque
    bool operator==(const Color&) const = default;
};

}  // namespace sealscope SEALSCOPE_API
