// SPDX-License-Identifier: Apache-2.0
#include "harness/TempDirectory.h"
#include "tests/cli/Program.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace sealscope::cli {

TEST(PlugInsCommand, TellsWhatEachPlugInBrings)
{
    const ProgramResult result = sealscope({"plugins", "--json"});
    EXPECT_EQ(result.status, 0) << result.errors;
    const auto lines = jsonLines(result.output);
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[0].at("title"), "HTTP");
    EXPECT_EQ(lines[0].at("interpreters"), (nlohmann::json{"HTTP/2", "HTTP/1", "WebSocket"}));
    EXPECT_EQ(lines[2].at("title"), "TLS Reach");
    const nlohmann::json& plugIn = lines[1];
    EXPECT_EQ(plugIn.at("title"), "Sealscope");
    EXPECT_EQ(plugIn.at("description"), "TLS Protocol Analyzer");
    EXPECT_THAT(plugIn.at("version").get<std::string>(), testing::StartsWith(SEALSCOPE_VERSION " ("));
    EXPECT_FALSE(plugIn.at("author").get<std::string>().empty());
    EXPECT_EQ(plugIn.at("columns"),
              nlohmann::json::parse(R"([{"title": "TLS Server Name", "key": "tlsServerName", "filterTitle": "TLS Server Name contains",
            "filter": "tlsServerName CONTAINS[c] $value"}])"));
    EXPECT_EQ(plugIn.at("attributes"), nlohmann::json::parse(R"([
        {"title": "TLS Size", "key": "tlsSize", "type": "number", "offset": 0, "length": null},
        {"title": "TLS Server Name", "key": "tlsServerName", "type": "string", "offset": 0, "length": null},
        {"title": "TLS Version", "key": "tlsVersion", "type": "string", "offset": 0, "length": null}])"));
    ASSERT_EQ(plugIn.at("targetProtocols").size(), 1U);
    EXPECT_EQ(plugIn.at("targetProtocols")[0].at("name"), "TLS");
    EXPECT_EQ(plugIn.at("targetProtocols")[0].at("ports"), nlohmann::json::array());
    EXPECT_EQ(plugIn.at("targetProtocols")[0].at("source"), "tcp");
    EXPECT_EQ(plugIn.at("streams"), "TLS");

    const std::string text = sealscope({"plugins"}).output;
    for (const char* line : {"Sealscope\n", "\n  description TLS Protocol Analyzer\n",
                             "\n  column      TLS Server Name (tlsServerName); filter: ", "\n  attribute   TLS Size (tlsSize, number)\n",
                             "\n  protocol    TLS over tcp, any port\n"})
        EXPECT_THAT(text, testing::HasSubstr(line));
    EXPECT_THAT(sealscope({"plugins"}, {.environment = {"LC_ALL=ja_JP.UTF-8"}}).output, testing::HasSubstr("TLS プロトコルアナライザー"));
}

TEST(PlugInsCommand, NamesABundleThatCannotBeUsedAndGoesOn)
{
    const TempDirectory folder;
    std::filesystem::create_directory(folder.path() / "Broken.bundle");
    const std::string expected = "sealscope: " + folder.file("Broken.bundle") + ": has no module Broken.so\n";
    for (const ProgramResult& result : {sealscope({"plugins", "--plugin-path", folder.path().string()}),
                                        sealscope({"plugins"}, {.environment = {"SEALSCOPE_PLUGIN_PATH=" + folder.path().string()}})}) {
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.errors, expected);
        EXPECT_THAT(result.output, testing::HasSubstr("\nSealscope\n"));
    }
}

}  // namespace sealscope::cli
