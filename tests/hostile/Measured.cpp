// SPDX-License-Identifier: Apache-2.0
#include "tests/hostile/Measured.h"

#include "harness/RunProgram.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <stdexcept>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace sealscope::hostile {

namespace {

using Clock = std::chrono::steady_clock;

/// Looks for what a terminal obeys: control characters of both sets, and those that turn the direction of text.
class TerminalWatch {
public:
    void add(std::string_view text)
    {
        for (std::size_t i = 0; i < text.size() && found_.empty(); ++i) {
            last_ = last_ << 8 | static_cast<unsigned char>(text[i]);
            if (isObeyed()) found_ = fmt::format("byte {:02X} in '{}'", last_ & 0xFF, around(text, i));
        }
    }
    const std::string& found() const { return found_; }

private:
    bool isObeyed() const
    {
        const std::uint32_t byte = last_ & 0xFF, two = last_ & 0xFFFF, three = last_ & 0xFF'FFFF;
        if ((byte < 0x20 && byte != '\n' && byte != '\t') || byte == 0x7F) return true;
        if (two >= 0xC280 && two <= 0xC29F) return true;                   // U+0080 to U+009F
        return (three >= 0xE280AA && three <= 0xE280AE) ||                 // U+202A to U+202E
               (three >= 0xE281A6 && three <= 0xE281A9) || two == 0xD89C;  // U+2066 to U+2069, U+061C
    }
    static std::string around(std::string_view text, std::size_t place)
    {
        const std::size_t start = place < 40 ? 0 : place - 40;
        std::string shown;
        for (const char letter : text.substr(start, 80)) shown += letter >= ' ' && letter < 0x7F ? letter : '?';
        return shown;
    }
    std::uint32_t last_ = 0;
    std::string found_;
};

/// Disk that the files take which a process has open and nobody can find by a name. Holes in them take none.
std::int64_t unnamedFilesOf(pid_t process)
{
    std::int64_t bytes = 0;
    std::error_code error;
    const std::filesystem::path folder = fmt::format("/proc/{}/fd", process);
    for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
        struct stat status = {};
        if (stat(entry->path().c_str(), &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink == 0)
            bytes += std::int64_t{status.st_blocks} * 512;
    }
    return bytes;
}

double secondsOf(const timeval& time) { return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6; }

[[noreturn]] void become(const std::vector<std::string>& arguments, const MeasuredOptions& options, int output, int errors)
{
    dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
    dup2(output, STDOUT_FILENO);
    dup2(errors, STDERR_FILENO);
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
    if (chdir(options.directory.c_str()) == 0) execv(argv[0], argv.data());
    _exit(127);
}

}  // namespace

Measured measure(const std::vector<std::string>& arguments, const MeasuredOptions& options)
{
    int output[2], errors[2];
    if (pipe2(output, O_CLOEXEC) != 0 || pipe2(errors, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    const pid_t child = fork();
    if (child < 0) throw std::runtime_error("cannot fork");
    if (child == 0) become(arguments, options, output[1], errors[1]);
    close(output[1]);
    close(errors[1]);

    Measured measured;
    TerminalWatch watches[2];
    const auto start = Clock::now();
    std::optional<Clock::time_point> signalled;
    auto nextLook = start;
    pollfd ends[2] = {{output[0], POLLIN, 0}, {errors[0], POLLIN, 0}};
    while (ends[0].fd >= 0 || ends[1].fd >= 0) {
        const auto now = Clock::now();
        if (options.signal && !signalled && now - start >= options.signalAfter) {
            kill(child, *options.signal);
            signalled = now;
        }
        if (now - start > options.timeLimit) {
            kill(child, SIGKILL);
            measured.timedOut = true;
            break;
        }
        if (now >= nextLook) {
            measured.unnamedFiles = std::max(measured.unnamedFiles, unnamedFilesOf(child));
            nextLook = now + std::chrono::milliseconds(50);
        }
        poll(ends, 2, 10);
        for (int i = 0; i < 2; ++i) {
            if (ends[i].revents == 0) continue;
            char buffer[65'536];
            const ssize_t count = read(ends[i].fd, buffer, sizeof buffer);
            if (count <= 0) {
                close(std::exchange(ends[i].fd, -1));
                continue;
            }
            const std::string_view text(buffer, static_cast<std::size_t>(count));
            watches[i].add(text);
            if (i == 1) measured.lastErrorLine = text.substr(0, 300);
        }
    }
    for (const pollfd& end : ends)
        if (end.fd >= 0) close(end.fd);
    int status = 0;
    rusage used{};
    wait4(child, &status, 0, &used);
    if (signalled) measured.sinceSignal = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - *signalled);
    measured.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    measured.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    measured.seconds = secondsOf(used.ru_utime) + secondsOf(used.ru_stime);
    measured.memory = std::int64_t{used.ru_maxrss} * 1'024;
    for (const TerminalWatch& watch : watches)
        if (measured.obeyed.empty()) measured.obeyed = watch.found();
    return measured;
}

double gzipSeconds(const std::filesystem::path& file, bool isPacked)
{
    const std::string unpack = "(zstd -dc '" + file.string() + "' || gzip -dc '" + file.string() + "') 2>/dev/null | head -c 1073741824 | ";
    rusage before{}, after{};
    getrusage(RUSAGE_CHILDREN, &before);
    runProgram({"sh", "-c", isPacked ? unpack + "gzip -1 >/dev/null" : "gzip -1 -c '" + file.string() + "' >/dev/null"});
    getrusage(RUSAGE_CHILDREN, &after);
    return secondsOf(after.ru_utime) + secondsOf(after.ru_stime) - secondsOf(before.ru_utime) - secondsOf(before.ru_stime);
}

Made makeApart(const Shape& shape, const std::filesystem::path& folder)
{
    int ends[2];
    if (pipe(ends) != 0) throw std::runtime_error("no pipe");
    const pid_t child = fork();
    if (child == 0) {
        int status = 0;
        try {
            const Made made = shape.make(folder);
            status = write(ends[1], &made, sizeof made) == sizeof made ? 0 : 1;
        } catch (const std::exception& problem) {
            fmt::print(stderr, "{}: {}\n", shape.name, problem.what());
            status = 1;
        }
        _exit(status);
    }
    close(ends[1]);
    Made made;
    const bool isMade = read(ends[0], &made, sizeof made) == sizeof made;
    close(ends[0]);
    waitpid(child, nullptr, 0);
    if (!isMade) throw std::runtime_error(shape.name + " could not be made");
    return made;
}

}  // namespace sealscope::hostile
