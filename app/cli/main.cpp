// SPDX-License-Identifier: Apache-2.0
#include "app/cli/Confining.h"
#include "app/cli/Interrupt.h"
#include "app/cli/commands/Commands.h"
#include "app/cli/text/Help.h"
#include "app/cli/text/Messages.h"
#include "app/plugins/PlugInLoader.h"
#include "platform/UserDefaults.h"

#include <csignal>
#include <cstring>
#include <exception>
#include <fmt/format.h>
#include <malloc.h>
#include <new>
#include <unistd.h>

namespace sealscope::cli {

namespace {

/// Streams come and go by the thousand, and with them some hundred kilobytes at the heap's end. By itself the heap would give
/// them back to the system and take them again each time, page by page; this much it may keep.
void keepFreedMemory()
{
    mallopt(M_TRIM_THRESHOLD, 16 << 20);
    mallopt(M_MMAP_THRESHOLD, 4 << 20);
}

/// Ends what was printed: a disk that was full is told, a reader that went away is not.
ExitStatus finish(Output& output, ExitStatus status)
{
    output.flush();
    if (output.error() == 0) return output.isOpen() || wasInterrupted() ? status : done;
    complain(fmt::format("standard output: {}", std::strerror(output.error())));
    return failed;
}

ExitStatus runCommand(const Options& options, Output& output, Confining& confining)
{
    const Terminal terminal = Terminal::standardOutput(options.color);
    if (options.quiet) silenceRemarks();
    const PlugInLoading plugIns = PlugInLoader::load({options.plugInPaths.begin(), options.plugInPaths.end()}, options.command->plugIns);
    for (const PlugInProblem& problem : plugIns.problems) complain(problem.text());
    // Everything works without kept settings; `settings` says it itself.
    const auto settingsProblem = UserDefaults::standard().lastProblem();
    if (settingsProblem && options.command != &settingsCommand) remark(settingsProblem->text());
    if (terminal.isTerminal) output.flushEachWrite();
    ExitStatus status = done;
    {
        Pager pager;
        if (terminal.isTerminal && options.command->isPaged && !options.json) {
            pager.prepare();
            output.beforeFirstByte([&] {
                pager.start();
                holdMessages();
            });
        }
        if (options.command->access == Access::ownData || options.command->access == Access::settings) confining.begin();
        status = options.command->run({.options = options, .terminal = terminal, .output = output, .confining = confining});
        output.flush();
    }
    releaseMessages();
    return status;
}

ExitStatus runProgram(int argumentCount, char** arguments)
{
    std::signal(SIGPIPE, SIG_IGN);
    keepFreedMemory();
    const auto options = parseCommandLine(argumentCount, arguments);
    if (!options) {
        complain(options.error().text());
        return wrongCommandLine;
    }
    Output output(STDOUT_FILENO);
    if (options->help) {
        output.write(helpText(options->command));
        return finish(output, done);
    }
    Confining confining(*options);
    if (options->version) {
        output.write("sealscope " SEALSCOPE_VERSION "\n");
        if (options->verbose) {
            confining.begin();
            output.write(confining.text());
        }
        return finish(output, done);
    }
    ExitStatus status = failed;
    try {
        status = runCommand(*options, output, confining);
    } catch (const std::bad_alloc&) {
        releaseMessages();
        complain(confining.outOfMemory());
    }
    return finish(output, status);
}

}  // namespace

}  // namespace sealscope::cli

int main(int argumentCount, char** arguments)
{
    using namespace sealscope::cli;
    try {
        return runProgram(argumentCount, arguments);
    } catch (const std::bad_alloc&) {
        complain("out of memory");
    } catch (const std::exception& problem) {
        complain(problem.what());
    }
    releaseMessages();
    return failed;
}
