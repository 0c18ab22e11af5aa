// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/cli/CommandLine.h"
#include "platform/PrivateKey.h"

#include <optional>
#include <vector>

namespace sealscope::cli {

/// The private keys of the command line. The passphrase of one that is encrypted comes from the file that is named for it, or is asked
/// for on the terminal. What is wrong with one is told, and then there are none.
std::optional<std::vector<PrivateKey>> readPrivateKeys(const Options& options);

}  // namespace sealscope::cli
