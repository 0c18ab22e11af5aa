// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/cli/CommandLine.h"
#include "app/cli/Confining.h"
#include "app/cli/Output.h"
#include "app/cli/text/Terminal.h"
#include "app/plugins/PlugInLoader.h"

#include <span>
#include <string>
#include <string_view>

namespace sealscope::cli {

enum ExitStatus {
    done = 0,
    failed = 1,  ///< an input could not be read to its end, or an output not be written
    wrongCommandLine = 2,
};

/// What a command works with.
struct CommandContext {
    const Options& options;
    const Terminal& terminal;
    Output& output;        ///< standard output
    Confining& confining;  ///< begun by who opens captures, or an interface
};

/// What a command works on, and so what it keeps once it is confined.
enum class Access : std::uint8_t {
    ownData,    ///< plug-ins and their texts; confined before it runs
    settings,   ///< settings and the managed key log; confined before it runs
    captures,   ///< its arguments and the key logs; confined when what it writes is open
    interface,  ///< a network interface; confined when that is open
};

/// One command, described where it is written.
struct Command {
    std::string_view name;
    std::string_view arguments;    ///< as the usage line shows them: "FILE…"
    std::string_view summary;      ///< one line for the list of commands
    std::string_view description;  ///< paragraphs for the command's own help, in lines of at most 100 characters
    std::string_view examples;     ///< lines "command line|what it does", separated by line feeds
    OptionSet options;             ///< beside those that every command knows
    std::string_view outputArgument = "DIR";  ///< what --output takes, and what is written there
    std::string_view outputHelp = "write the plaintext of each direction to a file in DIR";
    int fewestArguments = 1;
    int mostArguments = -1;  ///< negative for any number
    bool countsRows = false;  ///< --count is about its rows, not about packets
    Access access = Access::ownData;
    PlugInPurpose plugIns = PlugInPurpose::everything;
    bool isPaged = false;  ///< its text is long: on a terminal the user's pager shows it
    ExitStatus (*run)(const CommandContext& context) = nullptr;
};

/// All commands, in the order of the help.
std::span<const Command* const> commands();
/// The command of a name, or null.
const Command* commandNamed(std::string_view name);

/// The options that every command knows.
inline constexpr OptionSet commonOptions{Option::color,  Option::quiet,     Option::verbose, Option::plugInPath,
                                         Option::memory, Option::noSandbox, Option::version, Option::help};

}  // namespace sealscope::cli
