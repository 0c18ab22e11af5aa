// SPDX-License-Identifier: Apache-2.0
#include "app/capture/Privileges.h"

#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <fmt/format.h>
#include <grp.h>
#include <linux/capability.h>
#include <optional>
#include <pwd.h>
#include <string_view>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <system_error>
#include <unistd.h>

namespace sealscope {
namespace {

std::unexpected<std::string> failure(const char* what)
{
    return std::unexpected(fmt::format("cannot give up {}: {}", what, std::generic_category().message(errno)));
}

std::optional<std::uint32_t> environmentNumber(const char* name)
{
    const char* const value = std::getenv(name);
    if (!value) return std::nullopt;
    const std::string_view text = value;
    std::uint32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return number;
}

/// Keeps what root needs to read and write files that are not its own; the system call works on this thread.
bool dropCapabilities()
{
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
    if (syscall(SYS_capget, &header, data) != 0) return false;
    constexpr std::uint32_t ofFiles = 1u << CAP_DAC_OVERRIDE | 1u << CAP_DAC_READ_SEARCH | 1u << CAP_FOWNER | 1u << CAP_CHOWN;
    for (std::uint32_t i = 0; i < _LINUX_CAPABILITY_U32S_3; ++i) {
        data[i].permitted &= i == 0 ? ofFiles : 0;
        data[i].effective &= data[i].permitted;
        data[i].inheritable = 0;
    }
    return syscall(SYS_capset, &header, data) == 0;
}

}  // namespace

std::expected<void, std::string> dropPrivileges()
{
    std::uint32_t user = getuid(), group = getgid();
    if (user == 0) {
        user = environmentNumber("SUDO_UID").value_or(0);
        group = user != 0 ? environmentNumber("SUDO_GID").value_or(group) : group;
    }
    if (geteuid() == 0 && user != 0) {
        // The groups first: afterwards there is no right to change them.
        const passwd* const account = getpwuid(user);
        const int status = account ? initgroups(account->pw_name, group) : setgroups(1, &group);
        if (status != 0 || setresgid(group, group, group) != 0) return failure("root's groups");
        if (setresuid(user, user, user) != 0) return failure("the root account");
    }
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return failure("the way back to privileges");
    if (!dropCapabilities()) return failure("capabilities");
    return {};
}

}  // namespace sealscope
