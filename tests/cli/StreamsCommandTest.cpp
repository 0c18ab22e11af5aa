// SPDX-License-Identifier: Apache-2.0
#include "harness/CaptureFile.h"
#include "harness/Hex.h"
#include "harness/TLSSession.h"
#include "harness/TempDirectory.h"
#include "tests/cli/Program.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>

namespace sealscope::cli {

namespace {

using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;

const TLSSession& tls13()
{
    static const TLSSession session = runTLS({.suites = "TLS_AES_128_GCM_SHA256"}, {clientSends("ping"), serverSends("pong pong")});
    return session;
}
const TLSSession& tls12()
{
    static const TLSSession session =
        runTLS({.version = 0x0303, .suites = "ECDHE-RSA-AES128-GCM-SHA256", .seed = 2}, {clientSends("ping"), serverSends("pong pong")});
    return session;
}

std::vector<TLSFlight> plainText()
{
    return {{.direction = TCPSegment::Direction::clientToServer, .wire = Data::fromText("GET / HTTP/1.0\r\n\r\n"), .plaintext = {}}};
}

/// Lines of a key log with a label.
std::string linesOf(const std::string& keyLog, std::string_view label)
{
    std::string lines;
    std::istringstream stream(keyLog);
    for (std::string line; std::getline(stream, line);)
        if (line.starts_with(std::string(label) + ' ')) lines += line + '\n';
    return lines;
}

/// The last digit of each line changed.
std::string spoilt(std::string keyLog)
{
    for (std::size_t i = 1; i < keyLog.size(); ++i)
        if (keyLog[i] == '\n') keyLog[i - 1] = keyLog[i - 1] == '0' ? '1' : '0';
    return keyLog;
}

std::string write(const TempDirectory& directory, std::string_view name, const std::vector<std::vector<TLSFlight>>& conversations)
{
    std::vector<std::vector<PlannedSegment>> all;
    std::uint16_t port = 50'000;
    std::int64_t start = 1'700'000'000'000'000'000;
    for (const auto& flights : conversations) {
        all.push_back(tcpSegments(flights, {.client = endpoint("192.0.2.1", port++), .startTime = start}));
        start += 500'000'000;
    }
    return directory.write(name, pcapFile(packets(merged(all))));
}

std::vector<std::string> verdicts(const ProgramResult& result)
{
    std::vector<std::string> names;
    for (const json& row : jsonLines(result.output)) names.push_back(row["verdict"].is_null() ? "-" : row["verdict"].get<std::string>());
    return names;
}

}  // namespace

TEST(StreamsCommand, PrintsARowForEveryConnection)
{
    const TempDirectory directory;
    const std::string capture = write(directory, "capture.pcap", {tls13().flights, plainText()});
    const std::string keyLog = directory.write("keys.txt", tls13().keyLog);
    const ProgramResult result = sealscope({"streams", "--json", "--keylog", keyLog, capture});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.errors, "");
    const auto rows = jsonLines(result.output);
    ASSERT_EQ(rows.size(), 2);
    const json& first = rows[0];
    EXPECT_EQ(first["stream"], 0);
    EXPECT_EQ(first["client"], "192.0.2.1:50000");
    EXPECT_EQ(first["server"], "192.0.2.2:443");
    EXPECT_EQ(first["clientBytes"], tls13().wire(TCPSegment::Direction::clientToServer).size());
    EXPECT_EQ(first["serverBytes"], tls13().wire(TCPSegment::Direction::serverToClient).size());
    EXPECT_EQ(first["missingBytes"], 0);
    EXPECT_EQ(first["startTime"], 1'700'000'000.0);
    EXPECT_TRUE(first["startTime"].is_number_float());
    EXPECT_GT(first["endTime"], first["startTime"]);
    EXPECT_EQ(first["canInterpret"], true);
    EXPECT_EQ(first["verdict"], "decrypted");
    EXPECT_EQ(first["reason"]["client"]["plaintextBytes"], 4);
    EXPECT_EQ(first["reason"]["server"]["plaintextBytes"], 9);
    EXPECT_EQ(rows[1]["stream"], 1);
    EXPECT_EQ(rows[1]["startTime"], 1'700'000'000.5);
    EXPECT_EQ(rows[1]["canInterpret"], false);
    EXPECT_EQ(rows[1]["verdict"], json());
    EXPECT_EQ(rows[1]["reason"], json());

    EXPECT_EQ(jsonLines(sealscope({"streams", "--json", "--stream", "1", "--keylog", keyLog, capture}).output), std::vector{rows[1]});
}

TEST(StreamsCommand, SaysWhyAStreamDoesNotDecrypt)
{
    const TempDirectory directory;
    const TLSSession old = runTLS({.version = 0x0301}, {clientSends("ping")});
    const std::vector<TLSFlight> late(tls13().flights.begin() + 2, tls13().flights.end());
    const std::string ours = tls13().keyLog;
    const std::string theirs = tls12().keyLog;
    struct Case {
        const char* name;
        std::vector<TLSFlight> flights;
        std::string keyLog;
        const char* verdict;
        std::string sentence;  ///< part of it
    };
    const Case cases[] = {
        {"the right log", tls13().flights, ours, "decrypted", "client 2 of 2 records, 4 bytes; server "},
        {"no line for it", tls13().flights, theirs, "noKeyMaterial", "its 1 other all come from other captures"},
        {"handshake secrets alone", tls13().flights,
         linesOf(ours, "CLIENT_HANDSHAKE_TRAFFIC_SECRET") + linesOf(ours, "SERVER_HANDSHAKE_TRAFFIC_SECRET"), "noKeyMaterial",
         "the key log has only CLIENT_HANDSHAKE_TRAFFIC_SECRET, SERVER_HANDSHAKE_TRAFFIC_SECRET for this connection; TLS 1.3 needs "
         "CLIENT_TRAFFIC_SECRET_0, SERVER_TRAFFIC_SECRET_0"},
        {"another secret", tls12().flights, spoilt(theirs), "keyMismatch", "the key log's secrets do not open this connection"},
        {"a version too old", old.flights, old.keyLog, "unsupportedVersion", "TLS 1.0 is not supported for decryption"},
    };
    for (const auto& [name, flights, keyLog, verdict, sentence] : cases) {
        const std::string capture = write(directory, "capture.pcap", {flights});
        const ProgramResult result =
            sealscope({"streams", "--json", "--reach", "strict", "-k", directory.write("keys.txt", keyLog), capture});
        EXPECT_EQ(result.status, 0) << name;
        const auto rows = jsonLines(result.output);
        ASSERT_EQ(rows.size(), 1) << name;
        EXPECT_EQ(rows[0]["verdict"], verdict) << name;
        EXPECT_THAT(rows[0]["reason"]["sentence"].get<std::string>(), HasSubstr(sentence)) << name;
        // People read the same on a terminal, in lines that fit it.
        const std::string shown = sealscopeOnTerminal({"streams", "--reach", "strict", "-k", directory.file("keys.txt"), capture}, 80, {"NO_COLOR=1"});
        std::string unwrapped;
        std::istringstream lines(shown);
        for (std::string line; std::getline(lines, line);) {
            EXPECT_LE(line.size(), 80) << line;
            unwrapped += (unwrapped.empty() ? "" : " ") + line.substr(line.find_first_not_of(' '));
        }
        EXPECT_THAT(unwrapped, HasSubstr(sentence)) << name;
    }
}

TEST(StreamsCommand, CountsTheConnectionsThatTheKeyLogIsFor)
{
    const TempDirectory directory;
    const std::string capture = write(directory, "capture.pcap", {tls13().flights, tls12().flights});
    const auto rows = jsonLines(sealscope({"streams", "--json", "-k", directory.write("keys.txt", tls12().keyLog), capture}).output);
    ASSERT_EQ(rows.size(), 2);
    EXPECT_EQ(rows[0]["verdict"], "noKeyMaterial");
    EXPECT_THAT(rows[0]["reason"]["sentence"].get<std::string>(), HasSubstr("it has 1 other, 1 from this capture"));
    EXPECT_EQ(rows[0]["reason"]["keyLog"]["connectionsOfThisCapture"], 1);
    EXPECT_EQ(rows[1]["verdict"], "decrypted");
}

TEST(StreamsCommand, UsesSecretsInsideTheCaptureWhereverTheyStand)
{
    const TempDirectory directory;
    const auto all = packets(tcpSegments(tls13().flights));
    EXPECT_THAT(
        verdicts(sealscope({"streams", "--json", directory.write("before.pcapng", pcapngFile(all, {.secretsBefore = tls13().keyLog}))})),
        ElementsAre("decrypted"));
    EXPECT_THAT(
        verdicts(sealscope({"streams", "--json", directory.write("after.pcapng", pcapngFile(all, {.secretsAfter = tls13().keyLog}))})),
        ElementsAre("decrypted"));
}

TEST(StreamsCommand, TakesKeyLogsFromTheEnvironmentUnlessTheyAreNamed)
{
    const TempDirectory directory;
    const std::string capture = write(directory, "capture.pcap", {tls13().flights, tls12().flights});
    const std::string first = directory.write("first.txt", tls13().keyLog);
    const std::string second = directory.write("second.txt", tls12().keyLog);
    EXPECT_THAT(verdicts(sealscope({"streams", "--json", capture}, {.environment = {"SSLKEYLOGFILE=" + first}})),
                ElementsAre("decrypted", "noKeyMaterial"));
    EXPECT_THAT(verdicts(sealscope({"streams", "--json", "-k", second, capture}, {.environment = {"SSLKEYLOGFILE=" + first}})),
                ElementsAre("noKeyMaterial", "decrypted"));
    EXPECT_THAT(verdicts(sealscope({"streams", "--json", "-k", second, "-k", first, capture})), ElementsAre("decrypted", "decrypted"));

    const ProgramResult missing =
        sealscope({"streams", "--json", capture}, {.environment = {"SSLKEYLOGFILE=" + directory.file("none.txt")}});
    EXPECT_EQ(missing.status, 0);
    EXPECT_EQ(jsonLines(missing.output)[0]["reason"]["sentence"],
              "no key log with secrets: " + directory.file("none.txt") + ": No such file or directory");
}

TEST(StreamsCommand, TellsWhatIsTheMatterWithANamedKeyLog)
{
    const TempDirectory directory;
    const std::string capture = write(directory, "capture.pcap", {tls13().flights});
    struct Case {
        std::string file;
        int status;
        std::string reason;
    };
    const Case cases[] = {
        {directory.file("missing.txt"), 1, "No such file or directory"},
        {directory.path().string(), 1, "is a directory"},
        {directory.write("empty.txt", std::string_view()), 0, "is empty"},
        {directory.write("binary.txt", patternBytes(3'000)), 0, "not a key log (none of its "},
    };
    for (const auto& [file, status, reason] : cases) {
        const ProgramResult result = sealscope({"streams", "--json", "-k", file, capture});
        EXPECT_EQ(result.status, status) << file;
        EXPECT_THAT(result.errors, testing::StartsWith("sealscope: --keylog " + file + ": " + reason));
        EXPECT_EQ(std::ranges::count(result.errors, '\n'), 1) << result.errors;
        EXPECT_THAT(verdicts(result), ElementsAre("noKeyMaterial"));
    }
    // Beside another that opens everything, even a large one is told.
    const std::string good = directory.write("good.txt", tls13().keyLog), large = directory.write("large.txt", patternBytes(2'000'000));
    const ProgramResult result = sealscope({"streams", "--json", "-k", good, "-k", large, capture});
    EXPECT_THAT(result.errors, testing::StartsWith("sealscope: --keylog " + large + ": not a key log (none of its "));
    EXPECT_THAT(verdicts(result), ElementsAre("decrypted"));
}

TEST(StreamsCommand, PutsStreamsTogetherThatStraddleFiles)
{
    const TempDirectory directory;
    const auto all = packets(tcpSegments(tls13().flights));
    const auto middle = all.begin() + std::ssize(all) / 2;
    const std::string first = directory.write("ring-1.pcap", pcapFile({all.begin(), middle}));
    const std::string second = directory.write("ring-2.pcap", pcapFile({middle, all.end()}));
    const std::string keyLog = directory.write("keys.txt", tls13().keyLog);
    const auto whole = jsonLines(sealscope({"streams", "--json", "-k", keyLog, write(directory, "whole.pcap", {tls13().flights})}).output);
    EXPECT_EQ(jsonLines(sealscope({"streams", "--json", "-k", keyLog, second, first}).output), whole);
}

TEST(StreamsCommand, LaysTextOutInColumns)
{
    const TempDirectory directory;
    const std::string capture = write(directory, "capture.pcap", {plainText()});
    EXPECT_EQ(sealscope({"streams", capture}).output,
              "Stream  Client           Server          Sent  Received  Server Name  Version  Missing  Start                        Seconds  "
              "Verdict              Detail\n"
              "     0  192.0.2.1:50000  192.0.2.2:443     18         0                              0  2023-11-14 22:13:20.000000  0.007000  "
              "not TLS\n");

    // On a terminal each row is a line of its own, and the sentence stands below it.
    const std::string secured = write(directory, "secured.pcap", {tls13().flights});
    for (const int columns : {80, 120}) {
        std::istringstream lines(sealscopeOnTerminal({"streams", secured}, columns, {"NO_COLOR=1"}));
        std::string heading, row, sentence;
        for (std::string* line : {&heading, &row, &sentence}) std::getline(lines, *line);
        EXPECT_LE(row.size(), static_cast<std::size_t>(columns)) << row;
        EXPECT_THAT(columns == 120 ? row : sentence, testing::AllOf(HasSubstr("example.org"), HasSubstr("TLS 1.3")));
    }
}

}  // namespace sealscope::cli
