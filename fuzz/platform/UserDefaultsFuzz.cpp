// SPDX-License-Identifier: Apache-2.0
// A settings file that anybody may have written: what can be read of it is read the same after a write, and a file that has to
// be replaced is there still.
#include "fuzz/Require.h"
#include "platform/UserDefaults.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <unistd.h>

using namespace sealscope;

namespace {

namespace fs = std::filesystem;

/// A folder of the process's own, in memory where that is possible.
struct Folder {
    fs::path path = (fs::exists("/dev/shm") ? fs::path("/dev/shm") : fs::temp_directory_path()) / ("settings-" + std::to_string(getpid()));
    Folder() { fs::create_directories(path); }
    ~Folder() { fs::remove_all(path); }
};

std::map<std::string, UserDefaults::Value> contents(const UserDefaults& defaults)
{
    const auto all = defaults.all();
    return {all.begin(), all.end()};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const Folder folder;
    const fs::path file = folder.path / "settings.json", aside = folder.path / "settings.json.damaged";
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::ofstream(file, std::ios::binary) << text;

    UserDefaults defaults(file);
    auto expected = contents(defaults);
    const bool isDamaged = defaults.lastProblem().has_value();
    require(defaults.set("written", std::int64_t{7}), "a value is written");
    expected["written"] = std::int64_t{7};
    require(contents(defaults) == expected, "the writer sees what it wrote, and what was there");
    require(contents(UserDefaults(file)) == expected, "so does the next process");
    require(fs::exists(aside) == isDamaged, "a damaged file is set aside, and no other");
    if (isDamaged) {
        std::ifstream stream(aside, std::ios::binary);
        require(std::string(std::istreambuf_iterator<char>(stream), {}) == text, "byte for byte");
        fs::remove(aside);
    }
    return 0;
}
