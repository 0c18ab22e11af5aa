// SPDX-License-Identifier: Apache-2.0
#include "app/cli/text/ViewText.h"

#include <gtest/gtest.h>

namespace sealscope::cli {

namespace {

std::string textOf(const AnyView& view, int columns, bool hasColors = false)
{
    std::string text;
    appendViewText(text, view, {.isTerminal = columns > 0, .hasColors = hasColors, .columns = columns});
    return text;
}

Binding<std::string> fixed(std::string text)
{
    return {.get = [text] { return text; }, .set = {}, .observe = {}};
}

}  // namespace

TEST(ViewText, ShowsEachKindOfView)
{
    const Binding<bool> on{.get = [] { return true; }, .set = {}, .observe = {}};
    const Binding<std::optional<Color>> red{.get = [] { return std::optional(Color{255, 0, 0}); }, .set = {}, .observe = {}};
    const AnyView line = AnyView(Text{"/a/very/long/path/to/keylog.txt"}).lineLimit(1, Truncation::middle);
    struct Case {
        const char* name;
        AnyView view;
        int columns;
        const char* expected;
    };
    const Case cases[] = {
        {"nothing", EmptyView{}, 20, ""},
        {"a text that fits", Text{"hello world"}, 20, "hello world\n"},
        {"a text that is broken at a space", Text{"one two three four"}, 9, "one two\nthree\nfour\n"},
        {"a word that is too long", Text{"abc defghijklm"}, 6, "abc\ndefghi\njklm\n"},
        {"wide characters without spaces", Text{"自动检测会话"}, 5, "自动\n检测\n会话\n"},
        {"no terminal breaks nothing", Text{"one two three four"}, 0, "one two three four\n"},
        {"what a terminal would obey", Text{"a\x1B[2Jb"}, 20, "a\\x1B[2Jb\n"},
        {"a path that is cut in its middle", line, 11, "/a/ve…g.txt\n"},
        {"a path without a terminal", line, 0, "/a/very/long/path/to/keylog.txt\n"},
        {"a field", TextField{.text = fixed("/keys.txt"), .placeholder = "none"}, 40, "[ /keys.txt ]\n"},
        {"an empty field", TextField{.label = "Path", .text = fixed(""), .placeholder = "none"}, 40, "Path [ none ]\n"},
        {"a button", Button{"Choose…", {}}, 40, "[Choose…]\n"},
        {"a switch", Toggle{"Use color", on}, 40, "[x] Use color\n"},
        {"a colour", ColorWell{"Color", red}, 40, "Color #FF0000\n"},
        {"rows", VStack{.spacing = 8, .children = {Text{"a"}, EmptyView{}, Text{"b"}}}, 40, "a\nb\n"},
        {"groups", VStack{.spacing = 24, .children = {Text{"a"}, EmptyView{}, Text{"b"}}}, 40, "a\n\nb\n"},
        {"what is beside each other", HStack{.children = {line, Button{"Copy", {}}}}, 24, "/a/very/…log.txt  [Copy]\n"},
        {"beside each other without a terminal", HStack{.children = {line, Button{"Copy", {}}}}, 0,
         "/a/very/long/path/to/keylog.txt  [Copy]\n"},
    };
    for (const auto& [name, view, columns, expected] : cases) EXPECT_EQ(textOf(view, columns), expected) << name;
}

TEST(ViewText, SetsTitlesAndExplanationsApartWhereThereAreColours)
{
    const AnyView view = VStack{
        .children = {AnyView(Text{"Title"}).font({.points = 12, .weight = Font::Weight::bold}), AnyView(Text{"two words"}).secondary()}};
    EXPECT_EQ(textOf(view, 5, true), "\x1B[1mTitle\x1B[0m\n\x1B[2mtwo\x1B[0m\n\x1B[2mwords\x1B[0m\n");
    EXPECT_EQ(textOf(view, 5, false), "Title\ntwo\nwords\n");
}

}  // namespace sealscope::cli
