// SPDX-License-Identifier: Apache-2.0
#include "harness/CaptureFile.h"
#include "harness/Hex.h"
#include "harness/TLSSession.h"
#include "harness/TempDirectory.h"
#include "tests/cli/Program.h"

#include <algorithm>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace sealscope::cli {

namespace {

using nlohmann::json;

TLSFlight fromClient(Data wire) { return {.direction = TCPSegment::Direction::clientToServer, .wire = std::move(wire), .plaintext = {}}; }
TLSFlight fromServer(Data wire) { return {.direction = TCPSegment::Direction::serverToClient, .wire = std::move(wire), .plaintext = {}}; }

const Data alert = hex("15 03 03 00 02  02 28");
const Data changeCipherSpec = hex("14 03 01 00 01  01");
const Data httpRequest = Data::fromText("GET / HTTP/1.0\r\n\r\n");

/// A Client Hello record with a server name of any bytes.
Data clientHello(std::string_view serverName)
{
    const auto size = static_cast<std::uint8_t>(serverName.size());
    const auto u8 = [](std::size_t value) { return Data{static_cast<std::uint8_t>(value)}; };
    const Data extension =
        joined({hex("00 00 00"), u8(size + 5U), hex("00"), u8(size + 3U), hex("00 00"), u8(size), Data::fromText(serverName)});
    const Data body = joined(
        {hex("03 03"), patternBytes(32), hex("00  00 02 13 01  01 00  00"), u8(static_cast<std::size_t>(extension.size())), extension});
    const auto length = static_cast<std::size_t>(body.size());
    return joined({hex("16 03 01 00"), u8(length + 4), hex("01 00 00"), u8(length), body});
}

/// The infos of the rows, each behind its packet's number.
std::vector<std::string> infos(const ProgramResult& result)
{
    std::vector<std::string> rows;
    for (const json& row : jsonLines(result.output))
        rows.push_back(std::to_string(row["number"].get<int>()) + ' ' + row["info"].get<std::string>());
    return rows;
}

using testing::ElementsAre;

}  // namespace

TEST(PacketsCommand, PrintsARowForEachPayloadThatAnAnalyzerTakes)
{
    const TempDirectory directory;
    const std::string capture = writeCapture(directory, {fromClient(clientHello("example.org")), fromServer(httpRequest), fromServer(alert)},
                                      {.startTime = 1'700'000'000'250'000'000, .interval = 500'000});
    const ProgramResult result = sealscope({"packets", "--json", capture});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.errors, "");
    const auto rows = jsonLines(result.output);
    ASSERT_EQ(rows.size(), 2);
    const auto size = clientHello("example.org").size();
    EXPECT_EQ(rows[0], json::parse(R"json({"number":4,"time":1700000000.2515,"source":"192.0.2.1:50000","destination":"192.0.2.2:443",
        "tlsServerName":"example.org","tlsVersion":"TLS 1.0","tlsSize":)json" +
                                   std::to_string(size) + R"json(,
        "info":"TLS 1.0: Client Hello (example.org)"})json"));
    EXPECT_EQ(rows[1]["source"], "192.0.2.2:443");
    EXPECT_EQ(rows[1]["tlsServerName"], json());
    EXPECT_EQ(rows[1]["info"], "TLS 1.2: Alert (Fatal, 40)");
    EXPECT_TRUE(rows[1]["time"].is_number_float());
}

TEST(PacketsCommand, WritesIPv6EndpointsInBrackets)
{
    const TempDirectory directory;
    const std::string capture =
        writeCapture(directory, {fromServer(alert)}, {.client = endpoint("2001:db8::1", 50'000), .server = endpoint("2001:db8::2", 443)});
    const auto rows = jsonLines(sealscope({"packets", "--json", capture}).output);
    ASSERT_EQ(rows.size(), 1);
    EXPECT_EQ(rows[0]["source"], "[2001:db8::2]:443");
    EXPECT_EQ(rows[0]["destination"], "[2001:db8::1]:50000");
}

TEST(PacketsCommand, CountsPacketsOverSeveralFilesInTheOrderOfTheirTimes)
{
    const TempDirectory directory;
    const std::string second =
        directory.write("second.pcap", pcapFile(packets(tcpSegments({fromClient(alert)}, {.startTime = 2'000'000'000}))));
    const std::string third = directory.write("third.pcap", pcapFile(packets(tcpSegments({fromClient(changeCipherSpec)}))));
    const std::string first =
        directory.write("first.pcap", pcapFile(packets(tcpSegments({fromClient(changeCipherSpec)}, {.startTime = 1'000'000'000}))));
    const ProgramResult result = sealscope({"packets", "--json", third, second, first});
    EXPECT_THAT(infos(result),
                ElementsAre("4 TLS 1.0: Change Cipher Spec", "12 TLS 1.2: Alert (Fatal, 40)", "20 TLS 1.0: Change Cipher Spec"));
}

TEST(PacketsCommand, KeepsNumbersUnderAFilterAndStopsAfterACount)
{
    const TempDirectory directory;
    const std::string capture = writeCapture(directory, {fromClient(changeCipherSpec), fromServer(alert), fromClient(alert)});
    EXPECT_THAT(infos(sealscope({"packets", "--json", capture})),
                ElementsAre("4 TLS 1.0: Change Cipher Spec", "5 TLS 1.2: Alert (Fatal, 40)", "6 TLS 1.2: Alert (Fatal, 40)"));
    EXPECT_THAT(infos(sealscope({"packets", "--json", "-f", "src port 443", capture})), ElementsAre("5 TLS 1.2: Alert (Fatal, 40)"));
    EXPECT_THAT(infos(sealscope({"packets", "--json", "-n", "4", capture})), ElementsAre("4 TLS 1.0: Change Cipher Spec"));
    EXPECT_THAT(infos(sealscope({"packets", "--json", "-n", "2", "-f", "src port 443 and tcp[tcpflags] & tcp-push != 0", capture})),
                ElementsAre("5 TLS 1.2: Alert (Fatal, 40)"));
}

TEST(PacketsCommand, PrintsWhatStandsBeforeTheDamage)
{
    const TempDirectory directory;
    const Data whole = readFile(writeCapture(directory, {fromClient(changeCipherSpec), fromServer(alert)}));
    struct Case {
        const char* name;
        Data file;
        std::size_t rows;
        const char* reason;  ///< part of the message
    };
    const Case cases[] = {
        {"nothing.pcap", Data(), 0, "empty"},
        {"text.pcap", Data::fromText("this is no capture file at all, but a text"), 0, "capture"},
        {"cut.pcap", whole.sub(0, whole.size() - 70 * 5 - 3), 1, "packets before it were read"},
    };
    for (const auto& [name, file, rows, reason] : cases) {
        const std::string path = directory.write(name, file);
        const ProgramResult result = sealscope({"packets", "--json", path});
        EXPECT_EQ(result.status, 1) << name;
        EXPECT_EQ(jsonLines(result.output).size(), rows) << name;
        EXPECT_TRUE(result.errors.starts_with("sealscope: " + path + ": ")) << result.errors;
        EXPECT_NE(result.errors.find(reason), std::string::npos) << result.errors;
        EXPECT_EQ(std::ranges::count(result.errors, '\n'), 1) << result.errors;
    }
    EXPECT_EQ(sealscope({"packets", directory.path().string()}).errors, "sealscope: " + directory.path().string() + ": is a directory\n");
    const ProgramResult missing = sealscope({"packets", directory.file("missing.pcap")});
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.errors, "sealscope: " + directory.file("missing.pcap") + ": No such file or directory\n");
    // One file that is damaged takes nothing from the others.
    const ProgramResult two = sealscope({"packets", "--json", directory.file("cut.pcap"), directory.file("capture.pcap")});
    EXPECT_EQ(two.status, 1);
    EXPECT_EQ(jsonLines(two.output).size(), 3);
}

TEST(PacketsCommand, NamesLinkTypesThatItDoesNotKnow)
{
    const TempDirectory directory;
    std::vector<CapturePacket> all = packets(tcpSegments({fromClient(alert)}));
    for (CapturePacket& packet : all) packet.linkType = 147;
    const ProgramResult nothing = sealscope({"packets", directory.write("other.pcap", pcapFile(all))});
    EXPECT_EQ(nothing.status, 1);
    EXPECT_EQ(nothing.errors,
              "sealscope: " + directory.file("other.pcap") + ": link type 147 is not known; 8 packets of it could not be read\n");

    std::vector<CapturePacket> some = packets(tcpSegments({fromClient(alert)}));
    some[1].linkType = 147;
    const std::string mixed = directory.write("mixed.pcapng", pcapngFile(some));
    const ProgramResult rest = sealscope({"packets", "--json", mixed});
    EXPECT_EQ(rest.status, 0);
    EXPECT_EQ(rest.errors, "sealscope: " + mixed + ": link type 147 is not known; 1 packet of it could not be read\n");
    EXPECT_THAT(infos(rest), ElementsAre("4 TLS 1.2: Alert (Fatal, 40)"));
    EXPECT_EQ(sealscope({"packets", "-q", mixed}).errors, "");

    // Of many types the most frequent ones, and one line for all others.
    for (std::uint32_t i = 0; i < 300; ++i) some.push_back({.time = some[0].time, .frame = some[0].frame, .linkType = 1'000 + i % 60});
    const std::string many = sealscope({"packets", directory.write("many.pcapng", pcapngFile(some))}).errors;
    EXPECT_EQ(std::ranges::count(many, '\n'), 5);
    EXPECT_THAT(many, testing::HasSubstr("57 more link types are not known; 281 packets of them could not be read\n"));
}

TEST(PacketsCommand, ReadsStandardInputAsItComes)
{
    const TempDirectory directory;
    const std::string capture = writeCapture(directory, {fromClient(changeCipherSpec), fromServer(alert)});
    const ProgramResult piped = sealscope({"packets", "--json", "-"}, {.input = std::string(readFile(capture).view().text())});
    EXPECT_EQ(piped.status, 0);
    EXPECT_EQ(piped.output, sealscope({"packets", "--json", capture}).output);
}

TEST(PacketsCommand, PrintsTheSameRowsWhateverTheirNumber)
{
    // Enough for several packs of rows on their way through the threads.
    const TempDirectory directory;
    std::vector<TLSFlight> flights;
    for (int i = 0; i < 3'000; ++i)
        flights.push_back(i % 2 == 0 ? fromClient(joined({alert, patternBytes(i)})) : fromServer(changeCipherSpec));
    const std::string capture = writeCapture(directory, flights, {.segmentSize = 65'000});
    const ProgramResult result = sealscope({"packets", "--json", capture});
    const auto rows = jsonLines(result.output);
    ASSERT_EQ(rows.size(), flights.size());
    for (std::size_t i = 0; i < rows.size(); ++i) {
        ASSERT_EQ(rows[i]["tlsSize"], flights[i].wire.size()) << i;
        ASSERT_TRUE(i == 0 || rows[i]["number"] > rows[i - 1]["number"]) << i;
    }
    const std::string text = sealscope({"packets", capture}).output;
    EXPECT_EQ(std::ranges::count(text, '\n'), std::ssize(flights) + 1);
}

TEST(PacketsCommand, LaysTextOutInColumnsThatGrow)
{
    const TempDirectory directory;
    const std::string capture = writeCapture(directory, {fromClient(clientHello("例え.example")), fromServer(alert)}, {.interval = 20'250'000});
    EXPECT_EQ(sealscope({"packets", capture}).output,
              " No.  Time             Source           Destination      TLS Server Name  Info\n"
              "   4  22:13:20.060750  192.0.2.1:50000  192.0.2.2:443    例え.example     TLS 1.0: Client Hello (例え.example)\n"
              "   5  22:13:20.081000  192.0.2.2:443    192.0.2.1:50000                   TLS 1.2: Alert (Fatal, 40)\n");
}

TEST(PacketsCommand, ShowsHostileNamesInsteadOfObeyingThem)
{
    const TempDirectory directory;
    const std::string capture = writeCapture(directory, {fromClient(clientHello("\x1B]0;gotcha\x07\u202Egro.elpmaxe\r\n"))});
    const std::string name = "\\x1B]0;gotcha\\x07\\u{202E}gro.elpmaxe\\r\\n";
    for (const std::string& text :
         {sealscope({"packets", capture}).output, sealscope({"tree", capture}).output, sealscope({"follow", capture}).output,
          sealscopeOnTerminal({"packets", capture}, 250, {"NO_COLOR=1"})}) {
        EXPECT_NE(text.find(name), std::string::npos) << text;
        for (const char* obeyed : {"\x1B", "\x07", "\u202E"}) EXPECT_EQ(text.find(obeyed), std::string::npos) << text;
    }
    EXPECT_EQ(jsonLines(sealscope({"packets", "--json", capture}).output)[0]["tlsServerName"], "\x1B]0;gotcha\x07\u202Egro.elpmaxe\r\n");
}

TEST(PacketsCommand, FitsTheTerminal)
{
    const TempDirectory directory;
    const std::string capture = writeCapture(directory, {fromClient(clientHello("a-rather-long-name.of-a-host.in-some-department.example.org"))});
    struct Case {
        int columns;
        std::string row;
    };
    const Case cases[] = {
        {120, "   4  22:13:20.003000  192.0.2.1:50000  192.0.2.2:443  a-rather-long-name.of-a-host.in…  TLS 1.0: Client Hello (a-rathe…"},
        {80, "   4  22:13:20.003  192.0.2.1:50000  192.0.2.2:443  a-rather-…  TLS 1.0: Client…"},
        {60, "   4  22:13:20.003  192.0.2.…  192.0.2.…  a-rat…  TLS 1.0: …"},
    };
    for (const auto& [columns, row] : cases) {
        const std::string shown = sealscopeOnTerminal({"packets", capture}, columns, {"NO_COLOR=1"});
        const std::string second = shown.substr(shown.find('\n') + 1);
        EXPECT_EQ(second, row + '\n');
    }
}

TEST(PacketsCommand, ColorsWhereThatIsWanted)
{
    const TempDirectory directory;
    const std::string capture = writeCapture(directory, {fromClient(alert)});
    struct Case {
        const char* name;
        std::vector<std::string> arguments;
        std::vector<std::string> environment;
        bool isTerminal;
        bool hasColors;
    };
    const Case cases[] = {
        {"a terminal", {}, {}, true, true},
        {"a pipe", {}, {}, false, false},
        {"NO_COLOR", {}, {"NO_COLOR=1"}, true, false},
        {"an empty NO_COLOR", {}, {"NO_COLOR="}, true, true},
        {"a dumb terminal", {}, {"TERM=dumb"}, true, false},
        {"CLICOLOR_FORCE on a pipe", {}, {"CLICOLOR_FORCE=1"}, false, true},
        {"--color over the environment", {"--color", "always"}, {"NO_COLOR=1"}, false, true},
        {"--color never", {"--color=never"}, {"CLICOLOR_FORCE=1"}, true, false},
    };
    for (const auto& [name, arguments, environment, isTerminal, hasColors] : cases) {
        std::vector<std::string> all{"packets", capture};
        all.insert(all.end(), arguments.begin(), arguments.end());
        const std::string shown =
            isTerminal ? sealscopeOnTerminal(all, 100, environment) : sealscope(all, {.environment = environment}).output;
        EXPECT_EQ(shown.find("\x1B[") != std::string::npos, hasColors) << name;
        EXPECT_NE(shown.find("Alert (Fatal, 40)"), std::string::npos) << name;
    }
}

TEST(PacketsCommand, EndsQuietlyWhenNobodyReadsAndToldWhenTheDiskIsFull)
{
    const TempDirectory directory;
    std::vector<TLSFlight> flights(5'000, fromClient(alert));
    const std::string capture = writeCapture(directory, flights, {.acknowledges = false});
    const std::string program = SEALSCOPE_PROGRAM;
    const ProgramResult closed = runProgram({"sh", "-c", "{ " + program + " packets " + capture + "; echo $? >&2; } | head -n 1"});
    EXPECT_EQ(std::ranges::count(closed.output, '\n'), 1);
    EXPECT_EQ(closed.errors, "0\n");
    const ProgramResult full = runProgram({"sh", "-c", program + " packets " + capture + " > /dev/full"});
    EXPECT_EQ(full.status, 1);
    EXPECT_EQ(full.errors, "sealscope: standard output: No space left on device\n");
}

TEST(TreeCommand, PrintsFieldsWithTheirPlaces)
{
    const TempDirectory directory;
    const std::string capture = writeCapture(directory, {fromClient(changeCipherSpec), fromServer(alert)});
    EXPECT_EQ(sealscope({"tree", "--packet", "5", capture}).output,
              "packet 5  2023-11-14 22:13:20.004000  192.0.2.2:443 → 192.0.2.1:50000  TLS 1.2: Alert (Fatal, 40)\n"
              " offset  bytes  field\n"
              "      0      7  TLS\n"
              "      0      7    TLS Record\n"
              "      0      1      Content Type: Alert (0x15)\n"
              "      1      2      Version: TLS 1.2 (0x0303)\n"
              "      3      2      Length: 2\n"
              "      5      2      Alert\n"
              "      5      1        Level: Fatal (2)\n"
              "      6      1        Description: 40\n");
    const std::string bytes = sealscope({"tree", "--packet", "5", "--hex", capture}).output;
    EXPECT_NE(bytes.find("      1      2      Version: TLS 1.2 (0x0303)\n"
                         "      1               03 03  ..\n"),
              std::string::npos)
        << bytes;
    const auto trees = jsonLines(sealscope({"tree", "--json", capture}).output);
    ASSERT_EQ(trees.size(), 2);
    EXPECT_EQ(trees[0]["number"], 4);
    const json& record = trees[1]["nodes"][0]["children"][0];
    EXPECT_EQ(record["name"], "TLS Record");
    EXPECT_FALSE(record.contains("value"));
    EXPECT_EQ(record["children"][1],
              json::parse(R"json({"name":"Version","value":"TLS 1.2 (0x0303)","location":1,"length":2,"children":[]})json"));
}

TEST(TreeCommand, SaysWhyAPacketHasNoTree)
{
    const TempDirectory directory;
    const std::string capture = writeCapture(directory, {fromClient(httpRequest), fromServer(alert)});
    struct Case {
        std::vector<std::string> arguments;
        int status;
        const char* message;
    };
    const Case cases[] = {
        {{"--packet", "1"}, 0, "--packet 1: this packet carries no TCP payload"},
        {{"--packet", "4"}, 0, "--packet 4: no plug-in recognises the payload of this packet"},
        {{"--packet", "5", "-f", "src port 50000"}, 0, "--packet 5: the filter does not pass this packet"},
        {{"--packet", "12"}, 2, "--packet 12: the capture has 9 packets, numbered from 1"},
    };
    for (const auto& [arguments, status, message] : cases) {
        std::vector<std::string> all{"tree", "--json", capture};
        all.insert(all.end(), arguments.begin(), arguments.end());
        const ProgramResult result = sealscope(all);
        EXPECT_EQ(result.status, status) << message;
        EXPECT_EQ(result.output, "");
        EXPECT_EQ(result.errors, std::string("sealscope: ") + message + '\n');
    }
}

}  // namespace sealscope::cli
