// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/cli/Command.h"

#include <string>
#include <string_view>
#include <vector>

namespace sealscope::cli {

/// Puts the key logs of the command line in the place of the user's for this run, and adds the secrets that the capture
/// carries. Says which key log cannot be used, and gives the status to end with.
ExitStatus useSecrets(const std::vector<std::string>& keylogs, std::string_view embeddedKeyLog);

/// What is the matter with the key logs that apply, each as a clause like "keys.txt does not exist"; nothing of the managed
/// one, which need not exist.
std::vector<std::string> keyLogProblems();

}  // namespace sealscope::cli
