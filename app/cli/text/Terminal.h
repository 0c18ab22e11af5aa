// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/FileDescriptor.h"

#include <string_view>

namespace sealscope::cli {

enum class ColorChoice { automatic, always, never };

/// What standard output is and can show.
struct Terminal {
    bool isTerminal = false;
    bool hasColors = false;
    int columns = 0;  ///< of a terminal; 0 when nothing bounds the length of a line

    /// Of the running program: `NO_COLOR`, `CLICOLOR_FORCE`, `TERM` and `COLUMNS` count, and the terminal itself.
    static Terminal standardOutput(ColorChoice choice);
};

/// Colours carry no information of their own; what they say stands in the text too.
enum class Style { plain, faint, strong, accent, good, warning };
/// The sequence that switches a style on; empty for `plain`.
std::string_view sequence(Style style);
inline constexpr std::string_view resetSequence = "\x1B[0m";

/// The user's pager between this program's standard output and its terminal, for the life of the object.
class Pager {
public:
    Pager() = default;
    /// Makes `PAGER`, or `less`, ready to be started by the first output: a process that may start programs no longer needs to be one
    /// that reads captures.
    void prepare();
    /// Puts it in the place of standard output. Without one everything stays as it is.
    void start();
    /// Waits until the user has left it.
    ~Pager();

    Pager(const Pager&) = delete;
    Pager& operator=(const Pager&) = delete;

private:
    int process_ = 0;
    FileDescriptor input_;  ///< the pager's, until it takes the place of standard output
};

}  // namespace sealscope::cli
