// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Export.h"

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace sealscope SEALSCOPE_API {

/// What a printf-style format is filled with: a text for %@, an unsigned number for %u, %d, %X and %x.
using FormatArgument = std::variant<std::string_view, std::uint64_t>;

/// Fills a printf-style format: %@, %u, %d, %x and %X with zero padding and width ("%02X"), positions ("%2$@") and %%.
/// Nothing when the format asks for an argument that is not there or of the other type, leaves one out, or holds any
/// other conversion: a translation can be wrong, but not read memory.
std::optional<std::string> fillFormat(std::string_view format, std::initializer_list<FormatArgument> arguments);

/// The translated format filled, or the original where the translation does not fit the arguments.
std::string fillLocalizedFormat(std::string_view translated, std::string_view original, std::initializer_list<FormatArgument> arguments);

}  // namespace sealscope SEALSCOPE_API
