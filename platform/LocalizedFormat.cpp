// SPDX-License-Identifier: Apache-2.0
#include "platform/LocalizedFormat.h"

#include <charconv>

namespace sealscope {

namespace {

/// Wider fields than this are a mistake of the format, and could ask for any amount of memory.
constexpr int widestField = 99;

struct Conversion {
    int position = 0;  ///< of the argument from 1; 0 for the next one
    int width = 0;
    bool isZeroPadded = false;
    char type = 0;
};

/// Takes a decimal number off the front of the text; 0 when there is none, above `widestField` when it is too large.
int takeNumber(std::string_view& text)
{
    int number = 0;
    while (!text.empty() && text.front() >= '0' && text.front() <= '9') {
        number = number > widestField ? number : number * 10 + (text.front() - '0');
        text.remove_prefix(1);
    }
    return number;
}

/// Takes what follows a '%' off the front of the format. Nothing for what `fillFormat` does not know.
std::optional<Conversion> takeConversion(std::string_view& format)
{
    Conversion conversion;
    conversion.isZeroPadded = format.starts_with('0');
    conversion.width = takeNumber(format);
    if (format.starts_with('$')) {
        if (conversion.isZeroPadded || conversion.width == 0) return std::nullopt;
        format.remove_prefix(1);
        conversion.position = conversion.width;
        conversion.isZeroPadded = format.starts_with('0');
        conversion.width = takeNumber(format);
    }
    if (format.empty() || conversion.width > widestField) return std::nullopt;
    conversion.type = format.front();
    format.remove_prefix(1);
    return conversion;
}

bool append(std::string& text, const Conversion& conversion, std::string_view argument)
{
    if (conversion.type != '@' || conversion.width != 0 || conversion.isZeroPadded) return false;
    text += argument;
    return true;
}

bool append(std::string& text, const Conversion& conversion, std::uint64_t argument)
{
    const bool isHexadecimal = conversion.type == 'x' || conversion.type == 'X';
    if (!isHexadecimal && conversion.type != 'u' && conversion.type != 'd') return false;
    char digits[20];
    const char* const end = std::to_chars(std::begin(digits), std::end(digits), argument, isHexadecimal ? 16 : 10).ptr;
    const auto count = static_cast<std::size_t>(end - digits);
    if (const auto width = static_cast<std::size_t>(conversion.width); width > count) {
        text.append(width - count, conversion.isZeroPadded ? '0' : ' ');
    }
    for (const char* digit = digits; digit != end; ++digit) {
        text += conversion.type == 'X' && *digit >= 'a' ? static_cast<char>(*digit - 'a' + 'A') : *digit;
    }
    return true;
}

}  // namespace

std::optional<std::string> fillFormat(std::string_view format, std::initializer_list<FormatArgument> arguments)
{
    std::string text;
    text.reserve(format.size() + 16);
    std::uint64_t used = 0;  // a bit for each argument
    std::size_t next = 0;
    bool hasPositions = false;
    while (true) {
        const std::size_t percent = format.find('%');
        text += format.substr(0, percent);
        if (percent == std::string_view::npos) break;
        format.remove_prefix(percent + 1);
        if (format.starts_with('%')) {
            text += '%';
            format.remove_prefix(1);
            continue;
        }
        const std::optional<Conversion> conversion = takeConversion(format);
        if (!conversion) return std::nullopt;
        hasPositions = hasPositions || conversion->position != 0;
        // Which argument an unnumbered conversion beside numbered ones means is anybody's guess.
        if (hasPositions && (conversion->position == 0 || next != 0)) return std::nullopt;
        const std::size_t index = hasPositions ? static_cast<std::size_t>(conversion->position) - 1 : next++;
        if (index >= arguments.size() || index >= 64) return std::nullopt;
        used |= std::uint64_t{1} << index;
        const FormatArgument& argument = arguments.begin()[index];
        if (!std::visit([&](auto value) { return append(text, *conversion, value); }, argument)) return std::nullopt;
    }
    for (std::size_t index = 0; index < arguments.size(); ++index) {
        if (index >= 64 || (used >> index & 1) == 0) return std::nullopt;
    }
    return text;
}

std::string fillLocalizedFormat(std::string_view translated, std::string_view original, std::initializer_list<FormatArgument> arguments)
{
    if (std::optional<std::string> text = fillFormat(translated, arguments)) return *std::move(text);
    return fillFormat(original, arguments).value_or(std::string(original));
}

}  // namespace sealscope
