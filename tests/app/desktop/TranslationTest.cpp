// SPDX-License-Identifier: Apache-2.0
// Whether every text of the window has a translation in each language, with the same places for what is filled in.

#include "harness/TempDirectory.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>

namespace sealscope {

namespace {

namespace fs = std::filesystem;

const fs::path application = fs::path(SEALSCOPE_SOURCE_DIR) / "app";

/// The texts of the sources, as `tr` gets them.
std::set<std::string> sourceTexts()
{
    static const std::regex call(R"re(\btr\(\s*((?:"(?:[^"\\]|\\.)*"\s*)+))re");
    static const std::regex literal(R"re("((?:[^"\\]|\\.)*)")re");
    std::set<std::string> texts;
    for (const auto& entry : fs::recursive_directory_iterator(application / "desktop")) {
        if (entry.path().extension() != ".cpp" && entry.path().extension() != ".h") continue;
        const Data bytes = readFile(entry.path());
        const std::string source(bytes.view().text());
        for (std::sregex_iterator found(source.begin(), source.end(), call), end; found != end; ++found) {
            const std::string arguments = (*found)[1];
            std::string text;
            for (std::sregex_iterator part(arguments.begin(), arguments.end(), literal); part != end; ++part) text += (*part)[1];
            texts.insert(std::regex_replace(std::regex_replace(text, std::regex(R"(\\n)"), "\n"), std::regex(R"(\\(.))"), "$1"));
        }
    }
    return texts;
}

std::multiset<std::string> places(const std::string& text)
{
    static const std::regex place("%[0-9nL]+");
    return {std::sregex_token_iterator(text.begin(), text.end(), place), {}};
}

TEST(Translation, IsThereForEachText)
{
    const std::set<std::string> texts = sourceTexts();
    ASSERT_GT(texts.size(), 50U);
    for (const char* language : {"de", "es", "fr", "ja", "zh-Hans"}) {
        const auto table = nlohmann::json::parse(
            readFile(application / "resources" / (std::string(language) + ".lproj") / "Desktop.json").view().text());
        for (const std::string& text : texts) EXPECT_TRUE(table.contains(text)) << language << ": " << text;
        for (const auto& [key, translated] : table.items())
            EXPECT_EQ(places(translated.get<std::string>()), places(key)) << language << ": " << key;
    }
}

}  // namespace

}  // namespace sealscope
