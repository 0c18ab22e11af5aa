// SPDX-License-Identifier: Apache-2.0
#include "app/session/ColumnPredicate.h"

#include <gtest/gtest.h>

namespace sealscope {

namespace {

VELValue text(const char* characters) { return std::string(characters); }

TEST(ColumnPredicate, AcceptsValuesAsItsFormatSays)
{
    struct Case {
        const char* format;
        const char* wanted;
        std::optional<VELValue> value;
        bool isAccepted;
    };
    const Case cases[] = {
        {"name CONTAINS[c] $value", "EXAMPLE", text("www.example.org"), true},
        {"name CONTAINS $value", "EXAMPLE", text("www.example.org"), false},
        {"name CONTAINS[c] $value", "müller", text("MÜLLER.example"), true},
        {"name CONTAINS[c] $value", "muller", text("Müller"), false},
        {"name CONTAINS[cd] $value", "muller", text("MÜLLER"), true},
        {"name contains[c] $value", "", std::nullopt, false},
        {"name BEGINSWITH $value", "www", text("www.example.org"), true},
        {"name BEGINSWITH $value", "example", text("www.example.org"), false},
        {"name ENDSWITH[c] $value", ".ORG", text("www.example.org"), true},
        {"size == $value", "7", std::int64_t{7}, true},
        {"size == $value", "7.0", std::int64_t{7}, true},
        {"size > $value", "9", std::int64_t{10}, true},
        {"size <= $value", "9", 9.5, false},
        {"name != $value", "a", std::nullopt, true},
        {"name CONTAINS[c] $value", "\xFF", text("a"), false},
    };
    for (const auto& [format, wanted, value, isAccepted] : cases) {
        const auto predicate = ColumnPredicate::parse(format);
        ASSERT_TRUE(predicate) << format;
        EXPECT_EQ(predicate->with(wanted).accepts(value), isAccepted) << format << " with " << wanted;
    }
}

TEST(ColumnPredicate, RefusesWhatItCannotEvaluate)
{
    for (const char* format : {"", "name", "name CONTAINS", "name CONTAINS $other", "name MATCHES $value", "a CONTAINS $value OR b"})
        EXPECT_FALSE(ColumnPredicate::parse(format)) << format;
}

}  // namespace

}  // namespace sealscope
