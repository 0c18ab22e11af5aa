// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <string>

namespace sealscope {

/// Gives up for good what this process may do beyond its user: root for the user behind sudo, pkexec or a set-uid program, or else
/// for nobody's account; and every capability. Fails with a reason when something could not be given up.
std::expected<void, std::string> dropPrivileges();
/// True for root with no user behind it, of whom nobody's account is left.
bool isRootAlone();

}  // namespace sealscope
