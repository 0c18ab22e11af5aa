// SPDX-License-Identifier: Apache-2.0
#include "host/VELCommonTools/KeylogUserFile.h"

#include <cstdlib>
#include <mutex>
#include <utility>

namespace sealscope {

namespace {

struct Override {
    std::mutex mutex;
    std::vector<std::string> paths;
};

Override& sharedOverride()
{
    static Override shared;
    return shared;
}

/// "~/keys.txt" with the home folder in place of "~", as a shell would resolve what the user types.
std::string expanded(std::string path)
{
    const char* const home = std::getenv("HOME");
    if (home && *home && (path == "~" || path.starts_with("~/"))) path.replace(0, 1, home);
    return path;
}

}  // namespace

std::string_view KeylogUserFile::pathDefaultsKey() { return "com_quillmarshworks_vel_tls_keylog_path"; }

std::optional<std::string> KeylogUserFile::resolvedPath(const UserDefaults& defaults)
{
    {
        Override& shared = sharedOverride();
        const std::lock_guard lock(shared.mutex);
        if (!shared.paths.empty()) return shared.paths.front();
    }
    auto path = defaults.string(pathDefaultsKey());
    if (!path || path->empty()) return std::nullopt;
    return expanded(std::move(*path));
}

bool KeylogUserFile::remember(const std::filesystem::path& file, UserDefaults& defaults)
{
    return defaults.set(pathDefaultsKey(), file.string());
}

void KeylogUserFile::setOverride(std::vector<std::string> paths)
{
    Override& shared = sharedOverride();
    const std::lock_guard lock(shared.mutex);
    shared.paths = std::move(paths);
}

std::vector<std::string> KeylogUserFile::overridePaths()
{
    Override& shared = sharedOverride();
    const std::lock_guard lock(shared.mutex);
    return shared.paths;
}

}  // namespace sealscope
