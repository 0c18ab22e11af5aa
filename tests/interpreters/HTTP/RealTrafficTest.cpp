// SPDX-License-Identifier: Apache-2.0
// Captures of curl and nginx: what the program shows is what they said.
#include "platform/Base64.h"
#include "tests/cli/Program.h"
#include "tests/support/RealCaptures.h"

#include <gtest/gtest.h>
#include <optional>
#include <string>

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

}  // namespace
}  // namespace sealscope
