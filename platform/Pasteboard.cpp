// SPDX-License-Identifier: Apache-2.0
#include "platform/Pasteboard.h"

#include "platform/FileDescriptor.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <spawn.h>
#include <string_view>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace sealscope {

namespace {

bool isSet(const char* name)
{
    const char* value = std::getenv(name);
    return value && *value;
}

/// Runs a program with a text as its standard input, and its output thrown away. True when it ended with status 0.
/// A text of any length fits: it is handed over as an unnamed file, since a pipe to a program that ends early would
/// bring a signal.
bool run(const std::vector<const char*>& arguments, const std::string& input)
{
    const FileDescriptor file(memfd_create("pasteboard", MFD_CLOEXEC));
    if (!file || file.write(DataView(input)) != 0) return false;
    lseek(file.number(), 0, SEEK_SET);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, file.number(), STDIN_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    std::vector<char*> argv;
    for (const char* argument : arguments) argv.push_back(const_cast<char*>(argument));
    argv.push_back(nullptr);
    pid_t child = 0;
    const bool started = posix_spawnp(&child, argv[0], &actions, nullptr, argv.data(), environ) == 0;
    posix_spawn_file_actions_destroy(&actions);
    if (!started) return false;

    int status = 0;
    while (waitpid(child, &status, 0) < 0)
        if (errno != EINTR) return false;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

/// Programs that own the clipboard of a Wayland or X11 session for as long as it is asked for.
bool writeToSession(const std::string& text)
{
    if (isSet("WAYLAND_DISPLAY") && run({"wl-copy", "--type", "text/plain"}, text)) return true;
    if (isSet("DISPLAY") && (run({"xclip", "-selection", "clipboard", "-in"}, text) || run({"xsel", "--clipboard", "--input"}, text)))
        return true;
    return !isSet("WAYLAND_DISPLAY") && !isSet("DISPLAY");
}

}  // namespace

Pasteboard& Pasteboard::general()
{
    static auto& pasteboard = *new Pasteboard;
    return pasteboard;
}

Pasteboard::Pasteboard() : writer_(writeToSession) {}

void Pasteboard::clearContents() { setString({}); }

bool Pasteboard::setString(std::string text)
{
    const std::lock_guard lock(mutex_);
    text_ = std::move(text);
    return !writer_ || writer_(text_);
}

std::string Pasteboard::string() const
{
    const std::lock_guard lock(mutex_);
    return text_;
}

void Pasteboard::setWriter(Writer writer)
{
    const std::lock_guard lock(mutex_);
    writer_ = std::move(writer);
}

}  // namespace sealscope
