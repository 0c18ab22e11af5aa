// SPDX-License-Identifier: Apache-2.0
#include "app/export/OutputFolder.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <sys/stat.h>

namespace sealscope {

std::expected<void, std::string> prepareOutputFolder(const std::string& path)
{
    std::error_code error;
    if (std::filesystem::is_directory(path, error)) return {};
    if (std::filesystem::exists(path, error)) return std::unexpected("is not a directory");
    if (mkdir(path.c_str(), 0700) != 0) return std::unexpected(std::strerror(errno));
    return {};
}

}  // namespace sealscope
