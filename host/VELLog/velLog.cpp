// SPDX-License-Identifier: Apache-2.0
#include "host/VELLog/velLog.h"

#include <cstdio>
#include <fmt/format.h>
#include <fmt/ranges.h>

namespace sealscope {

void velLog(const std::vector<std::string>& items, std::string_view filename, std::string_view function, std::uint_least32_t line,
            std::string_view separator, std::string_view terminator)
{
    const std::string text = fmt::format("sealscope: {} ({}:{}): {}{}", function, filename, line, fmt::join(items, separator), terminator);
    std::fwrite(text.data(), 1, text.size(), stderr);
}

}  // namespace sealscope
