// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Data.h"

#include <string_view>
#include <vector>

namespace sealscope {

/// Bytes from hexadecimal digit pairs; white space between pairs is free: `hex("16 03 01  00 05")`.
/// Throws std::invalid_argument for anything else, with the text it met.
Data hex(std::string_view text);

/// The pieces one after another.
Data joined(const std::vector<Data>& pieces);

/// `count` bytes that differ from place to place, the same for the same seed.
Data patternBytes(std::int64_t count, std::uint64_t seed = 1);

}  // namespace sealscope
