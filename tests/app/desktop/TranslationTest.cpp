// SPDX-License-Identifier: Apache-2.0
// Whether every text of the window, and every sentence that it shows, has a translation in each language, with the same places for
// what is filled in.

#include "harness/TempDirectory.h"

#include <algorithm>
#include <cctype>
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

/// The texts between the parentheses of calls, those that touch joined, in the sources of a folder.
std::set<std::string> textsIn(const fs::path& folder, const std::regex& call)
{
    static const std::regex newline(R"(\\n)"), escape(R"(\\(.))");
    static const std::regex token(R"re("(?:[^"\\]|\\.)*"|'(?:[^'\\]|\\.)'|[()])re");
    std::set<std::string> texts;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        if (entry.path().extension() != ".cpp" && entry.path().extension() != ".h") continue;
        const Data bytes = readFile(entry.path());
        const std::string source(bytes.view().text());
        for (std::sregex_iterator found(source.begin(), source.end(), call), end; found != end; ++found) {
            std::vector<std::string> literals;
            int depth = 1;
            bool touches = false;
            for (std::sregex_iterator part(found->suffix().first, source.end(), token); part != end && depth > 0; ++part) {
                const std::string text = part->str(), before = part->prefix();
                depth += (text == "(") - (text == ")");
                const bool isLiteral = text.starts_with('"');
                touches &= isLiteral && std::ranges::all_of(before, [](unsigned char character) { return std::isspace(character); });
                if (isLiteral && !touches) literals.emplace_back();
                if (isLiteral) literals.back() += text.substr(1, text.size() - 2);
                touches = isLiteral;
            }
            for (const std::string& text : literals)
                texts.insert(std::regex_replace(std::regex_replace(text, newline, "\n"), escape, "$1"));
        }
    }
    return texts;
}

/// "%1", "%n", "{0}", "{1:02x}"; those that have no number are numbered as they come.
std::multiset<std::string> places(const std::string& text)
{
    static const std::regex place(R"(%[0-9nL]+|\{[0-9]*(:[^{}]*)?\})");
    std::multiset<std::string> places;
    for (std::sregex_iterator found(text.begin(), text.end(), place), end; found != end; ++found) {
        std::string written = found->str();
        if (written[0] == '{' && !std::isdigit(static_cast<unsigned char>(written[1]))) written.insert(1, std::to_string(places.size()));
        places.insert(written);
    }
    return places;
}

TEST(Translation, IsThereForEachText)
{
    const std::pair<const char*, std::set<std::string>> tables[] = {
        {"Desktop.json", textsIn(application / "desktop", std::regex(R"(\btr\()"))},
        {"Sentences.json", textsIn(application, std::regex(R"(\b(?:word|say|sayOf|sayInto)\()"))},
    };
    for (const auto& [name, texts] : tables) {
        ASSERT_GT(texts.size(), 50U);
        for (const std::string language : {"de", "es", "fr", "ja", "zh-Hans"}) {
            const auto table = nlohmann::json::parse(readFile(application / "resources" / (language + ".lproj") / name).view().text());
            for (const std::string& text : texts) EXPECT_TRUE(table.contains(text)) << language << ": " << text;
            for (const auto& [key, translated] : table.items()) {
                EXPECT_TRUE(texts.contains(key.substr(0, key.find("|one")))) << language << ": nobody says: " << key;
                EXPECT_EQ(places(translated.get<std::string>()), places(key)) << language << ": " << key;
            }
        }
    }
}

}  // namespace

}  // namespace sealscope
