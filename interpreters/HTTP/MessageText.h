// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace sealscope {

/// "512 bytes", "5.2 kB", "1.4 GB": decimal units.
std::string byteCountText(std::int64_t bytes);
/// Why a body ends where the bodies of a capture have decoded to all that they may.
inline constexpr std::string_view decodingUsedUpText = "the bodies of the capture decode to more than is allowed for all of them";
/// "5,213 decoded bytes".
std::string decodedBytesText(std::int64_t bytes);
/// "31 ms", "1.2 s", "3 min 20 s".
std::string durationText(double seconds);
/// "1,234,567".
std::string groupedText(std::int64_t number);

}  // namespace sealscope
