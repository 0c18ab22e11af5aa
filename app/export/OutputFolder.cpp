// SPDX-License-Identifier: Apache-2.0
#include "app/export/OutputFolder.h"

#include <cerrno>
#include <filesystem>
#include <sys/stat.h>

namespace sealscope {

std::expected<void, FileError> prepareOutputFolder(const std::string& path)
{
    std::error_code error;
    if (std::filesystem::is_directory(path, error)) return {};
    if (std::filesystem::exists(path, error)) return std::unexpected(FileError{FileError::Problem::isNoDirectory});
    if (mkdir(path.c_str(), 0700) != 0) return std::unexpected(FileError::ofSystem(errno));
    return {};
}

}  // namespace sealscope
