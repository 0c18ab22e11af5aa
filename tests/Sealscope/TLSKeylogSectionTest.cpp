// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSKeylogSection.h"

#include "harness/TempDirectory.h"
#include "host/VELCommonTools/KeylogUserFile.h"
#include "host/VELCommonTools/Spacing.h"
#include "host/VELKonstantsKeys/VELProtocolKonstants.h"
#include "platform/Notifications.h"
#include "platform/OpenPanel.h"
#include "platform/Pasteboard.h"

#include <cstdlib>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace sealscope {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// All views of a kind in a tree, in the order shown.
template <class Kind> void collect(const AnyView& view, std::vector<Kind>& found)
{
    if (const auto* content = std::get_if<Kind>(&view.content())) found.push_back(*content);
    if (const auto* stack = std::get_if<VStack>(&view.content()))
        for (const AnyView& child : stack->children) collect(child, found);
    if (const auto* stack = std::get_if<HStack>(&view.content()))
        for (const AnyView& child : stack->children) collect(child, found);
}

template <class Kind> std::vector<Kind> all(const AnyView& view)
{
    std::vector<Kind> found;
    collect(view, found);
    return found;
}

class TLSKeylogSectionTest : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        static const TempDirectory folder;
        setenv("XDG_CONFIG_HOME", folder.path().c_str(), 1);
        setenv("XDG_DATA_HOME", (folder.path() / "with spaces").c_str(), 1);
        managedKeylog = (folder.path() / "with spaces/sealscope/keylog.txt").string();
        for (const char* session : {"DISPLAY", "WAYLAND_DISPLAY"}) unsetenv(session);
    }
    void SetUp() override
    {
        OpenPanel::setChooser({});
        section.keylogPath.set("");
        shown = view.show();
        for (const auto konstant : {VELProtocolKonstants::reloadStreams, VELProtocolKonstants::keylogChanged}) {
            const auto received = [this](const Notification& notification) {
                posted.push_back(notification.name);
                EXPECT_EQ(notification.object, nullptr);
                EXPECT_THAT(notification.userInfo, IsEmpty());
            };
            tokens.push_back(NotificationCenter::standard().observe(rawValue(konstant), received));
        }
    }
    TextField field() const { return all<TextField>(view).at(0); }
    void press(std::size_t button) const { all<Button>(view).at(button).action(); }
    std::optional<std::string> stored() const { return UserDefaults::standard().string(KeylogUserFile::pathDefaultsKey()); }
    std::vector<std::string> takePosted() { return std::exchange(posted, {}); }

    static inline std::string managedKeylog;
    const TLSKeylogSection section;
    const AnyView view = section.body();
    ObservationToken shown;
    std::vector<ObservationToken> tokens;
    std::vector<std::string> posted;
};

const auto changed = ElementsAre("VELKeylogChanged", "VELReloadStreams");

}  // namespace

TEST_F(TLSKeylogSectionTest, IsLaidOutInThreeGroups)
{
    struct Row {
        std::string text;
        Font font;
        bool isSecondary;
    };
    const Font title{12, Font::Weight::bold}, explanation{11}, control{11, Font::Weight::regular, Font::Design::monospaced};
    const std::vector<Row> expected[] = {
        {{"Automatic detection", title, false},
         {"TLS sessions are detected automatically from packet content on any TCP port. No port configuration is required.", explanation,
          true}},
        {{"TLS key log (SSLKEYLOGFILE)", title, false},
         {"Point this at an SSLKEYLOGFILE to decrypt TLS 1.3 sessions in Follow TCP Stream. Defaults to the $SSLKEYLOGFILE environment "
          "variable when empty.",
          explanation, true}},
        {{"Managed key log", title, false},
         {"The app records TLS secrets from the proxy here and always reads it. Point your browser or curl at this file to decrypt "
          "manually-captured traffic too.",
          explanation, true},
         {managedKeylog, control, false}},
    };
    const double spacing = rawValue(static_cast<Spacing>(5));
    const auto& groups = std::get<VStack>(view.content());
    EXPECT_EQ(groups.spacing, 24);
    EXPECT_EQ(groups.alignment, HorizontalAlignment::leading);
    ASSERT_EQ(groups.children.size(), std::size(expected));
    for (std::size_t i = 0; i < std::size(expected); ++i) {
        const AnyView& group = groups.children[i];
        EXPECT_EQ(std::get<VStack>(group.content()).spacing, 8);
        EXPECT_EQ(std::get<VStack>(group.content()).alignment, HorizontalAlignment::leading);
        EXPECT_TRUE(group.style().fillsWidth);
        EXPECT_EQ(group.style().verticalPadding, spacing);
        std::vector<AnyView> rows = std::get<VStack>(group.content()).children;
        if (const auto* controls = std::get_if<HStack>(&rows.back().content())) {
            EXPECT_EQ(controls->spacing, spacing);
            EXPECT_EQ(controls->alignment, VerticalAlignment::center);
            for (const AnyView& each : controls->children) EXPECT_EQ(each.style().font, control);
            const AnyView first = controls->children.front();
            rows.pop_back();
            if (std::holds_alternative<Text>(first.content())) rows.push_back(first);
        }
        ASSERT_EQ(rows.size(), expected[i].size());
        for (std::size_t row = 0; row < rows.size(); ++row) {
            EXPECT_EQ(std::get<Text>(rows[row].content()).text, expected[i][row].text);
            EXPECT_EQ(rows[row].style().font, expected[i][row].font);
            EXPECT_EQ(rows[row].style().isSecondary, expected[i][row].isSecondary);
        }
    }
    EXPECT_EQ(field().label, "");
    EXPECT_EQ(field().placeholder, "/path/to/keylog.txt");
    EXPECT_TRUE(field().hasRoundedBorder);
    std::vector<std::string> titles;
    for (const Button& button : all<Button>(view)) titles.push_back(button.title);
    EXPECT_THAT(titles, ElementsAre("Choose…", "Copy SSLKEYLOGFILE=…"));

    const auto& managed = std::get<VStack>(groups.children[2].content()).children[2];
    const ViewStyle& path = std::get<HStack>(managed.content()).children[0].style();
    EXPECT_EQ(path.lineLimit, 1);
    EXPECT_EQ(path.truncation, Truncation::middle);
    EXPECT_TRUE(path.isSelectable);
    EXPECT_EQ(std::get<HStack>(managed.content()).children[1].style().tooltip,
              "Copy an export line to point a browser or curl at the managed key log");
}

TEST_F(TLSKeylogSectionTest, ShowsNoTextThatIsNotTranslated)
{
    const Data bytes = readFile(SEALSCOPE_SOURCE_DIR "/app/resources/de.lproj/Localizable.json");
    const auto table = nlohmann::json::parse(bytes.view().text());
    std::vector<std::string> texts{field().placeholder, "Copy an export line to point a browser or curl at the managed key log"};
    for (const Button& button : all<Button>(view)) texts.push_back(button.title);
    for (const Text& text : all<Text>(view)) texts.push_back(text.text);
    const auto isShownAsWritten = [](const std::string& text) { return text == managedKeylog || text.starts_with("Point this at"); };
    EXPECT_EQ(std::erase_if(texts, isShownAsWritten), 2U);
    for (const std::string& text : texts) EXPECT_TRUE(table.contains(text)) << text;
}

TEST_F(TLSKeylogSectionTest, BindsTheFieldBothWaysAndAnnouncesEachChange)
{
    EXPECT_THAT(posted, IsEmpty()) << "being shown is no change";
    field().text.set("/tmp/missing.txt");
    EXPECT_EQ(stored(), "/tmp/missing.txt") << "stored as typed, whether or not it is there";
    EXPECT_THAT(takePosted(), changed);
    field().text.set("/tmp/missing.txt");
    EXPECT_THAT(takePosted(), IsEmpty());

    UserDefaults::standard().set(KeylogUserFile::pathDefaultsKey(), std::string("/elsewhere"));
    EXPECT_EQ(field().text.get(), "/elsewhere");
    EXPECT_THAT(takePosted(), changed);
    field().text.set("");
    EXPECT_EQ(stored(), "");
    EXPECT_THAT(takePosted(), changed);

    shown.reset();
    field().text.set("/tmp/again.txt");
    EXPECT_THAT(takePosted(), IsEmpty()) << "nobody shows it any more";
}

TEST_F(TLSKeylogSectionTest, AsksForAFile)
{
    press(0);
    EXPECT_EQ(field().text.get(), "") << "nobody can be asked";

    OpenPanel::Choice choice;
    int asked = 0;
    OpenPanel::setChooser([&](const OpenPanel& panel) {
        ++asked;
        EXPECT_TRUE(panel.canChooseFiles);
        EXPECT_FALSE(panel.canChooseDirectories);
        EXPECT_FALSE(panel.allowsMultipleSelection);
        return choice;
    });
    struct Case {
        const char* name;
        OpenPanel::Choice choice;
        const char* path;
        bool isChange;
    };
    const Case cases[] = {
        {"cancelled", std::nullopt, "", false},
        {"confirmed without a file", std::vector<std::filesystem::path>{}, "", false},
        {"a file", std::vector<std::filesystem::path>{"/keys/one.txt"}, "/keys/one.txt", true},
        {"the file that is set already", std::vector<std::filesystem::path>{"/keys/one.txt"}, "/keys/one.txt", false},
        {"another one", std::vector<std::filesystem::path>{"/keys/two.txt"}, "/keys/two.txt", true},
    };
    for (const Case& each : cases) {
        choice = each.choice;
        press(0);
        EXPECT_EQ(field().text.get(), each.path) << each.name;
        EXPECT_EQ(KeylogUserFile::resolvedPath(UserDefaults::standard()).value_or(""), each.path) << each.name;
        if (each.isChange)
            EXPECT_THAT(takePosted(), changed) << each.name;
        else
            EXPECT_THAT(takePosted(), IsEmpty()) << each.name;
    }
    EXPECT_EQ(asked, 5);
}

TEST_F(TLSKeylogSectionTest, CopiesTheLineUnquoted)
{
    Pasteboard::general().setString("something else");
    press(1);
    EXPECT_EQ(Pasteboard::general().string(), "SSLKEYLOGFILE=" + managedKeylog);
    EXPECT_THAT(managedKeylog, testing::HasSubstr("with spaces"));
    EXPECT_EQ(std::filesystem::status(managedKeylog).permissions(), std::filesystem::perms(0600)) << "secrets go in";
    EXPECT_THAT(posted, IsEmpty());
}

}  // namespace sealscope
