// SPDX-License-Identifier: Apache-2.0
#include "harness/CaptureFile.h"
#include "harness/TempDirectory.h"
#include "tests/cli/Program.h"

#include <algorithm>
#include <filesystem>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <sstream>
#include <unistd.h>

namespace sealscope::cli {

namespace {

using testing::HasSubstr;
using testing::IsEmpty;
namespace fs = std::filesystem;

const std::string capture = SEALSCOPE_SOURCE_DIR "/examples/tls12.pcap", keylog = SEALSCOPE_SOURCE_DIR "/examples/tls12.keylog";

/// What this machine's kernel knows of confining a process, by the program's own word.
struct Kernel {
    bool confinesFiles = false;
    bool filtersCalls = false;
};
const Kernel& kernel()
{
    static const Kernel known = [] {
        const std::string told = sealscope({"--version", "-v"}).output;
        return Kernel{told.find("by Landlock") != std::string::npos, told.find("by seccomp") != std::string::npos};
    }();
    return known;
}

/// Attempts of the intruder that only Landlock, and only the filter of system calls, stands in the way of.
const std::set<std::string> ofFiles{
    "read", "list", "write", "truncate", "create", "rename", "remove", "memory of a process", "environment of another"};
const std::set<std::string> ofCalls{"link",
                                    "fork",
                                    "socket",
                                    "datagram",
                                    "local socket",
                                    "signal",
                                    "trace",
                                    "processors of another",
                                    "executable memory",
                                    "memory made executable",
                                    "limit",
                                    "type",
                                    "run",
                                    "become another program"};

/// What became of each of the intruder's attempts in a run of the program: "done" or "refused".
std::map<std::string, std::string> intrusion(std::vector<std::string> arguments, const TempDirectory& target)
{
    writeFile(target.file("secret"), DataView(std::string_view("under the oak")));
    arguments.insert(arguments.end(), {"--plugin-path", SEALSCOPE_INTRUDER});
    const ProgramOptions options{.environment = {"SEALSCOPE_INTRUDER_TARGET=" + target.path().string()}};
    ProgramResult result;
    if (arguments.front() == "live") {
        // No packet comes; the intruder acts when Ctrl-C ends the program. A busy machine may not have let it begin by then.
        for (const char* seconds : {"1", "5"}) {
            std::vector<std::string> limited{"timeout", "--signal=INT", seconds, SEALSCOPE_PROGRAM};
            limited.insert(limited.end(), arguments.begin(), arguments.end());
            result = runProgram(limited, options);
            if (!result.errors.empty()) break;
        }
    } else {
        result = sealscope(arguments, options);
    }
    std::map<std::string, std::string> outcomes;
    std::istringstream lines(result.errors);
    for (std::string line; std::getline(lines, line);) {
        const std::string mark = "intruder: ";
        if (line.starts_with(mark)) outcomes[line.substr(mark.size(), line.rfind(": ") - mark.size())] = line.substr(line.rfind(": ") + 2);
    }
    return outcomes;
}

std::set<std::string> namesOf(const std::map<std::string, std::string>& outcomes, const std::string& outcome)
{
    std::set<std::string> names;
    for (const auto& [name, what] : outcomes)
        if (what == outcome) names.insert(name);
    return names;
}

}  // namespace

TEST(Confinement, RefusesAnIntruderInEveryCommand)
{
    const TempDirectory target, outputs;
    fs::create_directory(outputs.file("plain"));
    const std::vector<std::string> commands[] = {
        {"packets", capture},
        {"tree", capture},
        {"streams", "-k", keylog, capture},
        {"follow", "-k", keylog, capture},
        {"decrypt", "-k", keylog, "--output", outputs.file("plain"), capture},
        {"decrypt", "-k", keylog, "--pcap", outputs.file("plain.pcap"), capture},
        {"decrypt", "-k", keylog, "--inject-secrets", outputs.file("all.pcapng"), capture},
        {"exchanges", "-k", keylog, capture},
        {"objects", "-k", keylog, "--output", outputs.file("plain"), capture},
        {"export", "har", "-k", keylog, "--output", outputs.file("capture.har"), capture},
        {"plugins"},
        {"settings", "list"},
        {"live", "-i", "lo", "-f", "host 192.0.2.1"},
    };
    std::set<std::string> expected;
    if (kernel().confinesFiles) expected.insert(ofFiles.begin(), ofFiles.end());
    if (kernel().filtersCalls) expected.insert(ofCalls.begin(), ofCalls.end());
    for (const auto& command : commands) {
        if (command.front() == "live" && geteuid() != 0) continue;  // others may not capture
        const auto outcomes = intrusion(command, target);
        EXPECT_EQ(outcomes.size(), ofFiles.size() + ofCalls.size()) << command.front();
        EXPECT_THAT(namesOf(outcomes, "refused"), testing::IsSupersetOf(expected)) << fmt::format("{}", fmt::join(command, " "));
    }
    if (!kernel().confinesFiles) GTEST_SKIP() << "this kernel has no Landlock: attempts on files were not looked at";
    if (!kernel().filtersCalls) GTEST_SKIP() << "this kernel has no seccomp: attempts beyond files were not looked at";
}

TEST(Confinement, IsWhatRefuses)
{
    // The same attempts in a program that keeps its rights; those that depend on the machine aside.
    const TempDirectory target;
    const auto outcomes = intrusion({"packets", "--no-sandbox", capture}, target);
    EXPECT_THAT(namesOf(outcomes, "done"),
                testing::IsSupersetOf({"read", "list", "write", "truncate", "create", "rename", "link", "run", "fork", "socket",
                                       "local socket", "signal", "executable memory", "memory made executable", "limit"}));
    EXPECT_FALSE(outcomes.contains("become another program")) << "it has become one";
}

TEST(Confinement, ChangesNothingForTheUser)
{
    const TempDirectory directory;
    const std::string packed = directory.file("capture.pcap.gz"), plain = directory.file("plain.pcap"), link = directory.file("link");
    ASSERT_EQ(runProgram({"sh", "-c", "gzip -c " + capture + " > " + packed}).status, 0);
    writeFile(plain, DataView(std::string_view("to be replaced")));
    fs::create_symlink(capture, link);
    const std::string bytes(readFile(capture).view().text());
    auto segments = tcpSegments(
        {{.direction = TCPSegment::Direction::clientToServer, .wire = Data::fromText("GET / HTTP/1.0\r\n\r\n"), .plaintext = {}}});
    for (PlannedSegment& segment : segments) segment.fragmentLength = 8;
    const std::string fragments = directory.write("fragments.pcap", pcapFile(packets(segments)));
    struct Case {
        const char* name;
        std::vector<std::string> arguments;
        ProgramOptions options;
    };
    const Case cases[] = {
        {"another time zone", {"packets", capture}, {.environment = {"TZ=Asia/Tokyo"}}},
        {"another language", {"tree", capture}, {.environment = {"LC_ALL=ja_JP.UTF-8"}}},
        {"a compressed capture, which needs a temporary file", {"streams", "-k", keylog, packed}, {}},
        {"datagrams in fragments, which need one too", {"follow", fragments}, {}},
        {"a pipe", {"follow", "-k", keylog, "-"}, {.input = bytes}},
        {"a pipe by its name", {"follow", "-k", keylog, "/dev/stdin"}, {.input = bytes}},
        {"a link", {"streams", link}, {.environment = {"SSLKEYLOGFILE=" + keylog}}},
        {"a file that is replaced", {"decrypt", "-k", keylog, "--force", "--pcap", plain, capture}, {}},
        {"standard output", {"decrypt", "-k", keylog, "--pcap", "-", capture}, {}},
        {"a folder", {"packets", directory.path().string()}, {}},
        {"a key log that is a folder", {"streams", "-k", directory.path().string(), capture}, {}},
        {"a key log that is not there", {"streams", "-k", "nowhere.txt", capture}, {}},
        {"a file that exists", {"decrypt", "-k", keylog, "--pcap", plain, capture}, {}},
    };
    for (auto [name, arguments, options] : cases) {
        const TempDirectory temporary;
        options.environment.push_back("TMPDIR=" + temporary.path().string());
        const ProgramResult confined = sealscope(arguments, options);
        EXPECT_TRUE(fs::is_empty(temporary.path())) << name;
        arguments.push_back("--no-sandbox");
        const ProgramResult free = sealscope(arguments, options);
        EXPECT_EQ(confined.output, free.output) << name;
        EXPECT_EQ(confined.errors, free.errors) << name;
        EXPECT_EQ(confined.status, free.status) << name;
    }
}

TEST(Confinement, ReadsAKeyLogThatComesWhileTheCaptureDoes)
{
    const TempDirectory directory;
    const std::string late = directory.file("late.txt");
    const std::string command = fmt::format("(head -c 5000 {0}; sleep 0.3; cp {1} {2}; tail -c +5001 {0}) | {3} streams --json -k {2} -",
                                            capture, keylog, late, SEALSCOPE_PROGRAM);
    EXPECT_THAT(runProgram({"sh", "-c", command}).output, HasSubstr("\"verdict\":\"decrypted\""));
}

TEST(Confinement, EndsWithOneLineWhenMemoryRunsOut)
{
    const TempDirectory directory;
    PcapBuilder builder(1);
    for (int i = 0; i < 200'000; ++i) {
        TCPConversation conversation(
            {.client = endpoint(fmt::format("10.{}.{}.1", i >> 16, i >> 8 & 255), static_cast<std::uint16_t>(i & 255))});
        conversation.open();
        for (const CapturePacket& packet : packets({conversation.segments.front()})) builder.packet(packet);
    }
    const std::string file = directory.file("many.pcap");
    writeFile(file, DataView(builder.bytes()));
    const ProgramResult result = sealscope({"streams", "--memory", "24M", file});
    if (sealscope({"--version", "-v"}).output.find("memory: at most") == std::string::npos)
        GTEST_SKIP() << "memory has no limit in this build";
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.errors, "sealscope: out of memory: more than 24 MiB would be needed; --memory sets another limit\n");
    EXPECT_EQ(sealscope({"streams", "--memory", "1G", "-n", "10", file}).status, 0);
}

}  // namespace sealscope::cli
