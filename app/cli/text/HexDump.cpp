// SPDX-License-Identifier: Apache-2.0
#include "app/cli/text/HexDump.h"

#include "app/cli/text/Terminal.h"

#include <algorithm>
#include <fmt/format.h>

namespace sealscope::cli {

void appendHexDump(std::string& text, DataView bytes, std::int64_t firstOffset, const HexDumpLayout& layout)
{
    constexpr std::int64_t perLine = 16;
    constexpr std::string_view digits = "0123456789abcdef";
    constexpr std::size_t offsetWidth = 7;
    const std::string_view faint = layout.hasColors ? sequence(Style::faint) : "";
    const std::string_view accent = layout.hasColors ? sequence(Style::accent) : "";
    const std::string_view reset = layout.hasColors ? resetSequence : "";
    const auto charactersAt = static_cast<std::size_t>(3 * std::min(perLine, bytes.size()) + 1);
    std::string line;
    for (std::int64_t offset = 0; offset < bytes.size(); offset += perLine) {
        const DataView part = bytes.sub(offset, perLine);
        const fmt::format_int place(firstOffset + offset);
        text.append(layout.indent, ' ');
        text += faint;
        text.append(offsetWidth - std::min(offsetWidth, place.size()), ' ');
        text.append(place.data(), place.size());
        text += reset;
        text.append(layout.bytesIndent, ' ');

        line.assign(charactersAt + static_cast<std::size_t>(part.size()), ' ');
        char* hexadecimal = line.data();
        char* character = line.data() + charactersAt;
        for (const std::uint8_t byte : part) {
            *hexadecimal++ = digits[byte >> 4];
            *hexadecimal++ = digits[byte & 15];
            ++hexadecimal;
            *character++ = byte >= 0x20 && byte < 0x7F ? static_cast<char>(byte) : '.';
        }
        text += accent;
        text += line;
        text += reset;
        text += '\n';
    }
}

}  // namespace sealscope::cli
