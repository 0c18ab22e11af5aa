// SPDX-License-Identifier: Apache-2.0
#include "platform/Bundle.h"

#include "harness/TempDirectory.h"

#include <cstdlib>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>

namespace sealscope {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// What the environment says of languages, for the length of a test.
class Locale {
public:
    explicit Locale(const char* lang, const char* language = "", const char* all = "", const char* messages = "")
    {
        setenv("LANG", lang, 1);
        setenv("LANGUAGE", language, 1);
        setenv("LC_ALL", all, 1);
        setenv("LC_MESSAGES", messages, 1);
    }
    ~Locale()
    {
        for (const char* name : {"LANG", "LANGUAGE", "LC_ALL", "LC_MESSAGES"}) unsetenv(name);
    }
    Locale(const Locale&) = delete;
    Locale& operator=(const Locale&) = delete;
};

/// A bundle folder in the making.
class BundleFolder {
public:
    void table(std::string_view language, std::string_view name, std::string_view json) const
    {
        const std::string folder = fmt::format("Resources/{}.lproj", language);
        std::filesystem::create_directories(directory_.path() / folder);
        directory_.write(fmt::format("{}/{}.json", folder, name), json);
    }
    void info(std::string_view json) const { directory_.write("Info.json", json); }
    const std::filesystem::path& path() const { return directory_.path(); }

private:
    TempDirectory directory_;
};

TEST(Bundle, ReadsLanguagesAsGettextDoes)
{
    const auto languages = [](const char* lang, const char* language = "", const char* all = "", const char* messages = "") {
        const Locale locale(lang, language, all, messages);
        return preferredLanguages();
    };
    EXPECT_THAT(languages(""), IsEmpty());
    EXPECT_THAT(languages("C"), IsEmpty());
    EXPECT_THAT(languages("POSIX"), IsEmpty());
    EXPECT_THAT(languages("C.UTF-8"), IsEmpty());
    EXPECT_THAT(languages("C", "de"), IsEmpty()) << "LANGUAGE alone is not enough";
    EXPECT_THAT(languages("de_AT.UTF-8"), ElementsAre("de_AT", "de"));
    EXPECT_THAT(languages("fr"), ElementsAre("fr"));
    EXPECT_THAT(languages("sr_RS.UTF-8@latin"), ElementsAre("sr_RS@latin", "sr@latin", "sr_RS", "sr"));
    EXPECT_THAT(languages("zh_CN.UTF-8"), ElementsAre("zh_CN", "zh", "zh-Hans"));
    EXPECT_THAT(languages("zh_TW.UTF-8"), ElementsAre("zh_TW", "zh", "zh-Hant"));
    EXPECT_THAT(languages("de_DE.UTF-8", "", "fr_FR.UTF-8", "es_ES"), ElementsAre("fr_FR", "fr")) << "LC_ALL comes first";
    EXPECT_THAT(languages("de_DE.UTF-8", "", "", "es_ES"), ElementsAre("es_ES", "es"));
    EXPECT_THAT(languages("de_DE.UTF-8", "", "C"), IsEmpty());
    EXPECT_THAT(languages("de_DE.UTF-8", "ja:de_CH::de"), ElementsAre("ja", "de_CH", "de"));
    EXPECT_THAT(languages("de_DE.UTF-8", "../../tmp:fr"), ElementsAre("fr")) << "a name is no path";
}

TEST(Bundle, LooksATextUpInTheFirstLanguageThatHasTheTable)
{
    const BundleFolder folder;
    folder.table("de", "Words", R"({"one": "eins", "two": "", "three": 3, "four": "vier\u0000"})");
    folder.table("de_CH", "Other", R"({"one": "eis"})");
    folder.table("fr", "Words", R"({"one": "un", "two": "deux"})");
    folder.table("es", "Words", R"({"one": "uno")");
    folder.table("ja", "Words", R"(["one"])");
    struct Case {
        const char* name;
        const char* languages;
        const char* table;
        const char* key;
        std::string expected;
    };
    const Case cases[] = {
        {"a text", "de", "Words", "one", "eins"},
        {"an empty text is none", "de", "Words", "two", "two"},
        {"a number is none", "de", "Words", "three", "three"},
        {"a text may hold NUL", "de", "Words", "four", std::string("vier\0", 5)},
        {"a missing text does not come from the next language", "de:fr", "Words", "five", "five"},
        {"the country's own table comes first", "de_CH", "Other", "one", "eis"},
        {"the language's table stands in for it", "de_CH", "Words", "one", "eins"},
        {"no table of the language", "it", "Words", "one", "one"},
        {"the next language", "it:fr", "Words", "two", "deux"},
        {"a damaged table counts as absent", "es:fr", "Words", "one", "un"},
        {"a table that is no object counts as absent", "ja:fr", "Words", "one", "un"},
        {"who prefers English gets the keys", "en_GB:fr", "Words", "one", "one"},
        {"another table", "de", "None", "one", "one"},
    };
    for (const auto& [name, languages, table, key, expected] : cases) {
        const Locale locale("de_DE.UTF-8", languages);
        const Bundle bundle(folder.path());
        EXPECT_EQ(bundle.localizedString(key, table), expected) << name;
        EXPECT_EQ(bundle.localizedString(key, table), expected) << name << ", again";
    }
    const Locale locale("C");
    EXPECT_EQ(Bundle(folder.path()).localizedString("one", "Words"), "one");
}

TEST(Bundle, ServesManyThreads)
{
    const BundleFolder folder;
    for (int table = 0; table < 20; ++table)
        folder.table("de", fmt::format("Table{}", table), fmt::format(R"({{"key": "text {}"}})", table));
    const Locale locale("de_DE.UTF-8");
    const Bundle bundle(folder.path());
    std::vector<std::thread> threads;
    std::atomic<int> wrong = 0;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&, thread] {
            for (int round = 0; round < 200; ++round) {
                const int table = (round * (thread + 1)) % 20;
                if (bundle.localizedString("key", fmt::format("Table{}", table)) != fmt::format("text {}", table)) ++wrong;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
}

TEST(Bundle, ReadsItsInformation)
{
    const BundleFolder folder;
    folder.info(R"({"CFBundleVersion": "7", "Number": 7, "Real": 0.5, "Flag": true, "List": [1], "Nothing": null})");
    const Bundle bundle(folder.path());
    EXPECT_EQ(bundle.infoString("CFBundleVersion"), "7");
    EXPECT_EQ(bundle.infoString("Number"), std::nullopt);
    EXPECT_EQ(bundle.infoString("Missing"), std::nullopt);
    EXPECT_EQ(bundle.infoDictionary().size(), 4);
    EXPECT_EQ(bundle.infoDictionary().at("Number"), Bundle::InfoValue(std::int64_t{7}));
    EXPECT_EQ(bundle.infoDictionary().at("Real"), Bundle::InfoValue(0.5));
    EXPECT_EQ(bundle.infoDictionary().at("Flag"), Bundle::InfoValue(true));
    for (const char* damaged : {"", "{", "[]", "\"text\"", "{\"a\": \"\xFF\"}", "{\"a\": 1e999}"}) {
        folder.info(damaged);
        EXPECT_THAT(Bundle(folder.path()).infoDictionary(), IsEmpty()) << damaged;
    }
    EXPECT_THAT(Bundle("/nonexistent/Some.bundle").infoDictionary(), IsEmpty());
}

TEST(Bundle, CodeOutsideBundlesHasAnEmptyOne)
{
    static const int here = 0;
    const Locale locale("de_DE.UTF-8");
    const Bundle& bundle = Bundle::containing(&here);
    EXPECT_EQ(&bundle, &Bundle::containing(&here));
    EXPECT_THAT(bundle.infoDictionary(), IsEmpty());
    EXPECT_EQ(bundle.localizedString("key", "LocalizableTLS"), "key");
    int local = 0;
    EXPECT_EQ(&Bundle::containing(&local), &bundle) << "an address of no module";
}

TEST(Bundle, TheProgramsTextsLieBesideIt)
{
    EXPECT_EQ(Bundle::main().path(), std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path() / "share/sealscope");
    EXPECT_EQ(Bundle::main().localizedString("key", "Localizable"), "key");
}

}  // namespace
}  // namespace sealscope
