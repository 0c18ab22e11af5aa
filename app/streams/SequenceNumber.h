// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

namespace sealscope {

/// How far `to` lies after `from` on the circle of 2^32 sequence numbers (RFC 9293 §3.4): negative when it lies before, and
/// right as long as the two are less than 2^31 apart.
constexpr std::int64_t sequenceDistance(std::uint32_t from, std::uint32_t to) { return static_cast<std::int32_t>(to - from); }

/// What a sender may plausibly have under way at once, in bytes. Numbers that differ by no more are taken for disorder of one
/// stream, whatever else is known about them.
inline constexpr std::int64_t plausibleFlight = 1 << 20;

}  // namespace sealscope
