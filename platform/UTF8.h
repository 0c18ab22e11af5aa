// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Data.h"

#include <optional>
#include <string>

namespace sealscope SEALSCOPE_API {
namespace utf8 {

/// A scalar value read from UTF-8 and how many bytes it took.
struct Scalar {
    char32_t value = 0;
    std::int64_t length = 0;
};

/// The scalar that starts at `offset`, or nothing when the bytes there are not well-formed UTF-8: surrogates, overlong
/// forms and values above U+10FFFF are not (RFC 3629 §3).
std::optional<Scalar> scalarAt(DataView bytes, std::int64_t offset);

/// Exactly well-formed UTF-8. U+FEFF and noncharacters count as well-formed.
bool isWellFormed(DataView bytes);

/// How many bytes at the end are the beginning of a scalar that goes on behind them.
std::int64_t cutScalar(DataView bytes);

/// The text as it stands when it is well-formed, else nothing. Nothing is stripped, a leading U+FEFF neither.
std::optional<std::string> decoded(DataView bytes);

/// The text with U+FFFD in place of each maximal part that is not well-formed.
std::string repaired(DataView bytes);

/// Appends the UTF-8 form of a scalar value.
void append(std::string& text, char32_t scalar);

}  // namespace utf8
}  // namespace sealscope SEALSCOPE_API
