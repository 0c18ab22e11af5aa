// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Color.h"

#include <optional>
#include <string>
#include <string_view>

namespace sealscope SEALSCOPE_API {

/// The text under which a colour is stored: "#RRGGBB", or "#RRGGBBAA" when it is not opaque, in upper-case hexadecimal.
std::string rawValue(const Color& color);

/// The colour of such a text, in either case of letters; nothing for any other.
std::optional<Color> colorOfRawValue(std::string_view text);

}  // namespace sealscope SEALSCOPE_API
