// SPDX-License-Identifier: Apache-2.0
#include "app/records/JSONLineWriter.h"

#include "harness/Hex.h"
#include "platform/Base64.h"
#include "platform/UTF8.h"

#include <bit>
#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <nlohmann/json.hpp>
#include <random>

namespace sealscope {

namespace {

using nlohmann::json;

/// Writes random values with our writer and builds the same with the library's.
class RandomValues {
public:
    explicit RandomValues(std::uint64_t seed) : random_(seed) {}

    json write(JSONLineWriter& writer, int depth)
    {
        switch (number(depth < 4 ? 8 : 6)) {
        case 0: return writer.null(), json();
        case 1: return scalar(writer, number(2) == 1);
        case 2: return scalar(writer, static_cast<std::int64_t>(random_() >> number(64)) * (number(2) == 0 ? 1 : -1));
        case 3: return scalar(writer, real());
        case 4:
        case 5: return scalar(writer, text());
        case 6: {
            json array = json::array();
            writer.beginArray();
            for (std::uint64_t count = number(5); count > 0; --count) array.push_back(write(writer, depth + 1));
            writer.endArray();
            return array;
        }
        default: {
            json object = json::object();
            writer.beginObject();
            for (std::uint64_t count = number(5); count > 0; --count) {
                const std::string key = text() + std::to_string(count);  // each once
                writer.key(key);
                object[key] = write(writer, depth + 1);
            }
            writer.endObject();
            return object;
        }
        }
    }

private:
    std::uint64_t number(std::uint64_t below) { return random_() % below; }

    template <class Value> static json scalar(JSONLineWriter& writer, const Value& value)
    {
        writer.value(value);
        return value;
    }

    double real()
    {
        if (number(2) == 0) return 1'700'000'000 + static_cast<double>(number(1'000'000)) / 1e6;
        const double any = std::bit_cast<double>(random_());
        return std::isfinite(any) ? any : 0;
    }

    /// Mostly plain, with characters of every length and kind in between.
    std::string text()
    {
        static constexpr char32_t special[] = {0,    '\n',   '\t',   '\r',   '"',    '\\',   '/',    0x1B,    0x7F,    0x9B,    0xA0,
                                               0xE9, 0x202E, 0x2028, 0x2066, 0xFEFF, 0xFFFD, 0xFFFF, 0x1F600, 0xE0001, 0x10FFFF};
        std::string text;
        for (std::uint64_t count = number(24); count > 0; --count)
            utf8::append(text, number(6) == 0 ? special[number(std::size(special))] : static_cast<char32_t>('a' + number(26)));
        return text;
    }

    std::mt19937_64 random_;
};

}  // namespace

TEST(JSONLineWriter, WritesWhatTheLibraryReads)
{
    for (std::uint64_t seed = 0; seed < 20'000; ++seed) {
        std::string line;
        JSONLineWriter writer(line);
        RandomValues values(seed);
        const json expected = values.write(writer, 0);
        ASSERT_EQ(json::parse(line), expected) << line;
        // Whatever goes to a terminal or through a line reader stays one line that switches nothing on.
        for (const char byte : line) ASSERT_GE(static_cast<unsigned char>(byte), 0x20) << line;
        for (const char* obeyed : {"\x7F", "\xC2\x9B", "\u202E", "\u2028", "\u2066", "\uFEFF"})
            ASSERT_EQ(line.find(obeyed), std::string::npos);
    }
}

TEST(JSONLineWriter, KeepsTheKindOfANumber)
{
    struct Case {
        double number;
        const char* text;
    };
    const Case cases[] = {{1, "1.0"},
                          {0, "0.0"},
                          {-0.0, "-0.0"},
                          {1'700'000'000.25, "1700000000.25"},
                          {0.1, "0.1"},
                          {1e300, "1e+300"},
                          {1'700'000'000.123456, "1700000000.123456"},
                          {std::numeric_limits<double>::infinity(), "null"},
                          {std::nan(""), "null"}};
    for (const auto& [number, text] : cases) {
        std::string line;
        JSONLineWriter(line).value(number);
        EXPECT_EQ(line, text);
    }
}

TEST(JSONLineWriter, ReplacesWhatIsNoUTF8)
{
    struct Case {
        const char* name;
        std::string_view text;
        const char* expected;
    };
    const Case cases[] = {
        {"a lone byte", "caf\xE9", "\"caf\uFFFD\""},
        {"a surrogate", "\xED\xA0\x80", "\"\uFFFD\uFFFD\uFFFD\""},
        {"cut within a character", "a long plain start and \xF0\x9F\x98", "\"a long plain start and \uFFFD\""},
    };
    for (const auto& [name, text, expected] : cases) {
        std::string line;
        JSONLineWriter(line).value(text);
        EXPECT_EQ(line, expected) << name;
    }
}

TEST(JSONLineWriter, WritesBytesAsBase64OfAnyLength)
{
    // RFC 4648 §10.
    const std::pair<std::string_view, const char*> vectors[] = {{"", "\"\""},
                                                                {"f", "\"Zg==\""},
                                                                {"fo", "\"Zm8=\""},
                                                                {"foo", "\"Zm9v\""},
                                                                {"foob", "\"Zm9vYg==\""},
                                                                {"fooba", "\"Zm9vYmE=\""},
                                                                {"foobar", "\"Zm9vYmFy\""}};
    for (const auto& [bytes, expected] : vectors) {
        std::string line;
        JSONLineWriter(line).base64(Data::fromText(bytes));
        EXPECT_EQ(line, expected);
    }
    // Longer than the blocks that are encoded side by side.
    const Data bytes = patternBytes(4'000'001);
    std::string line;
    JSONLineWriter(line).base64(bytes);
    const auto back = fromBase64(std::string_view(line).substr(1, line.size() - 2));
    EXPECT_TRUE(back && *back == bytes);
}

}  // namespace sealscope
