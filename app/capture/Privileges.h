// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <string>

namespace sealscope {

/// Gives up for good what this process may do beyond its user: root for the user behind sudo, or behind a set-uid program;
/// every capability but those that concern files. Fails with a reason when something could not be given up.
std::expected<void, std::string> dropPrivileges();

}  // namespace sealscope
