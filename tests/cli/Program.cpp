// SPDX-License-Identifier: Apache-2.0
#include "tests/cli/Program.h"

#include "harness/CaptureFile.h"
#include "harness/TempDirectory.h"

#include <cerrno>
#include <cstdlib>
#include <pty.h>
#include <sstream>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace sealscope::cli {

namespace {

const std::vector<std::string>& cleanEnvironment()
{
    static const TempDirectory home;
    static const std::vector<std::string> environment{"HOME=" + home.path().string(),
                                                      "XDG_CONFIG_HOME=" + home.file("config"),
                                                      "XDG_DATA_HOME=" + home.file("data"),
                                                      "TZ=UTC",
                                                      "LC_ALL=C.UTF-8",
                                                      "SSLKEYLOGFILE",
                                                      "NO_COLOR",
                                                      "CLICOLOR_FORCE",
                                                      "COLUMNS",
                                                      "PAGER=cat",
                                                      "SEALSCOPE_PLUGIN_PATH"};
    return environment;
}

}  // namespace

ProgramResult sealscope(std::vector<std::string> arguments, ProgramOptions options)
{
    arguments.insert(arguments.begin(), SEALSCOPE_PROGRAM);
    options.environment.insert(options.environment.begin(), cleanEnvironment().begin(), cleanEnvironment().end());
    return runProgram(arguments, options);
}

std::string sealscopeOnTerminal(const std::vector<std::string>& arguments, int columns, const std::vector<std::string>& environment,
                                std::string answer)
{
    const winsize size{.ws_row = 50, .ws_col = static_cast<unsigned short>(columns), .ws_xpixel = 0, .ws_ypixel = 0};
    int terminal = -1;
    const pid_t process = forkpty(&terminal, nullptr, nullptr, &size);
    if (process < 0) throw std::runtime_error("no pseudo-terminal");
    if (process == 0) {
        const auto set = [](const std::string& variable) {
            const std::size_t equals = variable.find('=');
            if (equals == std::string::npos)
                unsetenv(variable.c_str());
            else
                setenv(variable.substr(0, equals).c_str(), variable.substr(equals + 1).c_str(), 1);
        };
        for (const std::string& variable : cleanEnvironment()) set(variable);
        set("TERM=xterm-256color");
        for (const std::string& variable : environment) set(variable);
        std::vector<char*> words{const_cast<char*>(SEALSCOPE_PROGRAM)};
        for (const std::string& argument : arguments) words.push_back(const_cast<char*>(argument.c_str()));
        words.push_back(nullptr);
        execv(SEALSCOPE_PROGRAM, words.data());
        _exit(127);
    }
    std::string shown;
    char buffer[4'096];
    for (;;) {
        const ssize_t count = read(terminal, buffer, sizeof buffer);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) break;  // a terminal whose last program has ended reads as an error
        shown.append(buffer, static_cast<std::size_t>(count));
        if (!answer.empty() && shown.ends_with(": ") && write(terminal, answer.data(), answer.size()) > 0) answer.clear();
    }
    close(terminal);
    waitpid(process, nullptr, 0);
    std::erase(shown, '\r');
    return shown;
}

std::string writeCapture(const TempDirectory& directory, const std::vector<TLSFlight>& flights, const TCPConversationOptions& options)
{
    return directory.write("capture.pcap", pcapFile(packets(tcpSegments(flights, options))));
}

std::vector<nlohmann::json> jsonLines(const std::string& output)
{
    std::vector<nlohmann::json> lines;
    std::istringstream stream(output);
    for (std::string line; std::getline(stream, line);) lines.push_back(nlohmann::json::parse(line));
    return lines;
}

}  // namespace sealscope::cli
