// SPDX-License-Identifier: Apache-2.0
#include "app/cli/commands/Commands.h"

#include <algorithm>

namespace sealscope::cli {

std::span<const Command* const> commands()
{
    static constexpr const Command* all[] = {&followCommand, &exchangesCommand, &objectsCommand, &packetsCommand, &treeCommand,    &streamsCommand,
                                             &decryptCommand, &exportCommand, &liveCommand, &plugInsCommand, &settingsCommand};
    return all;
}

const Command* commandNamed(std::string_view name)
{
    const auto found = std::ranges::find(commands(), name, &Command::name);
    return found == commands().end() ? nullptr : *found;
}

}  // namespace sealscope::cli
