// SPDX-License-Identifier: Apache-2.0
#include "harness/CaptureFile.h"
#include "harness/Hex.h"
#include "harness/TCPConversation.h"
#include "harness/TempDirectory.h"
#include "tests/cli/Program.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace sealscope::cli {

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::StartsWith;

constexpr auto colorUse = "com_quillmarshworks_vel_tls_color_use";
constexpr auto color = "com_quillmarshworks_vel_tls_color";
constexpr auto keylogPath = "com_quillmarshworks_vel_tls_keylog_path";

/// Runs the program with settings and data in a folder of the test's own.
class SettingsCommandTest : public testing::Test {
protected:
    ProgramResult run(std::vector<std::string> arguments, std::vector<std::string> environment = {}) const
    {
        environment.insert(environment.begin(), {"XDG_CONFIG_HOME=" + folder.file("config"), "XDG_DATA_HOME=" + folder.file("data")});
        return sealscope(std::move(arguments), {.environment = std::move(environment)});
    }
    std::string get(const char* key) const { return run({"settings", "get", key}).output; }
    fs::path settingsFile() const { return folder.path() / "config/sealscope/settings.json"; }

    TempDirectory folder;
};

}  // namespace

TEST_F(SettingsCommandTest, ShowsSetsAndResets)
{
    const auto list = jsonLines(run({"settings", "list", "--json"}).output);
    ASSERT_EQ(list.size(), 4U);
    EXPECT_EQ(list[0], (nlohmann::json{{"key", colorUse}, {"type", "boolean"}, {"value", false}}));
    EXPECT_EQ(list[1].at("key"), color);
    EXPECT_THAT(list[1].at("value").get<std::string>(), testing::MatchesRegex("#[0-9A-F]{6}"));
    EXPECT_EQ(list[2], (nlohmann::json{{"key", keylogPath}, {"type", "string"}, {"value", nullptr}}));
    EXPECT_EQ(list[3].at("type"), "data");
    EXPECT_THAT(run({"settings", "list"}).output, HasSubstr(std::string(colorUse) + "    false\n"));

    EXPECT_EQ(run({"settings", "set", colorUse, "on"}).status, 0);
    EXPECT_EQ(run({"settings", "set", color, "#0a0b0c"}).status, 0);
    EXPECT_EQ(run({"settings", "set", keylogPath, "keys.txt"}).status, 0);
    EXPECT_EQ(get(colorUse), "true\n");
    EXPECT_EQ(get(color), "#0A0B0C\n");
    EXPECT_EQ(get(keylogPath), (fs::current_path() / "keys.txt").string() + "\n") << "the next run may begin elsewhere";
    EXPECT_EQ(run({"settings", "set", keylogPath, "~/keys.txt"}).status, 0);
    EXPECT_EQ(get(keylogPath), "~/keys.txt\n");

    EXPECT_EQ(run({"settings", "reset"}).status, 0);
    EXPECT_EQ(get(colorUse), "false\n");
    EXPECT_NE(get(color), "#0A0B0C\n");
    EXPECT_EQ(get(keylogPath), "\n");
}

TEST_F(SettingsCommandTest, RefusesWhatASettingCannotHold)
{
    struct Case {
        std::vector<std::string> words;
        std::string errors;
    };
    const Case cases[] = {
        {{"set", colorUse, "maybe"}, std::string("settings set ") + colorUse + ": 'maybe' is neither true nor false"},
        {{"set", color, "red"}, std::string("settings set ") + color + ": 'red' is no colour; one is written as in \"#FFCC66\""},
        {{"set", "com_quillmarshworks_vel_tls_colour", "#FFFFFF"},
         std::string("settings set: there is no setting 'com_quillmarshworks_vel_tls_colour'; did you mean '") + color + "'?"},
        {{"get", "x"}, "settings get: there is no setting 'x'; 'sealscope settings list' shows them"},
        {{"get"}, "settings get: the command is written 'sealscope settings get KEY'"},
        {{"set", color}, "settings set: the command is written 'sealscope settings set KEY VALUE'"},
        {{"lsit"}, "settings: there is no 'lsit'; did you mean 'list'?"},
        {{"frobnicate"}, "settings: 'frobnicate' is none of list, get, set, reset, keylog-line"},
    };
    const std::string before = get(color);
    for (Case each : cases) {
        each.words.insert(each.words.begin(), "settings");
        const ProgramResult result = run(each.words);
        EXPECT_EQ(result.status, 2) << each.errors;
        EXPECT_EQ(result.errors, "sealscope: " + each.errors + "\n");
        EXPECT_EQ(result.output, "");
    }
    EXPECT_EQ(get(color), before);
}

TEST_F(SettingsCommandTest, ShowsThePageOfThePlugIn)
{
    const std::string page = run({"settings"}).output;
    EXPECT_THAT(page, StartsWith("Sealscope\n\n[ ] Use color  Color #"));
    EXPECT_THAT(page, HasSubstr("\n\nAutomatic detection\nTLS sessions are detected automatically"));
    EXPECT_THAT(page, HasSubstr("\n[ /path/to/keylog.txt ]  [Choose…]\n"));
    EXPECT_THAT(page, HasSubstr("\n" + folder.file("data/sealscope/keylog.txt") + "  [Copy SSLKEYLOGFILE=…]\n"));
    EXPECT_THAT(run({"settings"}, {"LC_ALL=de_DE.UTF-8"}).output, HasSubstr("\n\nAutomatische Erkennung\n"));
}

TEST_F(SettingsCommandTest, PrintsTheLineForTheManagedKeyLogAndMakesTheFile)
{
    const std::string keylog = folder.file("data/sealscope/keylog.txt");
    EXPECT_EQ(run({"settings", "keylog-line"}).output, "SSLKEYLOGFILE=" + keylog + "\n");
    ASSERT_TRUE(fs::is_regular_file(keylog));
    EXPECT_EQ(fs::status(keylog).permissions(), fs::perms(0600)) << "secrets go in";
    writeFile(keylog, DataView(std::string_view("CLIENT_RANDOM")));
    run({"settings", "keylog-line"});
    EXPECT_EQ(fs::file_size(keylog), 13U);
}

TEST_F(SettingsCommandTest, ColoursTheRowsOfThePacketList)
{
    const TLSFlight hello{.wire = hex("16 03 01 00 05  01 00 00 01 00"), .plaintext = {}};
    const std::string capture = folder.write("one.pcap", pcapFile(packets(tcpSegments({hello}))));
    const std::vector<std::string> list{"packets", "--color=always", capture};
    EXPECT_THAT(run(list).output, testing::Not(HasSubstr("48;")));
    run({"settings", "set", colorUse, "true"});
    run({"settings", "set", color, "#FFCC66"});
    EXPECT_THAT(run(list).output, HasSubstr("\n\x1B[30;48;5;221m"));
    EXPECT_THAT(run(list, {"COLORTERM=truecolor"}).output, HasSubstr("\n\x1B[30;48;2;255;204;102m"));
    run({"settings", "set", color, "#101010"});
    EXPECT_THAT(run(list, {"COLORTERM=truecolor"}).output, HasSubstr("\n\x1B[97;48;2;16;16;16m")) << "light text on a dark colour";
    EXPECT_THAT(run({"packets", "--color=never", capture}).output, testing::Not(HasSubstr("\x1B")));
}

TEST_F(SettingsCommandTest, ChoosesTheKeyLogThatStreamsDecryptWith)
{
    const std::string examples = SEALSCOPE_SOURCE_DIR "/examples/";
    const auto verdict = [&] { return jsonLines(run({"streams", "--json", examples + "tls12.pcap"}).output).at(0).at("verdict"); };
    EXPECT_EQ(verdict(), "noKeyMaterial");
    run({"settings", "set", keylogPath, examples + "tls12.keylog"});
    EXPECT_EQ(verdict(), "decrypted");
    run({"settings", "set", keylogPath, ""});
    EXPECT_EQ(verdict(), "noKeyMaterial");
}

TEST_F(SettingsCommandTest, SaysOnceWhatKeepsSettingsFromBeingKept)
{
    const auto timesSaid = [](const std::string& text, std::string_view what) {
        int times = 0;
        for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; ++at) ++times;
        return times;
    };
    struct Case {
        const char* name;
        std::vector<std::string> environment;
        const char* reason;
    };
    const Case cases[] = {
        {"a home that does not exist", {"XDG_CONFIG_HOME=", "HOME=/nonexistent"}, "the home directory /nonexistent does not exist"},
        {"a folder that cannot be made", {"XDG_CONFIG_HOME=/proc/none"}, "No such file or directory"},
    };
    for (const Case& each : cases) {
        const ProgramResult list = run({"settings", "list"}, each.environment);
        EXPECT_EQ(list.status, 0) << each.name;
        EXPECT_THAT(list.output, HasSubstr(std::string(colorUse) + "    false\n")) << each.name;
        EXPECT_EQ(timesSaid(list.errors, each.reason), 1) << each.name;
        const ProgramResult plugIns = run({"plugins"}, each.environment);
        EXPECT_EQ(plugIns.status, 0) << each.name;
        EXPECT_EQ(timesSaid(plugIns.errors, each.reason), 1) << each.name;
        EXPECT_EQ(run({"plugins", "--quiet"}, each.environment).errors, "") << each.name;
        const ProgramResult set = run({"settings", "set", colorUse, "true"}, each.environment);
        EXPECT_EQ(set.status, 1) << each.name;
        EXPECT_EQ(timesSaid(set.errors, each.reason), 1) << each.name;
    }
}

TEST_F(SettingsCommandTest, SetsADamagedFileAsideAndGoesOn)
{
    fs::create_directories(settingsFile().parent_path());
    writeFile(settingsFile(), DataView(std::string_view("{\"com_quillmarshworks_vel_tls_color\": ")));
    const ProgramResult first = run({"plugins"});
    EXPECT_EQ(first.status, 0);
    EXPECT_EQ(first.errors, "sealscope: " + settingsFile().string() +
                                ": the settings were damaged: it is not JSON; they are kept as settings.json.damaged\n");
    EXPECT_TRUE(fs::exists(settingsFile().string() + ".damaged"));
    EXPECT_EQ(run({"plugins"}).errors, "");
}

}  // namespace sealscope::cli
