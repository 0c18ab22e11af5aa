// SPDX-License-Identifier: Apache-2.0
#include "host/VELCommonTools/Color.h"

#include <charconv>
#include <fmt/format.h>

namespace sealscope {

std::string rawValue(const Color& color)
{
    std::string text = fmt::format("#{:02X}{:02X}{:02X}", color.red, color.green, color.blue);
    if (color.alpha != 255) text += fmt::format("{:02X}", color.alpha);
    return text;
}

std::optional<Color> colorOfRawValue(std::string_view text)
{
    if (!text.starts_with('#') || (text.size() != 7 && text.size() != 9)) return std::nullopt;
    Color color;
    std::uint8_t* const components[] = {&color.red, &color.green, &color.blue, &color.alpha};
    for (std::size_t i = 0; 2 * i + 1 < text.size(); ++i) {
        const char* const digits = text.data() + 1 + 2 * i;
        if (std::from_chars(digits, digits + 2, *components[i], 16).ptr != digits + 2) return std::nullopt;
    }
    return color;
}

}  // namespace sealscope
