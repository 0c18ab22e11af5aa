// SPDX-License-Identifier: Apache-2.0
#include "app/export/Objects.h"
#include "harness/CaptureFile.h"
#include "harness/PacketPath.h"
#include "harness/TCPConversation.h"
#include "harness/TLSSession.h"
#include "harness/TempDirectory.h"
#include "platform/Base64.h"
#include "tests/cli/Program.h"

#include <algorithm>
#include <filesystem>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iterator>

namespace sealscope::cli {

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

std::string reply(std::string_view headers, std::string_view body)
{
    return fmt::format("HTTP/1.1 200 OK\r\nContent-Length: {}\r\n{}\r\n{}", body.size(), headers, body);
}

/// A connection under TLS with two exchanges.
class ExchangesCommand : public testing::Test {
protected:
    ExchangesCommand()
    {
        const TLSSession secured = runTLS({}, {clientSends("GET /a HTTP/1.1\r\nHost: example.org\r\n\r\n"),
                                               serverSends(reply("Content-Type: text/plain\r\n", "first")),
                                               clientSends("POST /b?x=1 HTTP/1.1\r\nHost: example.org\r\nContent-Length: 4\r\n\r\nsent"),
                                               serverSends("HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n")});
        keyLog = directory.write("keys.txt", secured.keyLog);
        capture = directory.write("web.pcap", pcapFile(packets(tcpSegments(secured.flights))));
    }

    ProgramResult run(std::vector<std::string> words)
    {
        words.insert(words.end(), {capture, "-k", keyLog});
        return sealscope(words);
    }

    TempDirectory directory;
    std::string capture;
    std::string keyLog;
};

TEST_F(ExchangesCommand, ListsRequestsWithTheirReplies)
{
    const auto rows = jsonLines(run({"exchanges", "--json"}).output);
    ASSERT_EQ(rows.size(), 2U);
    EXPECT_EQ(rows[0]["protocol"], "HTTP/1.1");
    EXPECT_EQ(rows[0]["request"]["method"], "GET");
    EXPECT_EQ(rows[0]["request"]["url"], "https://example.org/a");
    EXPECT_EQ(rows[0]["request"]["isDecrypted"], true);
    EXPECT_EQ(rows[0]["reply"]["status"], 200);
    EXPECT_EQ(rows[0]["reply"]["bodyBytes"], 5);
    EXPECT_EQ(rows[0]["reply"]["contentType"], "text/plain");
    EXPECT_FALSE(rows[0]["reply"].contains("body"));
    EXPECT_GE(rows[0]["duration"], 0);
    EXPECT_EQ(rows[1]["request"]["url"], "https://example.org/b?x=1");
    EXPECT_EQ(rows[1]["request"]["bodyBytes"], 4);
    EXPECT_EQ(rows[1]["reply"]["status"], 404);
    EXPECT_GE(rows[1]["time"], rows[0]["time"]);

    EXPECT_EQ(jsonLines(run({"exchanges", "--json", "-n", "1"}).output).size(), 1U) << "counts rows, not packets";
    EXPECT_THAT(run({"exchanges"}).output, testing::AllOf(HasSubstr("https://example.org/a"), HasSubstr("404")));

    const ProgramResult closed = sealscope({"exchanges", capture});
    EXPECT_EQ(closed.output, "");
    EXPECT_THAT(closed.errors, HasSubstr("no requests or replies")) << "without the key log";
    EXPECT_EQ(closed.status, 0);
}

TEST_F(ExchangesCommand, ListsThoseOfManyConnectionsByTime)
{
    constexpr int count = 600;
    std::vector<std::vector<PlannedSegment>> connections;
    for (int i = 0; i < count; ++i) {
        TCPConversation conversation({.client = endpoint("192.0.2.1", static_cast<std::uint16_t>(10'000 + i)),
                                      .server = endpoint("192.0.2.2", 80),
                                      .startTime = 1'700'000'000'000'000'000 + std::int64_t{i} * 3'000'000});
        conversation.open();
        conversation.send(TCPSegment::Direction::clientToServer,
                          Data::fromText(fmt::format("GET /{} HTTP/1.1\r\nHost: example.org\r\n\r\n", i)));
        conversation.send(TCPSegment::Direction::serverToClient, Data::fromText(reply("", "body")));
        conversation.close();
        connections.push_back(std::move(conversation.segments));
    }
    const std::string many = directory.write("many.pcap", pcapFile(packets(merged(std::move(connections)))));
    const auto rows = jsonLines(sealscope({"exchanges", "--json", many}).output);
    ASSERT_EQ(rows.size(), std::size_t{count});
    for (int i = 0; i < count; ++i) EXPECT_EQ(rows[static_cast<std::size_t>(i)]["request"]["url"], fmt::format("http://example.org/{}", i));
}

TEST_F(ExchangesCommand, StopsDecodingAtALimitAndSaysSo)
{
    // A thousand letters under gzip (RFC 1952).
    const std::string_view letters("\x1f\x8b\x08\0\0\0\0\0\x02\x03\x4b\x4c\x1c\x05\xa3\x60\x14\x0c\x77\0\0\x03\xda\x38\x9a\xe8\x03\0\0",
                                   29);
    TCPConversation connection({.server = endpoint("192.0.2.2", 80)});
    connection.open();
    connection.send(TCPSegment::Direction::clientToServer, Data::fromText("GET /a HTTP/1.1\r\nHost: h\r\n\r\n"));
    connection.send(TCPSegment::Direction::serverToClient,
                    Data::fromText(reply("Content-Encoding: gzip\r\nContent-Type: text/plain\r\n", letters)));
    const std::string file = directory.write("coded.pcap", pcapFile(packets(connection.segments)));
    const nlohmann::json row{{"name", "Body incomplete"}, {"value", "it decodes to more than the limit of 100 bytes"}};
    const std::string text = "Body incomplete: it decodes to more than the limit of 100 bytes\n", kept(100, 'a');

    const auto cut = jsonLines(sealscope({"exchanges", "--json", "--largest-body", "100", file}).output);
    EXPECT_EQ(cut[0]["reply"]["bodyBytes"], 100);
    EXPECT_THAT(cut[0]["reply"]["detail"], testing::Contains(row));
    const auto told = jsonLines(sealscope({"follow", "--json", "--largest-body", "100", file}).output)[0]["messages"][1];
    EXPECT_EQ(fromBase64(told["body"].get<std::string>())->view().text(), kept);
    EXPECT_THAT(told["detail"], testing::Contains(row));
    EXPECT_THAT(sealscope({"follow", "--largest-body", "100", file}).output, testing::AllOf(HasSubstr(text), HasSubstr(kept + "\n")));
    const std::string folder = directory.file("saved");
    EXPECT_EQ(jsonLines(sealscope({"objects", "--json", "--largest-body", "100", "--output", folder, file}).output)[0]["complete"], false);

    const auto whole = jsonLines(sealscope({"exchanges", "--json", file}).output);
    EXPECT_EQ(whole[0]["reply"]["bodyBytes"], 1'000);
    EXPECT_THAT(whole[0]["reply"]["detail"], testing::Not(testing::Contains(row)));
}

TEST_F(ExchangesCommand, BoundsWhatAllBodiesDecodeTo)
{
    // 40 MiB of zeros under zstd (RFC 8878): 320 blocks of one byte that is repeated 128 Ki times.
    constexpr std::int64_t length = 40 << 20;
    std::string packed("\x28\xB5\x2F\xFD\x00\x58", 6);
    for (int i = 0; i < 320; ++i) packed += std::string_view("\x02\x00\x10\x00", 4);
    packed += std::string_view("\x01\x00\x00", 3);
    TCPConversation connection({.server = endpoint("192.0.2.2", 80)});
    connection.open();
    for (int i = 0; i < 2; ++i) {
        connection.send(TCPSegment::Direction::clientToServer, Data::fromText("GET /a HTTP/1.1\r\nHost: h\r\n\r\n"));
        connection.send(TCPSegment::Direction::serverToClient, Data::fromText(reply("Content-Encoding: zstd\r\n", packed)));
    }
    const Data bytes = pcapFile(packets(connection.segments));
    const std::string file = directory.write("bombs.pcap", bytes);
    const auto rows = jsonLines(sealscope({"exchanges", "--json", file}).output);
    EXPECT_EQ(rows[0]["reply"]["bodyBytes"], length);
    EXPECT_EQ(rows[1]["reply"]["bodyBytes"], (64 << 20) - length + 32 * bytes.size());
    const nlohmann::json row{{"name", "Body incomplete"},
                             {"value", "the bodies of the capture decode to more than is allowed for all of them"}};
    EXPECT_THAT(rows[1]["reply"]["detail"], testing::Contains(row));
    const auto lifted = jsonLines(sealscope({"exchanges", "--json", "--largest-body", "50000000", file}).output);
    EXPECT_EQ(lifted[1]["reply"]["bodyBytes"], length);
}

// More lines wait for connections that began earlier than memory has room for, and some connections are long.
TEST_F(ExchangesCommand, KeepsTheOrderOfTimesOverManyConnections)
{
    constexpr int connections = 24, longOnes = 4, requestsAtOnce = 20;
    const std::string query(800, 'q');
    std::vector<PlannedSegment> segments;
    for (int i = 0; i < connections; ++i) {
        TCPConversation connection({.client = endpoint("192.0.2.1", static_cast<std::uint16_t>(50'000 + i)),
                                    .server = endpoint("192.0.2.2", 80),
                                    .startTime = 1'700'000'000'000'000'000 + i * 1'000,
                                    .segmentSize = 20'000,
                                    .acknowledges = false});
        connection.open();
        for (int round = 0; round < (i < longOnes ? 60 : 30); ++round) {
            std::string requests;
            for (int request = 0; request < requestsAtOnce; ++request)
                requests += fmt::format("GET http://h/{}/{}?{} HTTP/1.1\r\n\r\n", i, round * requestsAtOnce + request, query);
            connection.send(TCPSegment::Direction::clientToServer, Data::fromText(requests));
        }
        std::ranges::move(connection.segments, std::back_inserter(segments));
    }
    std::ranges::stable_sort(segments, {}, &PlannedSegment::time);
    const std::string file = directory.write("many.pcap", pcapFile(packets(segments)));

    std::vector<std::pair<int, int>> expected;  // connection and request
    for (int round = 0; round < 60; ++round)
        for (int i = 0; i < (round < 30 ? connections : longOnes); ++i)
            for (int request = 0; request < requestsAtOnce; ++request) expected.emplace_back(i, round * requestsAtOnce + request);
    const auto told = [&](std::vector<std::string> command, const ProgramOptions& options = {}) {
        const ProgramResult result = sealscope(std::move(command), options);
        EXPECT_EQ(result.status, 0) << result.errors;
        EXPECT_GT(result.output.size(), 14'000'000U) << "it would not be too much for memory";
        std::vector<std::pair<int, int>> pairs;
        for (std::size_t at = 0; (at = result.output.find("http://h/", at)) != std::string::npos;) {
            const std::size_t slash = result.output.find('/', at += 9);
            const std::pair pair(std::stoi(result.output.substr(at, slash - at)), std::stoi(result.output.substr(slash + 1, 6)));
            if (pairs.empty() || pairs.back() != pair) pairs.push_back(pair);
        }
        return pairs;
    };
    EXPECT_TRUE(told({"exchanges", file}) == expected);
    EXPECT_TRUE(told({"exchanges", "--json", file}) == expected);
    // Without a place to wait all are there, and each connection in its order.
    auto unordered = told({"exchanges", "--no-sandbox", file}, {.environment = {"TMPDIR=" + directory.file("no/such/folder")}});
    std::ranges::stable_sort(unordered, {}, &std::pair<int, int>::first);
    std::ranges::sort(expected);
    EXPECT_TRUE(unordered == expected);
}

TEST_F(ExchangesCommand, TellsNoMoreMessagesThanAreWanted)
{
    constexpr int done = 0, failed = 1;
    const std::string har = directory.file("few.har"), folder = directory.file("few");
    const auto told = [&](std::vector<std::string> command, const char* most, int status) {
        command.insert(command.end(), {"--most-messages", most});
        const ProgramResult result = run(command);
        EXPECT_EQ(result.status, status) << command.front();
        EXPECT_EQ(result.errors.contains("more than " + std::string(most) + " messages"), status != 0) << result.errors;
        return jsonLines(result.output);
    };
    EXPECT_EQ(told({"exchanges", "--json"}, "2", failed).size(), 1U);
    EXPECT_EQ(told({"exchanges", "--json"}, "4", done).size(), 2U);
    EXPECT_EQ(told({"exchanges", "--json", "--count", "1"}, "2", done).size(), 1U);
    EXPECT_EQ(told({"follow", "--json"}, "2", failed)[0]["messages"].size(), 2U);
    EXPECT_EQ(told({"objects", "--json", "--output", folder}, "2", failed).size(), 1U);
    EXPECT_EQ(told({"objects", "--json", "--force", "--output", folder}, "4", done).size(), 2U);
    const auto entries = [&] { return nlohmann::json::parse(readFile(har).view().text())["log"]["entries"].size(); };
    told({"export", "har", "--output", har}, "2", failed);
    EXPECT_EQ(entries(), 1U);
    told({"export", "har", "--force", "--output", har}, "4", done);
    EXPECT_EQ(entries(), 2U);
}

TEST_F(ExchangesCommand, SavesObjectsAndReplacesNothing)
{
    const std::string folder = directory.file("saved");
    const auto rows = jsonLines(run({"objects", "--json", "--output", folder}).output);
    ASSERT_EQ(rows.size(), 2U);
    EXPECT_EQ(readFile(std::string(rows[0]["file"])).view().text(), "first");
    EXPECT_EQ(rows[0]["url"], "https://example.org/a");
    EXPECT_EQ(rows[0]["complete"], true);
    EXPECT_EQ(rows[1]["direction"], "clientToServer") << "an upload";
    EXPECT_EQ(readFile(std::string(rows[1]["file"])).view().text(), "sent");

    const auto again = jsonLines(run({"objects", "--json", "--output", folder}).output);
    ASSERT_EQ(again.size(), 2U);
    EXPECT_NE(again[0]["file"], rows[0]["file"]) << "a name that is taken gets a number";
    EXPECT_EQ(jsonLines(run({"objects", "--json", "--force", "--output", folder}).output)[0]["file"], rows[0]["file"]);

    EXPECT_EQ(run({"objects"}).status, 2) << "without a folder";
    EXPECT_EQ(run({"objects", "--output", directory.file("no/such/folder")}).status, 1);
}

TEST_F(ExchangesCommand, ExportsWhatPlugInsOffer)
{
    EXPECT_THAT(sealscope({"export"}).output, HasSubstr("har "));
    const std::string out = directory.file("web.har");
    EXPECT_EQ(run({"export", "har", "--output", out}).status, 0);
    const auto archive = nlohmann::json::parse(readFile(out).view().text());
    ASSERT_EQ(archive["log"]["entries"].size(), 2U);
    EXPECT_EQ(archive["log"]["entries"][0]["response"]["content"]["text"], "first");
    EXPECT_EQ(run({"export", "har", "--output", out}).status, 1) << "it is there already";
    EXPECT_THAT(run({"export", "hra", "--output", out}).errors, HasSubstr("did you mean 'har'?"));
}

}  // namespace

TEST(Objects, MakesNamesFromTheWireSafe)
{
    const std::pair<std::string_view, std::string_view> cases[] = {
        {"index.html", "index.html"},
        {"../../etc/passwd", "_.._etc_passwd"},
        {"..", "object"},
        {"", "object"},
        {".bashrc", "bashrc"},
        {"-rf", "rf"},
        {"a\x1B[31mb\nc", "a_[31mb_c"},
        {"evil\xE2\x80\xAEgpj.exe", "evil_gpj.exe"},
        {"con.txt", "_con.txt"},
        {"COM1", "_COM1"},
        {"COMET", "COMET"},
        {"name. ", "name"},
        {"\xFF", "\xEF\xBF\xBD"},
        {"grüße.txt", "grüße.txt"},
    };
    for (const auto& [name, safe] : cases) EXPECT_EQ(safeFileName(name), safe) << name;
    EXPECT_EQ(safeFileName(std::string(500, 'x')).size(), 200U);
}

}  // namespace sealscope::cli
