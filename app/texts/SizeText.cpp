// SPDX-License-Identifier: Apache-2.0
#include "app/texts/SizeText.h"

#include "app/texts/DisplayText.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>

namespace sealscope {

namespace {

/// A number with the decimal sign of a language.
std::string decimal(std::string number, const SentenceReader& reader)
{
    if (const std::size_t point = number.find('.'); point != std::string::npos) number.replace(point, 1, reader.word("."));
    return number;
}

}  // namespace

std::string sizeText(std::int64_t bytes, const SentenceReader& reader)
{
    if (bytes < 1'000) return fmt::format("{} {}", bytes, reader.word("B"));
    const std::array units{reader.word("kB"), reader.word("MB"), reader.word("GB"), reader.word("TB"), reader.word("PB")};
    double value = static_cast<double>(bytes) / 1'000;
    std::size_t unit = 0;
    while (value >= 999.95 && unit + 1 < units.size()) {
        value /= 1'000;
        ++unit;
    }
    return decimal(fmt::format("{:.{}f} {}", value, value < 99.95 ? 1 : 0, units[unit]), reader);
}

std::string durationText(double seconds, const SentenceReader& reader)
{
    const double milliseconds = seconds * 1'000;
    if (milliseconds < 9.95) return decimal(fmt::format("{:.1f} ms", milliseconds), reader);
    if (milliseconds < 999.5) return fmt::format("{:.0f} ms", milliseconds);
    if (seconds < 99.995) return decimal(fmt::format("{:.2f} s", seconds), reader);
    const auto whole = static_cast<std::int64_t>(std::min(seconds, 1e15));
    return fmt::format("{}:{:02} min", whole / 60, whole % 60);
}

std::string shortenedInTheMiddle(std::string_view text, int columns)
{
    std::string safe;
    const int width = appendDisplaySafe(safe, text);
    // Texts of which each byte is a column, as URLs are; what others lose at their end the table cuts.
    const auto room = static_cast<std::size_t>(std::max(columns, 20));
    if (static_cast<std::size_t>(width) <= room || safe.size() != static_cast<std::size_t>(width)) return safe;
    const std::size_t tail = room / 3, head = room - tail - 1;
    return safe.substr(0, head) + "…" + safe.substr(safe.size() - tail);
}

}  // namespace sealscope
