// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Data.h"

#include <filesystem>
#include <string>

namespace sealscope {

/// An empty directory that is gone with its contents when this is.
class TempDirectory {
public:
    TempDirectory();
    ~TempDirectory();
    TempDirectory(const TempDirectory&) = delete;
    TempDirectory& operator=(const TempDirectory&) = delete;

    const std::filesystem::path& path() const { return path_; }
    /// The path of a file in it, for programs and functions that take strings.
    std::string file(std::string_view name) const { return (path_ / name).string(); }
    /// Writes a file in it and returns its path.
    std::string write(std::string_view name, DataView bytes) const;
    std::string write(std::string_view name, std::string_view text) const { return write(name, DataView(text)); }

private:
    std::filesystem::path path_;
};

/// All bytes of a file; throws std::runtime_error with its name when it cannot be read.
Data readFile(const std::filesystem::path& path);
void writeFile(const std::filesystem::path& path, DataView bytes);

}  // namespace sealscope
