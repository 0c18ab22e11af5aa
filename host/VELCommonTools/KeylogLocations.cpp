// SPDX-License-Identifier: Apache-2.0
#include "host/VELCommonTools/KeylogLocations.h"

#include "platform/FileDescriptor.h"

#include <cstdlib>
#include <pwd.h>
#include <string>
#include <unistd.h>
#include <utility>

namespace sealscope {

namespace {

std::string homeFolderOfAccount()
{
    passwd entry{};
    passwd* found = nullptr;
    std::string buffer(4096, '\0');
    if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found && found->pw_dir) return found->pw_dir;
    return "/";
}

std::string homeFolder()
{
    if (const char* home = std::getenv("HOME"); home && *home) return home;
    // Asked once: later the process may not be allowed to.
    static const std::string ofAccount = homeFolderOfAccount();
    return ofAccount;
}

}  // namespace

std::filesystem::path KeylogLocations::liveKeylog()
{
    // A relative path is invalid there and is to be ignored (XDG Base Directories, Basics).
    const char* const dataHome = std::getenv("XDG_DATA_HOME");
    const bool isUsable = dataHome && *dataHome == '/';
    return (isUsable ? std::string(dataHome) : homeFolder() + "/.local/share") + "/sealscope/keylog.txt";
}

std::expected<void, FileError> KeylogLocations::makeLiveKeylog()
{
    const std::filesystem::path file = liveKeylog();
    std::error_code error;
    if (std::filesystem::exists(file, error)) return {};
    if (auto made = createFolders(file.parent_path().string()); !made) return made;
    auto created = createFile(file.string(), ExistingFile::stays);
    if (!created && !std::filesystem::exists(file, error)) return std::unexpected(std::move(created.error()));
    return {};
}

}  // namespace sealscope
