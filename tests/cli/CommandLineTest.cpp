// SPDX-License-Identifier: Apache-2.0
#include "harness/CaptureFile.h"
#include "harness/TempDirectory.h"
#include "tests/cli/Program.h"

#include <chrono>
#include <gtest/gtest.h>

namespace sealscope::cli {

namespace {

std::string smallCapture(const TempDirectory& directory)
{
    TLSFlight flight{
        .direction = TCPSegment::Direction::clientToServer, .wire = Data{0x15, 0x03, 0x03, 0x00, 0x02, 0x02, 0x28}, .plaintext = {}};
    return directory.write("small.pcap", pcapFile(packets(tcpSegments({flight}))));
}

}  // namespace

TEST(CommandLine, AnswersAMistakeWithOneLineAndStatusTwo)
{
    const TempDirectory directory;
    const std::string capture = smallCapture(directory);
    struct Case {
        std::vector<std::string> arguments;
        std::string message;
    };
    const Case cases[] = {
        {{}, "no capture file and no command is named; 'sealscope --help' shows how"},
        {{"pakets", capture}, "'pakets' is not a command or a file; did you mean 'packets'?"},
        {{"strems", capture}, "'strems' is not a command or a file; did you mean 'streams'?"},
        {{"packets", "--jsno", capture}, "unknown option '--jsno'; did you mean '--json'?"},
        {{"packets", "--cuont=5", capture}, "unknown option '--cuont'; did you mean '--count'?"},
        {{"packets", "--nothing-like-it", capture}, "unknown option '--nothing-like-it'; 'sealscope packets --help' lists the options"},
        {{"packets", "-Z", capture}, "unknown option '-Z'; 'sealscope packets --help' lists the options"},
        {{"packets"}, "'packets' wants FILE…; 'sealscope packets --help' shows how"},
        {{"packets", capture, "--count"}, "--count wants an argument; 'sealscope packets --help' lists the options"},
        {{"packets", capture, "-n", "0"}, "--count 0: expected a whole number, 1 or more"},
        {{"packets", capture, "-n", "5x"}, "--count 5x: expected a whole number, 1 or more"},
        {{"packets", capture, "--json=yes"}, "--json takes no argument"},
        {{"packets", capture, "--color", "red"}, "--color red: expected auto, always or never"},
        {{"packets", capture, "--hex"}, "'packets' does not know --hex; it belongs to tree"},
        {{"packets", capture, "-f", "tcp prt 443"}, "--filter: can't parse filter expression: syntax error"},
        {{"packets", capture, "-f", ""}, "--filter: the EXPR is empty"},
        {{"tree", capture, "--packet", "99999999999999999999"},
         "--packet 99999999999999999999: expected a packet number, 1 or more"},
        {{"tree", capture, "--packet", "0"}, "--packet 0: expected a packet number, 1 or more"},
        {{"tree", capture, "--packet", "50"}, "--packet 50: the capture has 8 packets, numbered from 1"},
        {{"streams", capture, "--stream", "-1"}, "--stream -1: expected a stream number, 0 or more"},
        {{"follow", capture, "--stream", "7"}, "--stream 7: the capture has 1 TCP connection, numbered 0"},
        {{"plugins", "something"}, "'plugins' does not know what to do with 'something'; 'sealscope plugins --help' shows how"},
        {{"packets", "--\x1B[2J", capture}, "unknown option '--\\x1B[2J'; 'sealscope packets --help' lists the options"},
    };
    for (const auto& [arguments, message] : cases) {
        const ProgramResult result = sealscope(arguments);
        EXPECT_EQ(result.status, 2) << message;
        EXPECT_EQ(result.errors, "sealscope: " + message + '\n');
        EXPECT_EQ(result.output, "") << message;
    }
}

TEST(CommandLine, TakesOptionsInEveryFormAndPlace)
{
    const TempDirectory directory;
    const std::string capture = smallCapture(directory);
    const std::string dashed = directory.write("-n", readFile(capture));
    const std::string expected = sealscope({"packets", "--json", capture}).output;
    ASSERT_NE(expected, "");
    const std::vector<std::string> spellings[] = {
        {"--json", "packets", capture},
        {"packets", capture, "--json"},
        {"packets", "--js", capture},
        {"packets", "-n100", "--json", capture},
        {"packets", "--count=100", capture, "--json", "--color=never"},
        {"-q", "packets", "--json", "--", capture},
        {"packets", "--json", "--", "-n"},
    };
    for (const auto& arguments : spellings) {
        const ProgramResult result = sealscope(arguments, {.directory = directory.path().string()});
        EXPECT_EQ(result.output, expected) << arguments[0];
        EXPECT_EQ(result.status, 0);
    }
}

TEST(CommandLine, FollowsAFileThatIsNamedAlone)
{
    const TempDirectory directory;
    const std::string capture = smallCapture(directory);
    const ProgramResult followed = sealscope({"follow", "--json", capture});
    EXPECT_EQ(followed.status, 0);
    EXPECT_EQ(sealscope({"--json", capture}).output, followed.output);
    EXPECT_EQ(sealscope({capture, "--json"}).output, followed.output);
    EXPECT_EQ(sealscope({"-", "--json"}, {.input = std::string(readFile(capture).view().text())}).output, followed.output);
    // A file that is called like a command is still reached by its path, or behind the end of the options.
    directory.write("streams", readFile(capture));
    EXPECT_EQ(sealscope({"--json", "./streams"}, {.directory = directory.path().string()}).output, followed.output);
    EXPECT_EQ(sealscope({"--json", "--", "streams"}, {.directory = directory.path().string()}).output, followed.output);
}

TEST(CommandLine, KeepsWhatItFoundWhenItIsInterrupted)
{
    const TempDirectory directory;
    const std::string capture = smallCapture(directory);
    const std::string pipe = directory.file("pipe");
    const auto interrupted = [&](const std::string& command, const std::string& comes) {
        return runProgram({"sh", "-c",
                           "rm -f " + pipe + "; mkfifo " + pipe + "; { " + comes + "exec sleep 20; } > " + pipe + " & feeder=$!; " +
                               SEALSCOPE_PROGRAM + " " + command + " --json - < " + pipe +
                               " & reader=$!; sleep 1; kill $reader; wait $reader; status=$?; kill $feeder; exit $status"},
                          {.timeLimit = std::chrono::seconds(15)});
    };
    for (const char* command : {"packets", "tree", "streams", "follow"}) {
        const ProgramResult some = interrupted(command, "cat " + capture + "; "), nothing = interrupted(command, "");
        EXPECT_EQ(some.status, 1) << command;
        EXPECT_EQ(some.errors, "sealscope: interrupted; what was read until then is printed\n") << command;
        EXPECT_EQ(some.output, sealscope({command, "--json", capture}).output) << command;
        EXPECT_EQ(nothing.status, 1) << command;
        EXPECT_EQ(nothing.errors, "sealscope: standard input: was not read before the interruption\n") << command;
    }
}

TEST(CommandLine, EndsWhenItIsInterruptedThoughNobodyReads)
{
    const TempDirectory directory;
    const std::string pipe = directory.file("pipe"), feed = directory.file("feed");
    std::string captures;
    for (int i = 0; i < 60; ++i) captures += " " SEALSCOPE_SOURCE_DIR "/examples/https.pcapng";
    // The last one is interrupted while it reads, and has all to say afterwards.
    for (const std::string& command : {"packets --json" + captures, "tree" + captures, "follow --bodies" + captures, std::string("follow --json -")}) {
        const auto begin = std::chrono::steady_clock::now();
        const ProgramResult result =
            runProgram({"sh", "-c",
                        "rm -f " + pipe + ' ' + feed + "; mkfifo " + pipe + ' ' + feed + "; sleep 20 < " + pipe + " & reader=$!; { cat" + captures +
                            "; exec sleep 20; } > " + feed + " & feeder=$!; " SEALSCOPE_PROGRAM " " + command + " < " + feed + " > " + pipe +
                            " & program=$!; sleep 1; kill $program; wait $program; status=$?; kill $reader $feeder; exit $status"},
                       {.timeLimit = std::chrono::seconds(15)});
        EXPECT_EQ(result.status, 1) << command;
        EXPECT_EQ(result.errors, "sealscope: interrupted; what was read until then is printed\n") << command;
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(4)) << command;
    }
}

TEST(CommandLine, HelpsOnStandardOutput)
{
    const ProgramResult help = sealscope({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.errors, "");
    EXPECT_TRUE(help.output.starts_with("Examples:\n"));
    for (const char* command : {"follow", "exchanges", "objects", "packets", "tree", "streams", "decrypt", "export", "live", "plugins", "settings"}) {
        EXPECT_NE(help.output.find("\n  " + std::string(command) + ' '), std::string::npos) << command;
        const ProgramResult own = sealscope({command, "--help"});
        EXPECT_EQ(own.status, 0);
        EXPECT_TRUE(own.output.starts_with("Examples:\n  "));
        EXPECT_NE(own.output.find("Usage: sealscope " + std::string(command)), std::string::npos);
        EXPECT_EQ(sealscope({"help", command}).output, own.output);
        EXPECT_EQ(sealscope({"--help", command, "--wrong"}).output, own.output) << "what else is wrong does not stand in the way of help";
    }
    for (const auto& [command, line] : {std::pair{"decrypt", "--output DIR            write the plaintext of each direction"},
                                        {"objects", "--output DIR            save to DIR,"},
                                        {"export", "--output FILE           write to FILE\n"},
                                        {"exchanges", "--count N               stop after N rows\n"}})
        EXPECT_THAT(sealscope({command, "--help"}).output, testing::HasSubstr(line));
    EXPECT_EQ(sealscope({"--version"}).output, "sealscope " SEALSCOPE_VERSION "\n");
}

}  // namespace sealscope::cli
