// SPDX-License-Identifier: Apache-2.0
#include "app/cli/text/Terminal.h"

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
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

enum class Device : std::uint8_t { terminal, other };

bool wantsColors(ColorChoice choice, Device device)
{
    if (choice != ColorChoice::automatic) return choice == ColorChoice::always;
    if (!environment("NO_COLOR").empty()) return false;
    if (const auto force = environment("CLICOLOR_FORCE"); !force.empty() && force != "0") return true;
    const std::string_view terminal = environment("TERM");
    return device == Device::terminal && !terminal.empty() && terminal != "dumb";
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
    return {.isTerminal = isTerminal,
            .hasColors = wantsColors(choice, isTerminal ? Device::terminal : Device::other),
            .columns = isTerminal ? terminalColumns() : 0};
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

namespace {

/// Waits for the first output and becomes the pager; ends with a program that has none.
[[noreturn]] void becomePager(int input, const std::string& command)
{
    pollfd output{.fd = input, .events = POLLIN, .revents = 0};
    while (poll(&output, 1, -1) < 0 && errno == EINTR) {}
    if ((output.revents & POLLIN) == 0) _exit(0);
    dup2(input, STDIN_FILENO);
    // What the user set for `less` stays; otherwise it shows colours, and leaves at once when all fits on one screen.
    setenv("LESS", "FRX", 0);
    std::signal(SIGPIPE, SIG_DFL);
    // A pager that is not there must not swallow the output.
    const std::string line = command + " || [ $? -ne 127 ] || cat";
    execl("/bin/sh", "sh", "-c", line.c_str(), static_cast<char*>(nullptr));
    _exit(127);
}

}  // namespace

void Pager::prepare()
{
    std::string command(environment("PAGER"));
    if (command.empty()) command = "less";
    if (command == "cat") return;
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return;
    const FileDescriptor output(ends[0]);
    input_ = FileDescriptor(ends[1]);
    process_ = fork();
    if (process_ == 0) {
        // Ctrl-C is for the program that feeds the pager, which goes on with what it has.
        std::signal(SIGINT, SIG_IGN);
        input_.close();
        becomePager(output.number(), command);
    }
    if (process_ > 0) return;
    process_ = 0;
    input_.close();
}

void Pager::start()
{
    if (!input_) return;
    dup2(input_.number(), STDOUT_FILENO);
    input_.close();
}

Pager::~Pager()
{
    if (process_ == 0) return;
    if (input_) {
        input_.close();
    } else if (const FileDescriptor null(open("/dev/null", O_WRONLY | O_CLOEXEC)); null) {
        // The end of the output: the pager waits for it.
        dup2(null.number(), STDOUT_FILENO);
    }
    while (waitpid(process_, nullptr, 0) < 0 && errno == EINTR) {}
}

}  // namespace sealscope::cli
