// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <expected>
#include <string>

namespace sealscope {

/// What a process could not give up, and why.
struct PrivilegeError {
    enum class Kept : std::uint8_t { groups, account, wayBack, capabilities };
    Kept kept = Kept::groups;
    int code = 0;  ///< `errno`
    /// "cannot give up capabilities: Operation not permitted"
    std::string text() const;
};

/// Gives up for good what this process may do beyond its user: root for the user behind sudo, pkexec or a set-uid program, or else
/// for nobody's account; and every capability. Fails when something could not be given up.
std::expected<void, PrivilegeError> dropPrivileges();
/// True for root with no user behind it, of whom nobody's account is left.
bool isRootAlone();

}  // namespace sealscope
