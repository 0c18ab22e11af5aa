// SPDX-License-Identifier: Apache-2.0
#include "harness/TempDirectory.h"
#include "tests/cli/Program.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <regex>
#include <set>
#include <sstream>

namespace sealscope::cli {

namespace {

using testing::HasSubstr;

/// The first group of every match in a text, each once.
std::set<std::string> matches(const std::string& text, const char* pattern)
{
    const std::regex expression(pattern);
    std::set<std::string> found;
    for (std::sregex_iterator match(text.begin(), text.end(), expression), end; match != end; ++match) found.insert((*match)[1]);
    return found;
}

std::string help(const std::string& command)
{
    return sealscope(command.empty() ? std::vector<std::string>{"--help"} : std::vector<std::string>{command, "--help"}).output;
}

std::set<std::string> commandsOfHelp()
{
    const std::string text = help("");
    const std::size_t start = text.find("Commands;"), end = text.find("Options of every command:");
    return matches(text.substr(start, end - start), R"(\n  ([a-z]+)  )");
}

std::set<std::string> optionsOfHelp(const std::string& command)
{
    const std::string text = help(command);
    return matches(text.substr(text.find("\nOptions")), R"(\n  (?:-.,|   ) (--[a-z-]+))");
}

std::string source(const char* name) { return std::string(readFile(std::string(SEALSCOPE_SOURCE_DIR "/") + name).view().text()); }

/// What bash offers for the last of some words.
std::set<std::string> completions(const std::vector<std::string>& words)
{
    std::string script = "source '" SEALSCOPE_SOURCE_DIR "/completions/sealscope.bash'; compopt() { :; }; COMP_WORDS=(sealscope";
    for (const std::string& word : words) script += " '" + word + "'";
    script += fmt::format("); COMP_CWORD={}; _sealscope; printf '%s\\n' \"${{COMPREPLY[@]}}\"", words.size());
    static const TempDirectory config;
    const std::vector<std::string> environment{"PATH=" SEALSCOPE_PROGRAM_FOLDER ":/usr/bin:/bin",
                                               "XDG_CONFIG_HOME=" + config.path().string()};
    std::istringstream lines(runProgram({"bash", "-c", script}, {.environment = environment}).output);
    std::set<std::string> offered;
    for (std::string line; std::getline(lines, line);)
        if (!line.empty()) offered.insert(line);
    return offered;
}

}  // namespace

TEST(Documentation, KnowsEveryCommandAndOption)
{
    const std::set<std::string> commands = commandsOfHelp();
    EXPECT_THAT(commands, testing::IsSupersetOf({"packets", "tree", "streams", "follow", "plugins", "settings"}));
    const std::string page = source("docs/sealscope.1"), fish = source("completions/sealscope.fish"),
                      zsh = source("completions/_sealscope");
    for (const std::string& command : commands) {
        EXPECT_THAT(page, HasSubstr("\n.It Cm " + command)) << "the manual page";
        EXPECT_THAT(fish, HasSubstr(" -a " + command + " -d ")) << "fish";
        EXPECT_THAT(zsh, HasSubstr("\n    '" + command + ":")) << "zsh";
        for (const std::string& option : optionsOfHelp(command)) {
            const std::string name = option.substr(2);
            EXPECT_TRUE(std::regex_search(page, std::regex("\n\\.It.* Fl -" + name + "( |\n)"))) << option << " in the manual page";
            EXPECT_THAT(fish, HasSubstr(" -l " + name + " ")) << "fish";
            EXPECT_TRUE(std::regex_search(zsh, std::regex("[',*({]" + option + "[\\[})]"))) << option << " in zsh";
        }
    }
}

TEST(Documentation, BashOffersTheOptionsOfEachCommand)
{
    for (const std::string& command : commandsOfHelp()) EXPECT_EQ(completions({command, "--"}), optionsOfHelp(command)) << command;
    EXPECT_EQ(completions({"--"}), optionsOfHelp("follow")) << "no command is follow";
    EXPECT_EQ(completions({"--plugin-path", "streams", "tree", "--he"}), (std::set<std::string>{"--help", "--hex"}))
        << "an option's argument is no command";
}

TEST(Documentation, BashOffersWhatFitsTheWord)
{
    struct Case {
        std::vector<std::string> words;
        std::set<std::string> expected;
    };
    const Case cases[] = {
        {{"str"}, {"streams"}},
        {{"--color", "a"}, {"auto", "always"}},
        {{"settings", ""}, {"list", "get", "set", "reset", "keylog-line"}},
        {{"settings", "set", "com_quillmarshworks_vel_tls_color"},
         {"com_quillmarshworks_vel_tls_color", "com_quillmarshworks_vel_tls_color_use"}},
        {{"settings", "set", "com_quillmarshworks_vel_tls_color_use", "t"}, {"true"}},
        {{"tree", "--packet", ""}, {}},
        {{"tree", SEALSCOPE_SOURCE_DIR "/LIC"}, {SEALSCOPE_SOURCE_DIR "/LICENSE"}},
    };
    for (const auto& [words, expected] : cases) EXPECT_EQ(completions(words), expected) << fmt::format("{}", fmt::join(words, " "));
}

}  // namespace sealscope::cli
