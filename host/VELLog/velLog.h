// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Export.h"

#include <source_location>
#include <string>
#include <string_view>
#include <vector>

namespace sealscope SEALSCOPE_API {

/// The host's log: one line on standard error with the items, the function and the place. Secrets never go in.
void velLog(const std::vector<std::string>& items, std::string_view filename, std::string_view function, std::uint_least32_t line,
            std::string_view separator = ", ", std::string_view terminator = "\n");

}  // namespace sealscope SEALSCOPE_API
