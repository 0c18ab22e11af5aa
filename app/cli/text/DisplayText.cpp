// SPDX-License-Identifier: Apache-2.0
#include "app/cli/text/DisplayText.h"

#include "platform/UTF8.h"

#include <algorithm>
#include <fmt/format.h>
#include <limits>
#include <locale.h>
#include <wchar.h>

namespace sealscope::cli {

namespace {

struct ScalarRange {
    char32_t first;
    char32_t last;
};

// Default_Ignorable_Code_Point of the Unicode Character Database (DerivedCoreProperties), which holds the direction marks and
// overrides too, and the line and paragraph separators: what one does not see, or sees only by what it does to the rest.
constexpr ScalarRange invisible[] = {{0x00AD, 0x00AD},   {0x034F, 0x034F},  {0x061C, 0x061C}, {0x115F, 0x1160}, {0x17B4, 0x17B5},
                                     {0x180B, 0x180F},   {0x200B, 0x200F},  {0x2028, 0x202E}, {0x2060, 0x206F}, {0x3164, 0x3164},
                                     {0xFE00, 0xFE0F},   {0xFEFF, 0xFEFF},  {0xFFA0, 0xFFA0}, {0xFFF0, 0xFFFB}, {0x1BCA0, 0x1BCA3},
                                     {0x1D173, 0x1D17A}, {0xE0000, 0xE0FFF}};

bool isInvisible(char32_t scalar)
{
    const auto range = std::ranges::lower_bound(invisible, scalar, {}, &ScalarRange::last);
    return range != std::end(invisible) && scalar >= range->first;
}

/// Makes the C library count columns by the Unicode tables, whatever the user's locale is, for as long as it lives.
class UnicodeWidths {
public:
    UnicodeWidths() : previous_(uselocale(tables())) {}
    ~UnicodeWidths() { uselocale(previous_); }
    UnicodeWidths(const UnicodeWidths&) = delete;
    UnicodeWidths& operator=(const UnicodeWidths&) = delete;

private:
    static locale_t tables()
    {
        static const locale_t unicode = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
        return unicode;
    }
    locale_t previous_;
};

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
    const UnicodeWidths widths;
    const std::string repaired = utf8::repaired(DataView(text));
    const DataView bytes(repaired);
    std::string escape;
    int width = 0;
    // Where the text would have to end for "…" to follow it.
    std::size_t cut = output.size();
    int cutWidth = 0;
    for (std::int64_t offset = 0; offset < bytes.size();) {
        const utf8::Scalar scalar = *utf8::scalarAt(bytes, offset);
        const bool isHidden = scalar.value < 0x20 || isInvisible(scalar.value);
        const int scalarWidth = isHidden ? -1 : ::wcwidth(static_cast<wchar_t>(scalar.value));
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

}  // namespace sealscope::cli
