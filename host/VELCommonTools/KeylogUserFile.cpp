// SPDX-License-Identifier: Apache-2.0
#include "host/VELCommonTools/KeylogUserFile.h"

#include <cstdlib>
#include <utility>

namespace sealscope {

namespace {

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
    auto path = defaults.string(pathDefaultsKey());
    if (!path || path->empty()) return std::nullopt;
    return expanded(std::move(*path));
}

bool KeylogUserFile::remember(const std::filesystem::path& file, UserDefaults& defaults)
{
    return defaults.set(pathDefaultsKey(), file.string());
}

}  // namespace sealscope
