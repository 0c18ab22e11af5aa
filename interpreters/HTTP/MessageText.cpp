// SPDX-License-Identifier: Apache-2.0
#include "interpreters/HTTP/MessageText.h"

#include <cmath>

namespace sealscope {

namespace {

/// Tenths as "5.2", or "52" where a tenth says nothing.
std::string tenthsText(std::int64_t tenths)
{
    if (tenths >= 1'000) return std::to_string((tenths + 5) / 10);
    std::string text = std::to_string(tenths / 10);
    if (tenths % 10 != 0) text += '.', text += static_cast<char>('0' + tenths % 10);
    return text;
}

}  // namespace

std::string groupedText(std::int64_t number)
{
    std::string text = std::to_string(number);
    for (auto place = static_cast<std::int64_t>(text.size()) - 3; place > (number < 0 ? 1 : 0); place -= 3)
        text.insert(static_cast<std::size_t>(place), 1, ',');
    return text;
}

std::string byteCountText(std::int64_t bytes)
{
    if (bytes == 1) return "1 byte";
    if (bytes < 1'000) return std::to_string(bytes) + " bytes";
    static constexpr const char* units[] = {" kB", " MB", " GB", " TB", " PB", " EB"};
    std::size_t unit = 0;
    std::int64_t divisor = 100;  // gives tenths
    while (bytes / divisor >= 9'995 && unit + 1 < std::size(units)) divisor *= 1'000, ++unit;
    return tenthsText((bytes + divisor / 2) / divisor) + units[unit];
}

std::string decodedBytesText(std::int64_t bytes) { return groupedText(bytes) + (bytes == 1 ? " decoded byte" : " decoded bytes"); }

std::string durationText(double seconds)
{
    if (!(seconds > 0)) return "0 ms";
    if (seconds < 0.000'95) return std::to_string(std::llround(seconds * 1e6)) + " µs";
    if (seconds < 0.999'5) return tenthsText(std::llround(seconds * 1e4)) + " ms";
    if (seconds < 59.95) return tenthsText(std::llround(seconds * 10)) + " s";
    const std::int64_t whole = seconds < 1e15 ? std::llround(seconds) : 0;
    if (whole < 3'600) return std::to_string(whole / 60) + " min " + std::to_string(whole % 60) + " s";
    return std::to_string(whole / 3'600) + " h " + std::to_string(whole / 60 % 60) + " min";
}

}  // namespace sealscope
