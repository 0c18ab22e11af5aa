// SPDX-License-Identifier: Apache-2.0
#include "app/capture/Privileges.h"

#include "platform/FileDescriptor.h"

#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <fmt/format.h>
#include <grp.h>
#include <memory>
#include <optional>
#include <pwd.h>
#include <string_view>
#include <sys/capability.h>
#include <sys/prctl.h>
#include <system_error>
#include <type_traits>
#include <unistd.h>
#include <utility>

namespace sealscope {
namespace {

using Kept = PrivilegeError::Kept;

std::unexpected<PrivilegeError> failure(Kept kept) { return std::unexpected(PrivilegeError{kept, errno}); }

const char* nameOf(Kept kept)
{
    switch (kept) {
    case Kept::groups: return "root's groups";
    case Kept::account: return "the root account";
    case Kept::wayBack: return "the way back to privileges";
    case Kept::capabilities: return "capabilities";
    }
    std::unreachable();
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

constexpr std::uint32_t nobody = 65'534;  // the kernel's own number for who owns nothing

/// The user behind root: whom sudo or pkexec names, or who started a set-uid program. Root itself when there is none.
std::uint32_t userBehind()
{
    const std::uint32_t user = getuid();
    if (user != 0) return user;
    return environmentNumber("SUDO_UID").value_or(environmentNumber("PKEXEC_UID").value_or(0));
}

/// The group of that user; pkexec does not name it.
std::uint32_t groupBehind(std::uint32_t user)
{
    if (getuid() != 0) return getgid();
    if (const auto named = environmentNumber("SUDO_GID")) return *named;
    const passwd* const account = getpwuid(user);
    return account ? account->pw_gid : nobody;
}

bool dropCapabilities()
{
    const std::unique_ptr<std::remove_pointer_t<cap_t>, decltype(&cap_free)> none(cap_init(), cap_free);
    return none && cap_reset_ambient() == 0 && cap_set_proc(none.get()) == 0;
}

}  // namespace

std::string PrivilegeError::text() const { return fmt::format("cannot give up {}: {}", nameOf(kept), errorText(code)); }

bool isRootAlone() { return geteuid() == 0 && userBehind() == 0; }

std::expected<void, PrivilegeError> dropPrivileges()
{
    if (geteuid() == 0) {
        std::uint32_t user = userBehind(), group = groupBehind(user);
        const bool isAlone = user == 0;
        if (isAlone) user = group = nobody;
        // The groups first: afterwards there is no right to change them.
        const passwd* const account = isAlone ? nullptr : getpwuid(user);
        const int status = account ? initgroups(account->pw_name, group) : setgroups(1, &group);
        const bool isDone = status == 0 && setresgid(group, group, group) == 0;
        // Root of a namespace that knows no other account is nobody outside of it, and need not change.
        const bool isUnknown = isAlone && (errno == EINVAL || errno == EPERM);
        if (!isDone && !isUnknown) return failure(Kept::groups);
        if (isDone && setresuid(user, user, user) != 0) return failure(Kept::account);
    }
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return failure(Kept::wayBack);
    if (!dropCapabilities()) return failure(Kept::capabilities);
    return {};
}

}  // namespace sealscope
