// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace sealscope::cli {

struct Command;

/// The help of a command, or of the program when none is given. Examples come first.
std::string helpText(const Command* command);

}  // namespace sealscope::cli
