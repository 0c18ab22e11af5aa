// SPDX-License-Identifier: Apache-2.0
#include "app/cli/HexDump.h"

#include "app/cli/Terminal.h"

#include <algorithm>
#include <fmt/format.h>

namespace sealscope::cli {

void appendHexDump(std::string& text, DataView bytes, std::int64_t firstOffset, const HexDumpLayout& layout)
{
    constexpr std::int64_t perLine = 16;
    constexpr std::string_view digits = "0123456789abcdef";
    const std::int64_t width = std::min(perLine, bytes.size());
    const auto styled = [&](Style style, std::string_view part) {
        if (layout.hasColors) text += sequence(style);
        text += part;
        if (layout.hasColors) text += resetSequence;
    };
    std::string line;
    for (std::int64_t offset = 0; offset < bytes.size(); offset += perLine) {
        const DataView part = bytes.sub(offset, perLine);
        line.clear();
        for (const std::uint8_t byte : part) {
            line += digits[byte >> 4];
            line += digits[byte & 15];
            line += ' ';
        }
        line.resize(static_cast<std::size_t>(3 * width + 1), ' ');
        for (const std::uint8_t byte : part) line += byte >= 0x20 && byte < 0x7F ? static_cast<char>(byte) : '.';
        text.append(layout.indent, ' ');
        styled(Style::faint, fmt::format("{:>7}", firstOffset + offset));
        text.append(layout.bytesIndent, ' ');
        styled(Style::accent, line);
        text += '\n';
    }
}

}  // namespace sealscope::cli
