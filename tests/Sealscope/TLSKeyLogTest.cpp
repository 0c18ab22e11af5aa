// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSKeyLog.h"

#include "harness/Hex.h"
#include "tests/Sealscope/KeyLogTwin.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gtest/gtest.h>
#include <random>
#include <unordered_map>

namespace sealscope {
namespace {

/// A key log's entries as sorted lines: label, client random, secret.
std::vector<std::string> entries(std::string_view text)
{
    std::vector<std::string> lines;
    for (const auto& [key, secret] : twin::secretsOf(TLSKeyLog(text)))
        lines.push_back(fmt::format("{} {} {}", key.first, hexText(DataView(key.second)), hexText(DataView(secret))));
    return lines;
}

using Lines = std::vector<std::string>;

TEST(TLSKeyLog, ReadsLines)
{
    struct Case {
        const char* name;
        std::string_view text;
        Lines expected;
    };
    const Case cases[] = {
        {"one line", "CLIENT_RANDOM aabb 0011", {"CLIENT_RANDOM aabb 0011"}},
        {"nothing", "", {}},
        {"nothing but breaks", "\n\r\n\n", {}},
        {"any label counts", "anything aabb 0011", {"anything aabb 0011"}},
        {"labels are case-sensitive", "a 00 01\nA 00 02", {"A 00 02", "a 00 01"}},
        {"upper-case and lower-case digits", "L AaBb fFFf", {"L aabb ffff"}},
        {"spaces and tabs around", " \t L aa bb\t ", {"L aa bb"}},
        {"other horizontal space around", "\u00A0\u2003L aa bb\u3000", {"L aa bb"}},
        {"several spaces between", "L  aa   bb", {"L aa bb"}},
        {"a tab is no separator", "L\taa bb", {}},
        {"a tab belongs to its field", "L\tM aa bb", {"L\tM aa bb"}},
        {"a no-break space is no separator", "L\u00A0M aa bb", {"L\u00A0M aa bb"}},
        {"a comment", "# L aa bb", {}},
        {"a comment without space", "#L aa bb", {}},
        {"an indented comment", "   # L aa bb", {}},
        {"a sign that is not in front", "L# aa bb", {"L# aa bb"}},
        {"two fields", "L aa", {}},
        {"four fields", "L aa bb cc", {}},
        {"a comment behind the secret", "L aa bb # why", {}},
        {"an odd number of digits", "L abc bb\nL aa bbb", {}},
        {"no digits", "L zz bb\nL aa zz", {}},
        {"the last line for a key wins", "L aa 01\nL aa 02\nL bb 03", {"L aa 02", "L bb 03"}},
        {"a later line that is invalid does not", "L aa 01\nL aa 0", {"L aa 01"}},
        {"another length for the same key", "L aa 01\nL aa 0203", {"L aa 0203"}},
        {"one client random under two labels", "L aa 01\nM aa 02", {"L aa 01", "M aa 02"}},
        {"label and client random do not run together", "La a001 01\nL aa00 01\nLaa 001 01", {"L aa00 01", "La a001 01"}},
        {"CR LF", "L aa 01\r\nM aa 02\r\n", {"L aa 01", "M aa 02"}},
        {"CR alone", "L aa 01\rM aa 02\r", {"L aa 01", "M aa 02"}},
        {"every other line break",
         "A aa 01\vB aa 02\fC aa 03\u0085D aa 04\u2028E aa 05\u2029F aa 06",
         {"A aa 01", "B aa 02", "C aa 03", "D aa 04", "E aa 05", "F aa 06"}},
        {"U+2027 and U+0086 break no line", "A\u2027 aa 01\u0086", {}},
        {"NUL is a character like others", std::string_view("L\0M aa 01", 9), {std::string("L\0M aa 01", 9)}},
        {"a byte order mark belongs to the label", "\uFEFFL aa 01", {"\uFEFFL aa 01"}},
        {"a label that is not ASCII", "Schlüssel aa 01", {"Schlüssel aa 01"}},
        {"labels are compared scalar by scalar", "\u00E9 aa 01\ne\u0301 aa 02", {"e\u0301 aa 02", "\u00E9 aa 01"}},
        {"bytes that are no UTF-8 in a label", "L\xFF aa 01", {"L\uFFFD aa 01"}},
        {"bytes that are no UTF-8 elsewhere", "L a\xFF 01\nM aa 02", {"M aa 02"}},
        {"a cut sequence before a line break", "\xE2\x80\nL aa 01", {"L aa 01"}},
    };
    for (const auto& [name, text, expected] : cases) EXPECT_EQ(entries(text), expected) << name;
}

TEST(TLSKeyLog, SpeaksOfCharactersAsReadersSeeThem)
{
    struct Case {
        const char* name;
        std::string_view text;
        Lines expected;
    };
    const Case cases[] = {
        {"a space with a combining mark is no separator", "L \u0301aa bb", {}},
        {"nor is one with a variation selector", "L \uFE0Faa bb cc", {"L \uFE0Faa bb cc"}},
        {"nor one with a zero width joiner", "L \u200Daa bb cc", {"L \u200Daa bb cc"}},
        {"nor one with a spacing mark", "L \u0903aa bb cc", {"L \u0903aa bb cc"}},
        {"nor one behind a prepended mark", "L\u0600 aa bb cc", {"L\u0600 aa bb cc"}},
        {"of two spaces the second has the mark", "L  \u0301 aa bb", {}},
        {"a leading space with a mark is not trimmed", " \u0301L aa bb", {" \u0301L aa bb"}},
        {"a mark after a line feed stands alone", "x\n\u0301L aa bb", {"\u0301L aa bb"}},
        {"a mark after a line separator too", "x\u2028\u0301 aa bb", {"\u0301 aa bb"}},
        {"a mark after a tab too", "\t\u0301 aa bb", {"\u0301 aa bb"}},
        {"a digit with a combining mark", "L a\u0301 bb\nM aa bb\u0301", {}},
        {"two digits with marks", "L a\u0301a\u0301 bb", {}},
        {"a number sign with a mark begins no comment", "#\uFE0F\u20E3 aa bb", {"#\uFE0F\u20E3 aa bb"}},
        {"nor does one behind a prepended mark", "\u0600# aa bb", {"\u0600# aa bb"}},
        {"a trailing no-break space with a mark is not trimmed", "L aa bb\u00A0\u0301", {}},
        {"digits of another script", "L \uFF11\uFF12 bb", {}},
    };
    for (const auto& [name, text, expected] : cases) EXPECT_EQ(entries(text), expected) << name;
}

TEST(TLSKeyLog, DecodesPairsOfDigits)
{
    struct Case {
        std::string_view text;
        std::optional<Data> expected;
    };
    const Case cases[] = {
        {"", Data{}},          {"00ff", hex("00 ff")},    {"AbCd", hex("ab cd")},
        {"abc", std::nullopt}, {"zz", std::nullopt},      {"0g", std::nullopt},
        {"+f", hex("0f")},     {"+0", hex("00")},         {"-0", hex("00")},
        {"-1", std::nullopt},  {"f+", std::nullopt},      {"++", std::nullopt},
        {"+-", std::nullopt},  {"aa+f-0", hex("aa0f00")}, {"a+fa", std::nullopt},
        {" f", std::nullopt},  {"0x", std::nullopt},      {"\r\n", std::nullopt},
        {"é", std::nullopt},   {"éé", std::nullopt},      {"12\u0301", std::nullopt},
    };
    for (const auto& [text, expected] : cases) {
        const auto decoded = TLSKeyLog::decodeHex(text);
        EXPECT_EQ(decoded ? std::optional(Data(viewOf(*decoded))) : std::nullopt, expected) << text;
    }
}

TEST(TLSKeyLog, LooksUpByLabelAndClientRandom)
{
    const TLSKeyLog keyLog("CLIENT_RANDOM aabb 0011\nEXPORTER_SECRET aabb 22");
    const TLSKeyLog copy = keyLog;
    EXPECT_EQ(copy.secret({"CLIENT_RANDOM", hex("aabb")}), hex("0011"));
    EXPECT_EQ(copy.secret({"EXPORTER_SECRET", hex("aabb")}), hex("22"));
    EXPECT_EQ(copy.secret({"client_random", hex("aabb")}), std::nullopt);
    EXPECT_EQ(copy.secret({"CLIENT_RANDOM", hex("aabbcc")}), std::nullopt);
    EXPECT_EQ(copy.secret({"CLIENT_RANDOM", hex("")}), std::nullopt);
    EXPECT_EQ(TLSKeyLog("").secret({"CLIENT_RANDOM", hex("aabb")}), std::nullopt);
}

// A key log made to be slow: whoever tells secrets apart by less than the whole label compares each line with all before it.
TEST(TLSKeyLog, KeepsManyLabelsOfOneClientRandom)
{
    constexpr int count = 200'000;
    std::string text;
    for (int i = 0; i < count; ++i) text += fmt::format("LABEL_{:06} aabb {:06x}\n", i, i);
    const TLSKeyLog keyLog(text);
    EXPECT_EQ(keyLog.secrets.size(), count);
    EXPECT_EQ(keyLog.secrets.find("LABEL_123456", hex("aabb")), hex("01e240"));
    EXPECT_EQ(keyLog.secrets.length("LABEL_200000", hex("aabb")), std::nullopt);
}

TEST(TLSKeyLog, VisitsEachSecretOnce)
{
    const TLSKeyLog keyLog("A 00 01\nB 00 02\nA 00 0304\nA 00 0304\nA 01 05\nB 00 02\n");
    std::vector<std::string> visited;
    keyLog.secrets.forEach([&](std::string_view label, DataView random, DataView secret) {
        visited.push_back(fmt::format("{} {} {}", label, hexText(random), hexText(secret)));
    });
    EXPECT_EQ(visited, (Lines{"B 00 02", "A 00 0304", "A 01 05"})) << "what was replaced is not among them";
    EXPECT_EQ(keyLog.secrets.size(), 3);
}

TEST(TLSKeyLog, CountsLines)
{
    struct Case {
        const char* name;
        std::string_view text;
        TLSKeyLogLineCount expected;
    };
    const Case cases[] = {
        {"nothing", "", {0, 0, 0}},
        {"comments and empty lines do not count", "# a\n\n  \nL aa bb\n", {1, 1, 0}},
        {"an invalid line", "L aa bb\nhello\nL aa bb\nworld\n", {4, 2, 2}},
        {"all lines count for its number", "# a\r\n\r\nhello\r\n", {1, 0, 3}},
        {"whatever breaks them", "L aa bb\rL aa bb\vhello\n", {3, 2, 3}},
        {"a last line without a break", "L aa bb\nL aa b", {2, 1, 2}},
    };
    for (const auto& [name, text, expected] : cases) EXPECT_EQ(TLSKeyLog::countLines(text), expected) << name;
}

TEST(TLSKeyLog, ReadsLongLines)
{
    const std::string digits(2'000'000, 'a');
    const std::string label(1'000'000, 'L');
    EXPECT_EQ(entries(fmt::format("{} {} {}\nM 00 {}b\n", label, digits, digits, digits)).size(), 1u);
}

/// Text of which most is a key log and the rest what could confuse its reader.
std::string randomText(std::mt19937_64& random)
{
    static constexpr std::string_view scraps[] = {" ",
                                                  " ",
                                                  " ",
                                                  "\n",
                                                  "\n",
                                                  "\r\n",
                                                  "\r",
                                                  "\t",
                                                  "\v",
                                                  "\u0085",
                                                  "\u2028",
                                                  "#",
                                                  "a",
                                                  "0f",
                                                  "ab",
                                                  "+1",
                                                  "-0",
                                                  "-1",
                                                  "L",
                                                  "é",
                                                  "\u0301",
                                                  "\u200D",
                                                  "\uFE0F",
                                                  "\u0903",
                                                  "\u0600",
                                                  "\u00A0",
                                                  "\u3000",
                                                  "\U0001F468",
                                                  "\U0001F1E9",
                                                  "\u1100",
                                                  "\u0915\u094D",
                                                  "\xFF",
                                                  "\xE2\x80",
                                                  "\xC2",
                                                  "CLIENT_RANDOM aabb 0011\n",
                                                  "L aa bb",
                                                  " cc dd\n"};
    std::string text;
    for (std::uint64_t pieces = random() % 40; pieces > 0; --pieces) text += scraps[random() % std::size(scraps)];
    return text;
}

TEST(TLSKeyLog, AgreesWithItsTwin)
{
    std::mt19937_64 random(7);
    for (int round = 0; round < 8'000; ++round) {
        const std::string text = randomText(random);
        const auto [secrets, count] = twin::parse(text);
        ASSERT_EQ(twin::secretsOf(TLSKeyLog(text)), secrets) << hexText(DataView(text));
        const TLSKeyLogLineCount counted = TLSKeyLog::countLines(text);
        ASSERT_EQ(counted.lines, count.lines) << hexText(DataView(text));
        ASSERT_EQ(counted.validLines, count.validLines) << hexText(DataView(text));
    }
}

TEST(TLSKeyLog, KeysHash)
{
    std::unordered_map<TLSKeyLog::Key, int> found{{{"A", hex("01")}, 1}, {{"A", hex("02")}, 2}, {{"B", hex("01")}, 3}};
    EXPECT_EQ(found.size(), 3u);
    EXPECT_EQ((found[{"A", hex("02")}]), 2);
    EXPECT_EQ((found[{"A", hex("01")}]), 1);
}

}  // namespace
}  // namespace sealscope
