// SPDX-License-Identifier: Apache-2.0
// Whole commands, from start to end, beside the copy that `tcpdump -r FILE -w /dev/null` makes of the same file.
#include "harness/RunProgram.h"
#include "harness/TempDirectory.h"

#include <benchmark/benchmark.h>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace {

using sealscope::runProgram;

/// The captures that the commands read, made once.
class Captures {
public:
    Captures()
    {
        make("large", {"--shape", "large", "--size", "250MB"});
        make("small", {"--shape", "small", "--connections", "12500"});
    }
    std::string capture(const std::string& name) const { return directory_.file(name + ".pcapng"); }
    std::string keyLog(const std::string& name) const { return directory_.file(name + ".txt"); }
    std::string folder() const { return directory_.path().string(); }

private:
    void make(const std::string& name, std::vector<std::string> shape)
    {
        std::vector<std::string> arguments{SEALSCOPE_MAKE_CAPTURE, "--out", capture(name), "--keylog", keyLog(name)};
        arguments.insert(arguments.end(), shape.begin(), shape.end());
        if (runProgram(arguments).status != 0) throw std::runtime_error("no capture to measure with");
    }
    sealscope::TempDirectory directory_;
};

const Captures& captures()
{
    static const Captures made;
    return made;
}

/// Runs a shell command over and over; "CAPTURE", "KEYS" and "FOLDER" stand for the files of a shape.
void run(benchmark::State& state, std::string command, const std::string& shape)
{
    const auto fill = [&](const std::string& word, const std::string& value) {
        for (std::size_t at; (at = command.find(word)) != std::string::npos;) command.replace(at, word.size(), value);
    };
    fill("CAPTURE", captures().capture(shape));
    fill("KEYS", captures().keyLog(shape));
    fill("FOLDER", captures().folder());
    fill("SEALSCOPE", SEALSCOPE_PROGRAM);
    for (auto _ : state)
        if (runProgram({"sh", "-c", command}).status != 0) return state.SkipWithError("did not run");
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(std::filesystem::file_size(captures().capture(shape))));
}

#define COMMAND(name, command)                                                                                                             \
    BENCHMARK_CAPTURE(run, name / large, command, "large")->Unit(benchmark::kMillisecond)->UseRealTime();                                  \
    BENCHMARK_CAPTURE(run, name / small, command, "small")->Unit(benchmark::kMillisecond)->UseRealTime()

COMMAND(tcpdump, "tcpdump -r CAPTURE -w /dev/null 2>&1");
COMMAND(packets, "SEALSCOPE packets CAPTURE > /dev/null");
COMMAND(packetsJSON, "SEALSCOPE packets --json CAPTURE > /dev/null");
COMMAND(streams, "SEALSCOPE streams CAPTURE > /dev/null");
COMMAND(streamsWithKeys, "SEALSCOPE streams -k KEYS CAPTURE > /dev/null");
COMMAND(followJSON, "SEALSCOPE follow --json CAPTURE > /dev/null");
COMMAND(decryptOutput, "SEALSCOPE decrypt -k KEYS --force --output FOLDER CAPTURE > /dev/null");
COMMAND(decryptPcap, "SEALSCOPE decrypt -k KEYS --force --pcap FOLDER/plain.pcap CAPTURE > /dev/null");

}  // namespace
