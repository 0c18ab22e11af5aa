// SPDX-License-Identifier: Apache-2.0
#include "harness/RunProgram.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <sys/wait.h>
#include <tuple>
#include <unistd.h>

namespace sealscope {

namespace {

struct Pipe {
    int ends[2] = {-1, -1};
    Pipe()
    {
        if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error(std::string("cannot make a pipe: ") + std::strerror(errno));
    }
    ~Pipe()
    {
        close(0);
        close(1);
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    void close(int end)
    {
        if (ends[end] >= 0) ::close(ends[end]);
        ends[end] = -1;
    }
};

[[noreturn]] void become(const std::vector<std::string>& arguments, const ProgramOptions& options, const Pipe& failure)
{
    for (const std::string& entry : options.environment) {
        const std::size_t equals = entry.find('=');
        if (equals == std::string::npos)
            unsetenv(entry.c_str());
        else
            setenv(entry.substr(0, equals).c_str(), entry.c_str() + equals + 1, 1);
    }
    std::vector<char*> argv;
    for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    if (options.directory.empty() || chdir(options.directory.c_str()) == 0) execvp(argv[0], argv.data());
    const int reason = errno;
    [[maybe_unused]] const ssize_t written = write(failure.ends[1], &reason, sizeof reason);
    _exit(127);
}

}  // namespace

ProgramResult runProgram(const std::vector<std::string>& arguments, const ProgramOptions& options)
{
    Pipe input;
    Pipe output;
    Pipe errors;
    Pipe failure;  // closed by exec; otherwise it says why there was none
    const pid_t child = fork();
    if (child < 0) throw std::runtime_error(std::string("cannot fork: ") + std::strerror(errno));
    if (child == 0) {
        dup2(input.ends[0], STDIN_FILENO);
        dup2(output.ends[1], STDOUT_FILENO);
        dup2(errors.ends[1], STDERR_FILENO);
        become(arguments, options, failure);
    }
    input.close(0);
    output.close(1);
    errors.close(1);
    failure.close(1);
    int reason = 0;
    if (read(failure.ends[0], &reason, sizeof reason) == sizeof reason) {
        waitpid(child, nullptr, 0);
        throw std::runtime_error("cannot run " + arguments.front() + ": " + std::strerror(reason));
    }

    // A program that ends before it has read its input must not end the test.
    struct sigaction ignore{};
    struct sigaction before{};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ignore, &before);
    fcntl(input.ends[1], F_SETFL, O_NONBLOCK);

    ProgramResult result;
    std::size_t given = 0;
    const auto deadline = std::chrono::steady_clock::now() + options.timeLimit;
    while (output.ends[0] >= 0 || errors.ends[0] >= 0) {
        if (given == options.input.size()) input.close(1);
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
        pollfd waits[3] = {{input.ends[1], POLLOUT, 0}, {output.ends[0], POLLIN, 0}, {errors.ends[0], POLLIN, 0}};
        const int ready = poll(waits, 3, static_cast<int>(left > 0 ? left : 0));
        if (ready == 0 || left <= 0) {
            kill(child, SIGKILL);
            result.timedOut = true;
            break;
        }
        if (waits[0].revents != 0) {
            const ssize_t count = write(input.ends[1], options.input.data() + given, options.input.size() - given);
            if (count > 0)
                given += static_cast<std::size_t>(count);
            else if (errno != EAGAIN)
                given = options.input.size();
        }
        for (const auto& [wait, source, target] :
             {std::tuple{&waits[1], &output, &result.output}, std::tuple{&waits[2], &errors, &result.errors}}) {
            if (wait->revents == 0) continue;
            char buffer[65'536];
            const ssize_t count = read(source->ends[0], buffer, sizeof buffer);
            if (count > 0)
                target->append(buffer, static_cast<std::size_t>(count));
            else
                source->close(0);
        }
    }
    int status = 0;
    waitpid(child, &status, 0);
    sigaction(SIGPIPE, &before, nullptr);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    return result;
}

}  // namespace sealscope
