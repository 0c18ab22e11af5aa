// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "tests/hostile/Shape.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace sealscope::hostile {

/// One run of a program, and what it took.
struct Measured {
    int status = -1;  ///< exit status; -1 when a signal ended it
    int signal = 0;
    bool timedOut = false;
    double seconds = 0;             ///< of processor time, of all its threads
    std::int64_t memory = 0;        ///< bytes that were resident at most
    std::int64_t unnamedFiles = 0;  ///< bytes of disk that its files without a name took, seen twenty times a second
    std::string obeyed;             ///< the first of its output that a terminal would obey, with what is around it
    std::string lastErrorLine;
    std::chrono::milliseconds sinceSignal{0};  ///< from the signal that was sent to its end
};

struct MeasuredOptions {
    std::filesystem::path directory;
    std::vector<std::string> environment;  ///< "NAME=value"; "NAME" alone takes it away
    std::chrono::seconds timeLimit{100};
    std::optional<int> signal;  ///< sent to it
    std::chrono::milliseconds signalAfter{150};
};

/// Runs a program whose output is looked at and thrown away.
Measured measure(const std::vector<std::string>& arguments, const MeasuredOptions& options);

/// Processor seconds of `gzip -1` over a file, or over so many bytes of what it unpacks to.
double gzipSeconds(const std::filesystem::path& file, bool isPacked);

/// Makes a shape in a process of its own, so that what it takes is not counted for what runs next.
Made makeApart(const Shape& shape, const std::filesystem::path& folder);

}  // namespace sealscope::hostile
