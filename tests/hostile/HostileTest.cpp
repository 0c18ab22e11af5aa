// SPDX-License-Identifier: Apache-2.0
//
// Every shape of hostile input, in every command that reads it, against the budget that SECURITY.md promises. Times are those of the
// processor, so that a busy machine changes nothing; SEALSCOPE_HOSTILE_REPORT=1 prints what each run took.
#include "harness/TempDirectory.h"
#include "tests/hostile/Measured.h"
#include "tests/hostile/Shape.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gtest/gtest.h>

namespace sealscope::hostile {

namespace {

namespace fs = std::filesystem;
constexpr std::int64_t mebibyte = 1 << 20, gibibyte = 1 << 30;

const std::vector<std::vector<std::string>> allCommands = {
    {"packets"},
    {"tree"},
    {"tree", "--json"},
    {"streams", "--json"},
    {"follow"},
    {"follow", "--json"},
    {"exchanges"},
    {"objects", "--force", "--output", "plain"},
    {"export", "har", "--force", "--output", "plain.har"},
    {"decrypt", "--force", "--output", "plain"},
    {"decrypt", "--force", "--pcap", "plain.pcap", "--inject-secrets", "all.pcapng"}};

bool takesKeyLogs(const std::string& command) { return command != "packets" && command != "tree" && command != "settings"; }

std::int64_t bytesBelow(const fs::path& folder)
{
    std::int64_t bytes = 0;
    std::error_code error;
    for (const auto& entry : fs::recursive_directory_iterator(folder, error))
        if (entry.is_regular_file(error) && !entry.is_symlink(error)) bytes += static_cast<std::int64_t>(entry.file_size(error));
    return bytes;
}

class HostileTest : public testing::TestWithParam<Shape> {
protected:
    void SetUp() override
    {
        made_ = makeApart(GetParam(), folder_.path());
        inputBytes_ = bytesBelow(folder_.path());
        fs::create_directory(folder_.path() / "plain");
        fs::create_directory(folder_.path() / "temporary");
    }

    std::vector<std::string> commandLine(const std::vector<std::string>& command) const
    {
        std::vector<std::string> words{SEALSCOPE_PROGRAM};
        words.insert(words.end(), command.begin(), command.end());
        if (!GetParam().keyLog.empty() && takesKeyLogs(command.front())) words.insert(words.end(), {"--keylog", GetParam().keyLog});
        if (command.front() != "settings") words.insert(words.end(), GetParam().arguments.begin(), GetParam().arguments.end());
        return words;
    }

    MeasuredOptions options() const
    {
        const std::string folder = folder_.path().string();
        return {.directory = folder_.path(),
                .environment = {"HOME=" + folder, "XDG_CONFIG_HOME=" + folder + "/config", "XDG_DATA_HOME=" + folder + "/data",
                                "TMPDIR=" + folder + "/temporary", "TZ=UTC", "LC_ALL=C.UTF-8", "SSLKEYLOGFILE", "SEALSCOPE_PLUGIN_PATH"}};
    }

    std::int64_t outputBytes() const { return gibibyte + 16 * inputBytes_; }
    std::int64_t memory() const { return 64 * mebibyte + 48 * made_.packets + 1'024 * made_.connections + inputBytes_; }
    double seconds(double used)
    {
        if (used <= 2) return 2;
        if (!gzip_) gzip_ = gzipSeconds(folder_.path() / "capture", made_.unpacked > 0);
        return 2 + 20 * *gzip_;
    }

    const TempDirectory folder_;
    Made made_;
    std::int64_t inputBytes_ = 0;
    std::optional<double> gzip_;
};

}  // namespace

TEST_P(HostileTest, KeepsTheBudget)
{
    const auto& commands = GetParam().commands.empty() ? allCommands : GetParam().commands;
    for (const auto& command : commands) {
        const std::string name = fmt::format("{}", fmt::join(command, " "));
        const Measured measured = measure(commandLine(command), options());
        if (std::getenv("SEALSCOPE_HOSTILE_REPORT"))
            fmt::print("{:40} {:24} {:6.2f} s {:5} MiB of {:5}  status {}\n", GetParam().name, name.substr(0, 24), measured.seconds,
                       measured.memory / mebibyte, memory() / mebibyte, measured.status);
        EXPECT_FALSE(measured.timedOut) << name;
        EXPECT_EQ(measured.signal, 0) << name << ": " << measured.lastErrorLine;
        EXPECT_TRUE(measured.status >= 0 && measured.status <= 2) << name;
        EXPECT_EQ(measured.obeyed, "") << name;
        EXPECT_LE(measured.seconds, seconds(measured.seconds)) << name;
        EXPECT_LE(measured.memory / mebibyte, memory() / mebibyte) << name << " (MiB): " << measured.lastErrorLine;
        EXPECT_LE(bytesBelow(folder_.path()) - inputBytes_ + measured.unnamedFiles, outputBytes()) << name;
        EXPECT_TRUE(fs::is_empty(folder_.path() / "temporary")) << name;
    }
}

TEST_P(HostileTest, EndsWhenItIsAskedTo)
{
    if (!GetParam().isWorkForLong) GTEST_SKIP() << "is done soon";
    for (const int signal : {SIGINT, SIGTERM}) {
        for (const auto& command : allCommands) {
            // A busy machine may keep a program waiting, or not even let it begin, but not three times.
            std::chrono::milliseconds least{10'000};
            for (int turn = 0; turn < 3 && least > std::chrono::seconds(1); ++turn) {
                MeasuredOptions how = options();
                how.signal = signal;
                how.signalAfter = std::chrono::milliseconds(300 + 200 * turn);
                const Measured measured = measure(commandLine(command), how);
                if (measured.signal == signal) continue;
                EXPECT_TRUE(measured.status >= 0 && measured.status <= 2) << fmt::format("{}: signal {}", command, measured.signal);
                least = std::min(least, measured.sinceSignal);
            }
            EXPECT_LE(least.count(), 1'000) << fmt::format("{}", fmt::join(command, " "));
        }
    }
}

const auto byName = [](const testing::TestParamInfo<Shape>& info) { return info.param.name; };
INSTANTIATE_TEST_SUITE_P(Captures, HostileTest, testing::ValuesIn(captureShapes()), byName);
INSTANTIATE_TEST_SUITE_P(Packets, HostileTest, testing::ValuesIn(packetShapes()), byName);
INSTANTIATE_TEST_SUITE_P(Streams, HostileTest, testing::ValuesIn(streamShapes()), byName);
INSTANTIATE_TEST_SUITE_P(Records, HostileTest, testing::ValuesIn(recordShapes()), byName);
INSTANTIATE_TEST_SUITE_P(Conversations, HostileTest, testing::ValuesIn(conversationShapes()), byName);
INSTANTIATE_TEST_SUITE_P(Reach, HostileTest, testing::ValuesIn(reachShapes()), byName);
INSTANTIATE_TEST_SUITE_P(Neighbours, HostileTest, testing::ValuesIn(neighbourShapes()), byName);

}  // namespace sealscope::hostile
