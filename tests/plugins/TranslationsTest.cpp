// SPDX-License-Identifier: Apache-2.0
#include "app/plugins/PlugInLoader.h"
#include "harness/Hex.h"
#include "harness/TLSSession.h"
#include "harness/TempDirectory.h"
#include "host/VELModels/VELPlugInsController.h"
#include "platform/LocalizedFormat.h"

#include <cstdlib>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

namespace sealscope {

namespace {

namespace fs = std::filesystem;
using Table = std::map<std::string, std::string>;

struct Tables {
    fs::path folder;  ///< holds "<language>.lproj"
    const char* name;
};
const Tables plugInTables{fs::path(SEALSCOPE_SOURCE_DIR) / "Sealscope/Bundle/Resources", "LocalizableTLS.json"};
const Tables applicationTables{fs::path(SEALSCOPE_SOURCE_DIR) / "app/resources", "Localizable.json"};
const char* const languages[] = {"de", "fr", "es", "ja", "zh-Hans"};

Table read(const Tables& tables, const std::string& language)
{
    const Data bytes = readFile(tables.folder / (language + ".lproj") / tables.name);
    Table table;
    const auto parsed = nlohmann::json::parse(bytes.view().text());
    for (const auto& [key, entry] : parsed.items())
        table[key] = (entry.is_object() ? entry.at("text") : entry).get<std::string>();
    return table;
}

std::set<std::string> keysOf(const Table& table)
{
    std::set<std::string> keys;
    for (const auto& [key, text] : table) keys.insert(key);
    return keys;
}

/// Every text of a tree, names and values, in one list.
void collectTexts(const VELNodeList& nodes, std::vector<std::string>& names, std::vector<std::string>& texts)
{
    for (const auto& node : nodes) {
        names.push_back(node->name());
        texts.push_back(node->name());
        if (node->value()) texts.push_back(displayText(*node->value()));
        const auto children = node->children();
        collectTexts({children.begin(), children.end()}, names, texts);
    }
}

/// Payloads that between them show every label that the tree has.
std::vector<Data> payloads()
{
    std::vector<Data> all{hex(""),
                          hex("18 03 03 00 01  00"),
                          hex("15 03 03 00 02  02 28"),
                          hex("15 03 03 00 02  01 00"),
                          hex("16 03 03 00 05  02"),
                          hex("16 03 03 00 04  63 00 00 00")};
    for (const std::uint16_t version : {0x0303, 0x0304}) {
        TLSSessionOptions options{.version = version};
        options.clientProtocols = {"h2"};
        for (const TLSFlight& flight : runTLS(options, {clientSends("hello")}).flights) all.push_back(flight.wire);
    }
    return all;
}

}  // namespace

TEST(Translations, HoldTheSameTextsInEveryLanguage)
{
    for (const Tables& tables : {plugInTables, applicationTables}) {
        const std::set<std::string> keys = keysOf(read(tables, "de"));
        std::size_t folders = 0;
        // English stands in the code; a table of it has the forms that one of something takes.
        for (const auto& entry : fs::directory_iterator(tables.folder)) folders += entry.is_directory() && entry.path().filename() != "en.lproj";
        EXPECT_EQ(folders, std::size(languages));
        for (const char* language : languages) {
            const Table table = read(tables, language);
            EXPECT_EQ(keysOf(table), keys) << tables.name << " " << language;
            for (const auto& [key, text] : table) EXPECT_FALSE(text.empty()) << language << ": " << key;
        }
    }
}

TEST(Translations, BreakNoFormat)
{
    int formats = 0;
    for (const char* language : languages) {
        for (const auto& [key, text] : read(plugInTables, language)) {
            if (!key.contains('%')) {
                EXPECT_FALSE(text.contains('%')) << language << ": " << key;
                continue;
            }
            ++formats;
            const auto original = fillFormat(key, {std::uint64_t{0x1A}});
            const auto translated = fillFormat(text, {std::uint64_t{0x1A}});
            ASSERT_TRUE(original && translated) << language << ": " << key;
            // The number is written as in the original: hexadecimal, with its zeros, where that is.
            const std::string number = key.contains("%04X") ? "001A" : key.contains("%02X") ? "1A" : "26";
            EXPECT_THAT(*original, testing::HasSubstr(number)) << key;
            EXPECT_THAT(*translated, testing::HasSubstr(number)) << language << ": " << key;
        }
    }
    EXPECT_EQ(formats, 4 * static_cast<int>(std::size(languages)));
}

// The bundle once more with a table for a language in which every text stands in brackets: a text without them is not in the
// table, and a text of the table that is never met is in it for nothing.
TEST(Translations, CoverWhatThePlugInShowsAndNothingElse)
{
    const TempDirectory folder;
    const fs::path bundle = folder.path() / "Sealscope.bundle";
    fs::copy(PlugInLoader::ownFolder() / "Sealscope.bundle", bundle, fs::copy_options::recursive);
    fs::remove_all(bundle / "Resources");
    fs::create_directories(bundle / "Resources/xx.lproj");
    const std::set<std::string> keys = keysOf(read(plugInTables, "de"));
    nlohmann::json bracketed;
    // Entries with a comment and without one.
    for (const std::string& key : keys) {
        const std::string text = "⟦" + key + "⟧";
        bracketed[key] = bracketed.size() % 2 == 0 ? nlohmann::json(text) : nlohmann::json{{"text", text}, {"comment", "where it stands"}};
    }
    writeFile(bundle / "Resources/xx.lproj/LocalizableTLS.json", DataView(std::string_view(bracketed.dump())));
    setenv("XDG_CONFIG_HOME", folder.path().c_str(), 1);
    setenv("LC_ALL", "xx_XX.UTF-8", 1);
    unsetenv("LANGUAGE");
    ASSERT_EQ(PlugInLoader::load({folder.path()}).problems.size(), 0U);
    const VELPlugInStructure plugIn = VELPlugInsController::sharedManager().plugIns().at(0).plugIn;

    std::vector<std::string> names{plugIn.plugInTitle, plugIn.plugInDescription, plugIn.plugInAuthor};
    for (const VELPlugInColumn& column : plugIn.plugInColumnKeyBindings) {
        names.push_back(column.columnTitle);
        names.push_back(displayText(column.predicateOptions->at(VELBindingOption::displayName)));
    }
    for (const VELPlugInAnalyzerAttribute& attribute : plugIn.plugInAnalyzerAttributes) names.push_back(attribute.attributeTitle);
    std::vector<std::string> texts = names;
    const Data anything = hex("16 03 03 00 01 00");
    const auto analyzer = plugIn.plugInAnalyzerClass->create(anything, {});
    for (const Data& payload : payloads()) collectTexts(analyzer->protocolNodes(payload), names, texts);

    // The names of messages are the protocol's own.
    const std::set<std::string> plain{"Client Hello",        "Server Hello",      "New Session Ticket",  "Certificate",
                                      "Server Key Exchange", "Server Hello Done", "Client Key Exchange", "Encrypted Extensions",
                                      "Certificate Verify",  "Finished"};
    for (const std::string& name : names)
        EXPECT_TRUE(plain.contains(name) || (name.starts_with("⟦") && name.ends_with("⟧"))) << name << " is in no table";
    for (const std::string& key : keys) {
        const std::string shown = "⟦" + key.substr(0, key.find('%'));
        const auto isShown = [&](const std::string& text) { return text.contains(shown); };
        EXPECT_TRUE(std::ranges::any_of(texts, isShown)) << key << " is never shown";
    }
}

}  // namespace sealscope
