// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Export.h"

#include <array>
#include <cstdint>
#include <utility>

namespace sealscope SEALSCOPE_API {

/// Distances between the parts of a view, from none upwards.
enum class Spacing : std::uint8_t { none, hairline, tight, small, medium, regular, large };

/// The distance in points.
constexpr double rawValue(Spacing spacing)
{
    constexpr std::array<double, 7> points{0, 1, 2, 4, 6, 8, 16};
    return points[std::to_underlying(spacing)];
}

}  // namespace sealscope SEALSCOPE_API
