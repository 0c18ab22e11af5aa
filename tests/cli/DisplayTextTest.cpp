// SPDX-License-Identifier: Apache-2.0
#include "app/texts/DisplayText.h"

#include <gtest/gtest.h>
#include <string_view>

namespace sealscope::cli {

using namespace std::string_view_literals;

TEST(DisplayText, ShowsWhatATerminalWouldObey)
{
    struct Case {
        const char* name;
        std::string_view text;
        std::string_view shown;
        int width;
    };
    const Case cases[] = {
        {"plain text", "example.org", "example.org", 11},
        {"an escape sequence", "\x1B[2Jhost", "\\x1B[2Jhost", 11},
        {"line ends and tabs", "a\r\nb\tc", "a\\r\\nb\\tc", 9},
        {"a NUL and DEL", "a\0b\x7F"sv, "a\\x00b\\x7F", 10},
        {"an 8-bit control sequence", "\u009B31m", "\\x9B31m", 7},
        {"a right-to-left override", "gnp\u202Eexe", "gnp\\u{202E}exe", 14},
        {"an isolate and a mark", "\u2066a\u200F", "\\u{2066}a\\u{200F}", 17},
        {"a zero-width joiner and a soft hyphen", "pay\u200Dpal\u00AD", "pay\\u{200D}pal\\xAD", 18},
        {"a filler that looks like a blank", "\u3164", "\\u{3164}", 8},
        {"a tag character", "\U000E0041", "\\u{E0041}", 9},
        {"a line separator and a byte order mark", "\u2028\uFEFF", "\\u{2028}\\u{FEFF}", 16},
        {"a noncharacter", "\uFFFE", "\\u{FFFE}", 8},
        {"a byte that is no UTF-8", "caf\xE9", "caf\uFFFD", 4},
        {"letters beyond ASCII", "bücher.example", "bücher.example", 14},
        {"wide characters", "例え.テスト", "例え.テスト", 11},
        {"a combining accent", "e\u0301", "e\u0301", 1},
        {"an emoji", "\U0001F600", "\U0001F600", 2},
    };
    for (const auto& [name, text, shown, width] : cases) {
        std::string output = "> ";
        EXPECT_EQ(appendDisplaySafe(output, text), width) << name;
        EXPECT_EQ(output, "> " + std::string(shown)) << name;
    }
}

TEST(DisplayText, CutsToAWidth)
{
    struct Case {
        const char* name;
        std::string_view text;
        int columns;
        std::string_view shown;
        int width;
    };
    const Case cases[] = {
        {"fits exactly", "example", 7, "example", 7},
        {"one too long", "example", 6, "examp…", 6},
        {"a wide character does not fit before the mark", "例え例え", 4, "例…", 3},
        {"wide characters that fit exactly", "例え", 4, "例え", 4},
        {"an escape is not cut in two", "ab\x1B", 5, "ab…", 3},
        {"an accent belongs to its letter", "abe\u0301", 3, "abe\u0301", 3},
        {"a single column", "example", 1, "…", 1},
        {"no column", "example", 0, "", 0},
    };
    for (const auto& [name, text, columns, shown, width] : cases) {
        std::string output;
        EXPECT_EQ(appendDisplaySafe(output, text, columns), width) << name;
        EXPECT_EQ(output, shown) << name;
    }
}

}  // namespace sealscope::cli
