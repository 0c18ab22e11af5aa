// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Data.h"

#include <cstdint>
#include <string>
#include <variant>

namespace sealscope SEALSCOPE_API {

/// A value whose type the contract leaves open: the value of a node or of a column. Numbers from unsigned 16-bit
/// values and the like travel as `std::int64_t`.
using VELValue = std::variant<bool, std::int64_t, double, std::string, Data>;

/// Which of them a declared attribute holds.
enum class VELValueType : std::uint8_t { boolean, number, real, string, data };

/// The value as a person reads it: text as it is, numbers in decimal, bytes in hexadecimal.
std::string displayText(const VELValue& value);

}  // namespace sealscope SEALSCOPE_API
