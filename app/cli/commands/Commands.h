// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/cli/commands/Command.h"

namespace sealscope::cli {

// Each in the file of its name: `PacketsCommand.cpp` and so on.
extern const Command followCommand;
extern const Command packetsCommand;
extern const Command treeCommand;
extern const Command streamsCommand;
extern const Command decryptCommand;
extern const Command exchangesCommand;
extern const Command objectsCommand;
extern const Command exportCommand;
extern const Command liveCommand;
extern const Command plugInsCommand;
extern const Command settingsCommand;

}  // namespace sealscope::cli
