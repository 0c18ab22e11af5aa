// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "harness/TempDirectory.h"

#include <cstdlib>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <string_view>

namespace sealscope {

/// Keeps the key logs and settings of whoever runs the tests out of them: every place that they are looked for is in an empty
/// directory. Made before the first lookup of a process.
class NoKeyLogs {
public:
    NoKeyLogs()
    {
        setenv("XDG_CONFIG_HOME", directory_.file("config").c_str(), 1);
        setenv("XDG_DATA_HOME", directory_.file("data").c_str(), 1);
        unsetenv("SSLKEYLOGFILE");
    }
    const TempDirectory& directory() const { return directory_; }

private:
    TempDirectory directory_;
};

/// As long as it lives, these are all the secrets there are: the key log of the environment.
class WithKeyLog {
public:
    explicit WithKeyLog(std::string_view text)
    {
        static const NoKeyLogs noOthers;
        static int count = 0;
        file_ = noOthers.directory().file(fmt::format("keys-{}", count++));  // another name, so that no stamp is mistaken
        std::ofstream(file_, std::ios::binary) << text;
        setenv("SSLKEYLOGFILE", file_.c_str(), 1);
    }
    ~WithKeyLog()
    {
        unsetenv("SSLKEYLOGFILE");
        std::filesystem::remove(file_);
    }
    WithKeyLog(const WithKeyLog&) = delete;
    WithKeyLog& operator=(const WithKeyLog&) = delete;

private:
    std::filesystem::path file_;
};

}  // namespace sealscope
