// SPDX-License-Identifier: Apache-2.0
// Captures of real clients and servers: what the program shows is what they said.
#include "harness/TempDirectory.h"
#include "platform/Base64.h"
#include "tests/cli/Program.h"
#include "tests/support/RealCaptures.h"

#include <algorithm>
#include <filesystem>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <optional>
#include <string>
#include <vector>

namespace sealscope {
namespace {

TEST(RealTraffic, ShowsRequestsAndBodiesAsTheyWereSent)
{
    int found = 0;
    for (const RealCapture& capture : realCaptures(SEALSCOPE_SOURCE_DIR)) {
        if (!capture.name.starts_with("nginx-http")) continue;
        ++found;
        const auto streams = cli::jsonLines(cli::sealscope({"follow", "--json", "-k", capture.keyLog, capture.capture}).output);
        ASSERT_EQ(streams.size(), 1U) << capture.name;

        // Header lines and bodies of the replies, put together again, are what the server wrote.
        std::string requests, replies;
        std::optional<std::string> hello;
        for (const auto& message : streams[0].at("messages")) {
            const std::string body =
                message.at("body").is_null() ? "" : std::string(fromBase64(message.at("body").get<std::string>())->view().text());
            if (message.at("filename") == "hello.txt") hello = body;
            if (message.at("kind") != "request" && message.at("kind") != "reply") continue;
            std::string& text = message.at("kind") == "request" ? requests : replies;
            const std::string summary = message.at("summary");
            text += message.at("kind") == "request" ? "GET " + summary.substr(summary.find("org/") + 3) + " HTTP/1.1\r\n"
                                                    : "HTTP/1.1 " + summary.substr(0, 3) + " OK\r\n";
            for (const auto& row : message.at("detail"))
                if (row.at("name") != "TLS") text += row.at("name").get<std::string>() + ": " + row.at("value").get<std::string>() + "\r\n";
            text += "\r\n" + body;
        }
        EXPECT_EQ(hello, "Hello from nginx.\n") << capture.name;
        const auto& server = capture.side(0, TCPSegment::Direction::serverToClient).sent;
        if (server) { EXPECT_EQ(replies, server->view().text()) << capture.name; }
        const auto& client = capture.side(0, TCPSegment::Direction::clientToServer).sent;
        if (client) { EXPECT_EQ(requests, client->view().text()) << capture.name; }
    }
    EXPECT_EQ(found, 3) << "HTTP/1.1 over TLS 1.3 and 1.2, and HTTP/2";
}

/// A line for each exchange and each message that the programs recorded: method, URL, status and bodies; "-" where the record has none.
std::vector<std::string> recorded(const std::filesystem::path& file, std::vector<std::string>& messages)
{
    std::vector<std::string> lines;
    for (const auto& one : cli::jsonLines(std::string(readFile(file).view().text()))) {
        const auto text = [&](const char* key) { return one[key].is_null() ? "-" : one[key].get<std::string>(); };
        if (one.contains("method")) {
            std::string& line = lines.emplace_back(fmt::format("{} {} {} {} {}", text("method"), text("url"), one["status"].get<int>(), text("reply"), text("sent")));
            if (one.contains("grpcStatus")) line += fmt::format(" grpc {} {}", one["grpcStatus"].get<int>(), text("grpcMessage"));
        } else if (one.contains("grpc")) {
            messages.push_back(fmt::format("grpc \"{}\" {}", text("grpc"), one["number"].get<int>()));
        } else {
            messages.push_back(fmt::format("{} {}", one.contains("event") ? text("event") : text("direction"), text("text")));
        }
    }
    return lines;
}

std::string bodyOf(const nlohmann::json& message)
{
    return message["body"].is_null() ? "" : std::string(fromBase64(message["body"].get<std::string>())->view().text());
}

std::string rowOf(const nlohmann::json& message, std::string_view name)
{
    for (const auto& row : message["detail"])
        if (row["name"] == name) return row["value"];
    return {};
}

TEST(RealTraffic, IsWhatServersAndClientsRecorded)
{
    int found = 0;
    for (const auto& entry : std::filesystem::directory_iterator(std::filesystem::path(SEALSCOPE_SOURCE_DIR) / "tests/captures/web")) {
        ++found;
        std::vector<std::string> messages, shownMessages, shown;
        const auto lines = recorded(entry.path() / "exchanges.json", messages);
        std::vector<std::string> arguments{"follow", "--json", entry.path() / "capture.pcap"};
        if (const auto keyLog = entry.path() / "keylog.txt"; std::filesystem::file_size(keyLog) > 0) arguments.insert(arguments.end(), {"-k", keyLog});
        for (const auto& stream : cli::jsonLines(cli::sealscope(arguments).output)) {
            for (const auto& message : stream["messages"]) {
                const auto attributes = message.value("attributes", nlohmann::json::object());
                const std::string protocol = attributes.value("protocol", "");
                if (message["kind"] != "data") continue;
                if (protocol == "gRPC")
                    shownMessages.push_back(fmt::format("grpc {} {}", rowOf(message, "Field 1 (length-delimited)"), rowOf(message, "Field 2 (varint)")));
                else if (protocol == "Server-sent events")
                    shownMessages.push_back(fmt::format("{} {}", attributes["eventType"].get<std::string>(), bodyOf(message)));
                else if (protocol == "WebSocket" && attributes["websocketOpcode"] == 1)
                    shownMessages.push_back(fmt::format("{} {}", message["direction"].get<std::string>(), bodyOf(message)));
            }
            for (const auto& pairing : stream["pairings"].is_null() ? nlohmann::json::array() : stream["pairings"]) {
                const auto& request = stream["messages"][pairing["requestIndex"].get<std::size_t>()];
                if (request["kind"] != "request") continue;
                ASSERT_FALSE(pairing["replyIndex"].is_null()) << entry.path();
                const auto& reply = stream["messages"][pairing["replyIndex"].get<std::size_t>()];
                const auto &asked = request["attributes"], &answered = reply["attributes"];
                // Where the record has no body the line is compared without.
                std::string line = fmt::format("{} {} {}", asked["method"].get<std::string>(), asked["url"].get<std::string>(), answered["status"].get<int>());
                const auto known = std::ranges::find_if(lines, [&](const std::string& one) { return one.starts_with(line + ' '); });
                const bool hasReply = known == lines.end() || !std::string_view(*known).substr(line.size()).starts_with(" - ");
                const bool hasSent = known == lines.end() || !(known->ends_with(" -") || known->contains(" - grpc"));
                line += fmt::format(" {} {}", hasReply ? bodyOf(reply) : "-", hasSent ? bodyOf(request) : "-");
                if (answered.contains("grpcStatus"))
                    line += fmt::format(" grpc {} {}", answered["grpcStatus"].get<int>(), answered.value("grpcMessage", "-"));
                shown.push_back(line);
            }
        }
        EXPECT_THAT(shown, testing::UnorderedElementsAreArray(lines)) << entry.path();
        EXPECT_THAT(shownMessages, testing::UnorderedElementsAreArray(messages)) << entry.path();
    }
    EXPECT_GE(found, 6);
}

TEST(RealTraffic, MakesArchivesThatAnIndependentReaderTakes)
{
    namespace fs = std::filesystem;
    const fs::path tests = fs::path(SEALSCOPE_SOURCE_DIR) / "tests";
    const ProgramOptions withPackages{.environment = {"NODE_PATH=/usr/share/nodejs"}};
    if (runProgram({"/bin/sh", "-c", "command -v node && node -e 'require(\"har-validator\")'"}, withPackages).status != 0)
        GTEST_SKIP() << "needs node-har-validator";

    const TempDirectory directory;
    // An archive that lacks what every archive has shows that the reader looks.
    std::vector<std::string> archives{directory.write("broken.har", R"({"log":{"version":"1.2","creator":{"name":"a","version":"1"}}})")};
    std::size_t entries = 0;
    for (const fs::path& folder : {tests / "captures", tests / "captures/web"})
        for (const auto& entry : fs::directory_iterator(folder)) {
            if (!fs::exists(entry.path() / "capture.pcap")) continue;
            archives.push_back((fs::path(directory.path()) / entry.path().filename()).string() + ".har");
            const auto made = cli::sealscope({"export", "har", "-k", entry.path() / "keylog.txt", entry.path() / "capture.pcap", "--output", archives.back()});
            ASSERT_EQ(made.status, 0) << made.errors;
            entries += nlohmann::json::parse(readFile(archives.back()).view().text())["log"]["entries"].size();
        }
    EXPECT_GE(entries, 20U);
    std::vector<std::string> arguments{"node", tests / "interpreters/HTTP/validate-har.js"};
    arguments.insert(arguments.end(), archives.begin(), archives.end());
    const std::string said = runProgram(arguments, withPackages).output;
    std::string expected;
    for (std::size_t i = 1; i < archives.size(); ++i) expected += "ok\n";
    EXPECT_EQ(said.substr(std::min(said.find('\n') + 1, said.size())), expected);
    EXPECT_THAT(said, testing::Not(testing::StartsWith("ok")));
    EXPECT_THAT(said, testing::HasSubstr("entries"));
}

}  // namespace
}  // namespace sealscope
