// SPDX-License-Identifier: Apache-2.0
#include "platform/UserDefaults.h"

#include <benchmark/benchmark.h>
#include <filesystem>
#include <string>
#include <unistd.h>

namespace sealscope {
namespace {

namespace fs = std::filesystem;

/// Settings as a plug-in stores them, in a folder that is gone with this.
struct Stored {
    fs::path folder = fs::temp_directory_path() / ("sealscope-bench-" + std::to_string(getpid()));
    UserDefaults defaults{folder / "settings.json"};
    Stored()
    {
        defaults.set("color", std::string("#FFCC66"));
        defaults.set("color_use", true);
        defaults.set("protocols", Data::fromText(std::string(160, 'x')));
    }
    ~Stored() { fs::remove_all(folder); }
};

/// A setting that has been read before; the file is looked at, and has not changed.
void readAgain(benchmark::State& state)
{
    const Stored stored;
    for (auto _ : state) benchmark::DoNotOptimize(stored.defaults.string("color"));
}
BENCHMARK(readAgain);

/// The floor of it.
void lookAtTheFile(benchmark::State& state)
{
    const Stored stored;
    const std::string file = stored.folder / "settings.json";
    for (auto _ : state) benchmark::DoNotOptimize(access(file.c_str(), R_OK));
}
BENCHMARK(lookAtTheFile);

/// What every start costs: the file is read, locked, and written anew.
void readAndWrite(benchmark::State& state)
{
    const Stored stored;
    std::int64_t round = 0;
    for (auto _ : state) {
        UserDefaults defaults(stored.folder / "settings.json");
        benchmark::DoNotOptimize(defaults.set("round", ++round));
    }
}
BENCHMARK(readAndWrite);

}  // namespace
}  // namespace sealscope
