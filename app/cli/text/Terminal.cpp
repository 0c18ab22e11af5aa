// SPDX-License-Identifier: Apache-2.0
#include "app/cli/text/Terminal.h"

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace sealscope::cli {

namespace {

std::string_view environment(const char* name)
{
    const char* value = std::getenv(name);
    return value ? value : "";
}

bool wantsColors(ColorChoice choice, bool isTerminal)
{
    if (choice != ColorChoice::automatic) return choice == ColorChoice::always;
    if (!environment("NO_COLOR").empty()) return false;
    if (const auto force = environment("CLICOLOR_FORCE"); !force.empty() && force != "0") return true;
    const std::string_view terminal = environment("TERM");
    return isTerminal && !terminal.empty() && terminal != "dumb";
}

int terminalColumns()
{
    int columns = 0;
    const std::string_view wanted = environment("COLUMNS");
    std::from_chars(wanted.data(), wanted.data() + wanted.size(), columns);
    if (columns > 0) return columns;
    winsize size{};
    return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

}  // namespace

Terminal Terminal::standardOutput(ColorChoice choice)
{
    const bool isTerminal = isatty(STDOUT_FILENO) == 1;
    return {.isTerminal = isTerminal, .hasColors = wantsColors(choice, isTerminal), .columns = isTerminal ? terminalColumns() : 0};
}

std::string_view sequence(Style style)
{
    switch (style) {
    case Style::plain: return "";
    case Style::faint: return "\x1B[2m";
    case Style::strong: return "\x1B[1m";
    case Style::accent: return "\x1B[36m";
    case Style::good: return "\x1B[32m";
    case Style::warning: return "\x1B[33m";
    }
    std::unreachable();
}

void Pager::start()
{
    std::string command(environment("PAGER"));
    if (command.empty()) command = "less";
    if (command == "cat") return;
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return;
    process_ = fork();
    if (process_ == 0) {
        dup2(ends[0], STDIN_FILENO);
        // What the user set for `less` stays; otherwise it shows colours, and leaves at once when all fits on one screen.
        setenv("LESS", "FRX", 0);
        std::signal(SIGPIPE, SIG_DFL);
        // Ctrl-C is for the program that feeds the pager, which goes on with what it has.
        std::signal(SIGINT, SIG_IGN);
        // A pager that is not there must not swallow the output.
        const std::string line = command + " || [ $? -ne 127 ] || cat";
        execl("/bin/sh", "sh", "-c", line.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    if (process_ > 0)
        dup2(ends[1], STDOUT_FILENO);
    else
        process_ = 0;
    close(ends[0]);
    close(ends[1]);
}

Pager::~Pager()
{
    if (process_ == 0) return;
    // The end of the output: the pager waits for it.
    if (const int null = open("/dev/null", O_WRONLY | O_CLOEXEC); null >= 0) {
        dup2(null, STDOUT_FILENO);
        close(null);
    }
    while (waitpid(process_, nullptr, 0) < 0 && errno == EINTR) {}
}

}  // namespace sealscope::cli
