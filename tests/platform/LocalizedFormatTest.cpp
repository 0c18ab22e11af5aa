// SPDX-License-Identifier: Apache-2.0
#include "platform/LocalizedFormat.h"

#include <gtest/gtest.h>

namespace sealscope {
namespace {

constexpr std::uint64_t largest = ~std::uint64_t{0};

TEST(LocalizedFormat, FillsWhatFits)
{
    struct Case {
        const char* format;
        std::initializer_list<FormatArgument> arguments;
        std::string expected;
    };
    const Case cases[] = {
        {"", {}, ""},
        {"100 %%", {}, "100 %"},
        {"%u bytes", {517U}, "517 bytes"},
        {"%d", {largest}, "18446744073709551615"},
        {"%@", {"a%u\0b"}, "a%u"},
        {"Unknown (0x%02X)", {0x18U}, "Unknown (0x18)"},
        {"0x%02x", {0xAU}, "0x0a"},
        {"%04X", {0x17U}, "0017"},
        {"%04X", {0x12345U}, "12345"},
        {"%5u|%05u", {7U, 7U}, "    7|00007"},
        {"%X", {largest}, "FFFFFFFFFFFFFFFF"},
        {"%@ (0x%02X)", {"Alert", 21U}, "Alert (0x15)"},
        {"(0x%2$02X) %1$@", {"Alert", 21U}, "(0x15) Alert"},
        {"%1$u of %1$u%%", {3U}, "3 of 3%"},
        {"%099u", {1U}, std::string(98, '0') + '1'},
    };
    for (const auto& [format, arguments, expected] : cases) EXPECT_EQ(fillFormat(format, arguments), expected) << format;
}

TEST(LocalizedFormat, RefusesWhatPrintfWouldReadMemoryFor)
{
    struct Case {
        const char* format;
        std::initializer_list<FormatArgument> arguments;
    };
    const Case cases[] = {
        {"%u", {}},       // no such argument
        {"%u %u", {1U}},  //
        {"%2$u", {1U}},   //
        {"%0$u", {1U}},   //
        {"%18446744073709551617$u", {1U}},
        {"no argument", {1U}},     // one is left out
        {"%2$u", {1U, 2U}},        //
        {"%u", {"text"}},          // of the other type
        {"%@", {1U}},              //
        {"%s", {"text"}},          // other conversions
        {"%n", {1U}},              //
        {"%lu", {1U}},             //
        {"%-5u", {1U}},            //
        {"%+d", {1U}},             //
        {"%*u", {1U, 2U}},         //
        {"%.3u", {1U}},            //
        {"%5@", {"text"}},         //
        {"%c", {1U}},              //
        {"%", {}},                 // nothing follows
        {"100 %", {}},             //
        {"%1$", {1U}},             //
        {"%100u", {1U}},           // as wide as memory
        {"%999999999999u", {1U}},  //
        {"%1$u %u", {1U, 2U}},     // numbered and not
        {"%u %2$u", {1U, 2U}},     //
    };
    for (const auto& [format, arguments] : cases) EXPECT_EQ(fillFormat(format, arguments), std::nullopt) << format;
}

TEST(LocalizedFormat, ABrokenTranslationGivesWayToTheOriginal)
{
    EXPECT_EQ(fillLocalizedFormat("%u Byte", "%u bytes", {3U}), "3 Byte");
    EXPECT_EQ(fillLocalizedFormat("%s Byte", "%u bytes", {3U}), "3 bytes");
    EXPECT_EQ(fillLocalizedFormat("viele", "%u bytes", {3U}), "3 bytes");
}

}  // namespace
}  // namespace sealscope
