// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace sealscope {

struct ProgramOptions {
    std::string input;                     ///< what the program finds on standard input
    std::vector<std::string> environment;  ///< "NAME=value"; "NAME" alone takes it away. Others are inherited
    std::string directory;                 ///< to run in; empty: this one
    std::chrono::seconds timeLimit{60};    ///< after which it is killed
};

struct ProgramResult {
    int status = 0;  ///< exit status; -1 when a signal ended it
    int signal = 0;  ///< that ended it, or 0
    bool timedOut = false;
    std::string output;  ///< standard output
    std::string errors;  ///< standard error
};

/// Runs a program to its end. `arguments` begin with its path, looked up in PATH when it has no slash.
/// Throws std::runtime_error when it cannot be started.
ProgramResult runProgram(const std::vector<std::string>& arguments, const ProgramOptions& options = {});

}  // namespace sealscope
