// SPDX-License-Identifier: Apache-2.0
#include "harness/CaptureFile.h"
#include "harness/Hex.h"
#include "harness/TLSSession.h"
#include "harness/TempDirectory.h"
#include "platform/Base64.h"
#include "tests/cli/Program.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>

namespace sealscope::cli {

namespace {

using nlohmann::json;

const TLSSession& session()
{
    static const TLSSession made = runTLS({.suites = "TLS_AES_128_GCM_SHA256", .tickets = 0},
                                          {clientSends("GET /\x1B[2J HTTP/1.0\r\n\r\n"), serverSends(Data{0, 1, 2, 0xFF})});
    return made;
}

/// An alert in each direction, 20.25 ms apart.
std::vector<TLSFlight> alerts()
{
    return {{.direction = TCPSegment::Direction::clientToServer, .wire = hex("15 03 03 00 02  01 00"), .plaintext = {}},
            {.direction = TCPSegment::Direction::serverToClient, .wire = hex("15 03 03 00 02  02 28"), .plaintext = {}}};
}

}  // namespace

TEST(FollowCommand, PrintsMessagesAndPairingsAsNDJSON)
{
    const TempDirectory directory;
    const std::string capture = writeCapture(directory, alerts(), {.interval = 20'250'000});
    const auto streams = jsonLines(sealscope({"follow", "--json", capture}).output);
    ASSERT_EQ(streams.size(), 1);
    EXPECT_EQ(streams[0], json::parse(R"json({"stream":0,"messages":[
        {"direction":"clientToServer","kind":"data","summary":"Alert (Warning, 0)",
         "detail":[{"name":"Level","value":"Warning"},{"name":"Description","value":"0"}],"body":null,"bodyHint":null,
         "byteRange":[5,7],"packetIds":[4],"timestamp":1700000000.06075,"filename":null,"isDecrypted":false},
        {"direction":"serverToClient","kind":"data","summary":"Alert (Fatal, 40)",
         "detail":[{"name":"Level","value":"Fatal"},{"name":"Description","value":"40"}],"body":null,"bodyHint":null,
         "byteRange":[5,7],"packetIds":[5],"timestamp":1700000000.081,"filename":null,"isDecrypted":false}],
        "pairings":null})json"));
}

TEST(FollowCommand, ShowsWhatDecrypts)
{
    const TempDirectory directory;
    const std::string capture = writeCapture(directory, session().flights);
    const auto closed = jsonLines(sealscope({"follow", "--json", capture}).output)[0];
    EXPECT_EQ(closed["pairings"][0]["status"], "matched");
    EXPECT_EQ(closed["messages"][closed["pairings"][0]["requestIndex"].get<std::size_t>()]["summary"], "Client Hello (example.org)");
    for (const json& message : closed["messages"]) EXPECT_EQ(message["isDecrypted"], false);

    const std::string keyLog = directory.write("keys.txt", session().keyLog);
    for (const std::vector<std::string>& arguments : {std::vector<std::string>{"follow", "--json", "-k", keyLog, capture},
                                                      {"follow", "--json", "--no-interpreters", "-k", keyLog, capture}}) {
        const auto open = jsonLines(sealscope(arguments).output)[0];
        std::vector<json> decrypted;
        std::ranges::copy_if(open["messages"], std::back_inserter(decrypted),
                             [](const json& message) { return message["isDecrypted"] == true && message["kind"] == "data"; });
        ASSERT_EQ(decrypted.size(), 2);
        EXPECT_EQ(decrypted[0]["direction"], "clientToServer");
        EXPECT_EQ(decrypted[0]["body"], base64(session().clientPlaintext));
        EXPECT_EQ(decrypted[0]["bodyHint"], "text");
        EXPECT_EQ(decrypted[1]["body"], base64(session().serverPlaintext));
        EXPECT_EQ(decrypted[1]["byteRange"], json());
        EXPECT_EQ(open["messages"][open["pairings"][0]["requestIndex"].get<std::size_t>()]["summary"], "Client Hello (example.org)");
    }
}

TEST(FollowCommand, PrintsBodiesOfAnySize)
{
    const TempDirectory directory;
    const Data text = Data::fromText([] {
        std::string lines;
        for (int i = 0; i < 60'000; ++i) lines += "line " + std::to_string(i) + " of a löng text\r\n";
        return lines;
    }());
    const TLSSession large = runTLS({}, {clientSends(patternBytes(1'500'000)), serverSends(text)});
    const std::string capture = writeCapture(directory, large.flights);
    const std::string keyLog = directory.write("keys.txt", large.keyLog);
    const auto streams = jsonLines(sealscope({"follow", "--json", "-k", keyLog, capture}).output);
    ASSERT_EQ(streams.size(), 1);
    std::vector<std::string> bodies;
    for (const json& message : streams[0]["messages"])
        if (!message["body"].is_null()) bodies.push_back(message["body"]);
    EXPECT_TRUE((bodies == std::vector{base64(large.clientPlaintext), base64(large.serverPlaintext)}));

    const std::string shown = sealscope({"follow", "-k", keyLog, capture}).output;
    std::istringstream lines(shown);
    int textLines = 0, byteLines = 0;
    for (std::string line; std::getline(lines, line);) {
        if (line.ends_with("│ line " + std::to_string(textLines) + " of a löng text")) ++textLines;
        if (line.starts_with(fmt::format("{:22}{:>7}  ", "", 16 * byteLines))) ++byteLines;
    }
    EXPECT_EQ(textLines, 60'000);
    EXPECT_EQ(byteLines, 1'500'000 / 16);
    // A terminal gets the beginning, and is told where the rest is to be had.
    const std::string glimpse = sealscopeOnTerminal({"follow", "-k", keyLog, capture}, 100, {"NO_COLOR=1"});
    EXPECT_THAT(glimpse, testing::HasSubstr("… 1495904 more bytes; --bodies prints all of them\n"));
    EXPECT_LT(glimpse.size(), 60'000);
    EXPECT_GT(sealscopeOnTerminal({"follow", "--bodies", "-k", keyLog, capture}, 100, {"NO_COLOR=1"}).size(), 1'500'000U);
}

TEST(FollowCommand, ReadsLikeAConversation)
{
    const TempDirectory directory;
    EXPECT_EQ(sealscope({"follow", writeCapture(directory, alerts(), {.interval = 20'250'000})}).output,
              "stream 0  192.0.2.1:50000 → 192.0.2.2:443  2023-11-14 22:13:20.000000\n"
              "  TLS, 7 bytes sent, 7 received\n"
              "  22:13:20.060750 → Alert (Warning, 0)\n"
              "                      Level: Warning\n"
              "                      Description: 0\n"
              "  22:13:20.081000 ← Alert (Fatal, 40)\n"
              "                      Level: Fatal\n"
              "                      Description: 40\n"
              "\n");

    const std::string capture = writeCapture(directory, session().flights);
    const std::string text = sealscope({"follow", "-k", directory.write("keys.txt", session().keyLog), capture}).output;
    struct Case {
        const char* name;
        std::string lines;
    };
    const Case cases[] = {
        {"the heading", "stream 0  192.0.2.1:50000 → 192.0.2.2:443  2023-11-14 22:13:20.000000\n"
                        "  example.org, TLS 1.3, TLS_AES_128_GCM_SHA256, "},
        {"the answer", "Server Hello (TLS_AES_128_GCM_SHA256)\n"
                       "                      Version: TLS 1.3\n"
                       "                      Cipher Suite: TLS_AES_128_GCM_SHA256\n"
                       "                      Answers: Client Hello (example.org)\n"},
        {"a body that is text but for an escape character",
         "→ Decrypted Application Data (22 bytes)\n"
         "                      TLS: decrypted\n"
         "                            0  47 45 54 20 2f 1b 5b 32 4a 20 48 54 54 50 2f 31  GET /.[2J HTTP/1\n"},
        {"a body that is no text", "← Decrypted Application Data (4 bytes)\n"
                                   "                      TLS: decrypted\n"
                                   "                            0  00 01 02 ff  ....\n"},
    };
    for (const auto& [name, lines] : cases) EXPECT_THAT(text, testing::HasSubstr(lines)) << name;
    EXPECT_EQ(text.find('\x1B'), std::string::npos);
}

TEST(FollowCommand, ShowsTheStreamsThatAreAskedFor)
{
    const TempDirectory directory;
    std::vector<std::vector<PlannedSegment>> conversations;
    for (std::uint16_t i = 0; i < 40; ++i) {
        auto flights = alerts();
        if (i % 2 == 1)
            flights = {{.direction = TCPSegment::Direction::clientToServer, .wire = Data::fromText("plain text"), .plaintext = {}}};
        conversations.push_back(tcpSegments(flights, {.client = endpoint("192.0.2.1", static_cast<std::uint16_t>(50'000 + i)),
                                                      .startTime = 1'700'000'000'000'000'000 + i * 1'000'000'000LL}));
    }
    const std::string capture = directory.write("many.pcap", pcapFile(packets(merged(conversations))));
    const auto all = jsonLines(sealscope({"follow", "--json", capture}).output);
    ASSERT_EQ(all.size(), 20) << "every stream that an interpreter accepts";
    for (std::size_t i = 0; i < all.size(); ++i) EXPECT_EQ(all[i]["stream"], 2 * i) << "in order";

    EXPECT_EQ(jsonLines(sealscope({"follow", "--json", "--stream", "38", "--stream=0", capture}).output), (std::vector{all[0], all[19]}));
    const ProgramResult plain = sealscope({"follow", "--json", "--stream", "1", capture});
    EXPECT_EQ(plain.status, 0);
    EXPECT_EQ(plain.errors, "sealscope: --stream 1: no plug-in recognises what was said in this connection\n");
    EXPECT_EQ(jsonLines(plain.output), std::vector{json::parse(R"({"stream":1,"messages":[],"pairings":null})")});
    const ProgramResult beyond = sealscope({"follow", "--stream", "40", capture});
    EXPECT_EQ(beyond.status, 2);
    EXPECT_EQ(beyond.errors, "sealscope: --stream 40: the capture has 40 TCP connections, numbered 0 to 39\n");
}

TEST(FollowCommand, AFailingPlugInEndsItsOwnStreamsAlone)
{
    const TempDirectory directory;
    std::vector<std::vector<PlannedSegment>> conversations;
    for (std::uint16_t i = 0; i < 3; ++i) {
        auto flights = alerts();
        if (i == 1) flights = {{.direction = TCPSegment::Direction::clientToServer, .wire = Data::fromText("plain text"), .plaintext = {}}};
        conversations.push_back(tcpSegments(flights, {.client = endpoint("192.0.2.1", static_cast<std::uint16_t>(50'000 + i)),
                                                      .startTime = 1'700'000'000'000'000'000 + i * 1'000'000'000LL}));
    }
    const std::string capture = directory.write("three.pcap", pcapFile(packets(merged(conversations))));
    for (const std::string format : {"--json", "--quiet"}) {
        const ProgramResult result =
            sealscope({"follow", format, capture}, {.environment = {std::string("SEALSCOPE_PLUGIN_PATH=") + SEALSCOPE_TEST_BUNDLES}});
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.errors, "sealscope: stream 1: Test could not interpret it: the moon is full\n");
        if (format != "--json") continue;
        const auto lines = jsonLines(result.output);
        ASSERT_EQ(lines.size(), 2u);
        EXPECT_EQ(lines[1]["stream"], 2);
    }
}

TEST(FollowCommand, TellsAStreamOfMoreMessagesThanItHolds)
{
    const TempDirectory directory;
    // The first has a body, since a stream that begins with an empty record is taken for no TLS.
    std::vector<Data> alerts(30'000, hex("15 03 03 00 00"));
    alerts.front() = hex("15 03 03 00 02  01 00");
    const Data many = joined(alerts);
    const std::string capture =
        writeCapture(directory, {{.direction = TCPSegment::Direction::serverToClient, .wire = many, .plaintext = {}}});
    const auto lines = jsonLines(sealscope({"follow", "--json", capture}).output);
    ASSERT_EQ(lines.size(), 1u);
    ASSERT_EQ(lines[0]["messages"].size(), 30'000u);
    // Empty records lie in no packet and have no time, so that they come first.
    EXPECT_EQ(lines[0]["messages"][29'998]["byteRange"], json::parse("[150002,150002]"));
    EXPECT_EQ(lines[0]["messages"][29'999]["byteRange"], json::parse("[5,7]"));
    const std::string text = sealscope({"follow", capture}).output;
    std::size_t shown = 0;
    for (std::size_t at = 0; (at = text.find("Alert", at)) != std::string::npos; ++at) ++shown;
    EXPECT_EQ(shown, 30'000u);
}

TEST(FollowCommand, PairsAConversationOfMoreMessagesThanItHolds)
{
    const TempDirectory directory;
    std::string asked, answered;
    for (int i = 0; i < 6'000; ++i) {
        asked += fmt::format("GET /{} HTTP/1.1\r\n\r\n", i);
        answered += "HTTP/1.1 204 \r\n\r\n";
    }
    const TLSSession made =
        runTLS({.clientProtocols = {"http/1.1"}, .serverProtocols = {"http/1.1"}}, {clientSends(asked), serverSends(answered)});
    const std::string capture = writeCapture(directory, made.flights), keys = directory.write("keys", made.keyLog);
    const auto stream = jsonLines(sealscope({"follow", "--json", "-k", keys, capture}).output)[0];
    const auto& messages = stream["messages"];
    std::size_t paired = 0;
    for (const json& pairing : stream["pairings"]) {
        const std::string summary = messages[pairing["requestIndex"].get<std::size_t>()]["summary"];
        if (!summary.starts_with("GET ")) continue;
        EXPECT_EQ(messages[pairing["replyIndex"].get<std::size_t>()]["summary"], "204 (no body)");
        EXPECT_THAT(summary, testing::EndsWith(fmt::format("/{}", paired++)));
    }
    EXPECT_EQ(paired, 6'000u);
    const std::string text = sealscope({"follow", "-k", keys, capture}).output;
    for (const char* line : {"Answers: GET /0 → 204 (no body", "Answers: GET /5999 → 204 (no body"})
        EXPECT_THAT(text, testing::HasSubstr(line));
}

}  // namespace sealscope::cli
