// SPDX-License-Identifier: Apache-2.0
#include "app/texts/DisplayText.h"

#include "platform/UTF8.h"

#include <algorithm>
#include <fmt/format.h>
#include <limits>
#include <unictype.h>
#include <uniwidth.h>

namespace sealscope {

namespace {

/// What one does not see, or sees only by what it does to the rest: the default ignorable code points of the Unicode Character
/// Database, which hold the direction marks and overrides too, line and paragraph separators, and what frames annotations.
bool isInvisible(char32_t scalar)
{
    return uc_is_property_default_ignorable_code_point(scalar) ||
           uc_is_general_category_withtable(scalar, UC_CATEGORY_MASK_Zl | UC_CATEGORY_MASK_Zp) || (scalar >= 0xFFF9 && scalar <= 0xFFFB);
}

/// Columns that a terminal gives to a scalar; negative for one that is no character to be shown.
int widthOf(char32_t scalar)
{
    if (isInvisible(scalar) || uc_is_general_category_withtable(scalar, UC_CATEGORY_MASK_Cc | UC_CATEGORY_MASK_Cn)) return -1;
    return uc_width(scalar, "UTF-8");
}

bool isPlain(char character) { return character >= 0x20 && character < 0x7F; }

/// What stands for one scalar of the text, and its width.
struct Piece {
    std::string_view text;
    int width = 0;
};

/// The escape of a scalar, in `escape`.
Piece escaped(char32_t scalar, std::string& escape)
{
    escape.clear();
    if (scalar == '\n')
        escape = "\\n";
    else if (scalar == '\r')
        escape = "\\r";
    else if (scalar == '\t')
        escape = "\\t";
    else if (scalar < 0x100)
        fmt::format_to(std::back_inserter(escape), "\\x{:02X}", static_cast<std::uint32_t>(scalar));
    else
        fmt::format_to(std::back_inserter(escape), "\\u{{{:04X}}}", static_cast<std::uint32_t>(scalar));
    return {escape, static_cast<int>(escape.size())};
}

int appendUnicode(std::string& output, std::string_view text, int columns)
{
    const std::string repaired = utf8::repaired(DataView(text));
    const DataView bytes(repaired);
    std::string escape;
    int width = 0;
    // Where the text would have to end for "…" to follow it.
    std::size_t cut = output.size();
    int cutWidth = 0;
    for (std::int64_t offset = 0; offset < bytes.size();) {
        const utf8::Scalar scalar = *utf8::scalarAt(bytes, offset);
        const int scalarWidth = scalar.value >= 0x20 && scalar.value < 0x7F ? 1 : widthOf(scalar.value);
        const Piece piece = scalarWidth < 0 ? escaped(scalar.value, escape) : Piece{bytes.sub(offset, scalar.length).text(), scalarWidth};
        if (piece.width > columns - width) {
            output.resize(cut);
            output += "…";
            return cutWidth + 1;
        }
        output += piece.text;
        width += piece.width;
        if (width < columns) {
            cut = output.size();
            cutWidth = width;
        }
        offset += scalar.length;
    }
    return width;
}

}  // namespace

int appendDisplaySafe(std::string& output, std::string_view text, int columns)
{
    if (columns <= 0) return 0;
    if (!std::ranges::all_of(text, isPlain)) return appendUnicode(output, text, columns);
    const auto room = static_cast<std::size_t>(columns);
    if (text.size() <= room) {
        output += text;
        return static_cast<int>(text.size());
    }
    output += text.substr(0, room - 1);
    output += "…";
    return columns;
}

int appendDisplaySafe(std::string& output, std::string_view text)
{
    return appendDisplaySafe(output, text, std::numeric_limits<int>::max());
}

std::string displaySafe(std::string_view text)
{
    std::string safe;
    appendDisplaySafe(safe, text);
    return safe;
}

}  // namespace sealscope
