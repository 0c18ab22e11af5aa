// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "harness/RunProgram.h"

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace sealscope::cli {

/// Runs the built program away from the user's settings and key logs, with times in UTC.
ProgramResult sealscope(std::vector<std::string> arguments, ProgramOptions options = {});

/// What the program shows on a terminal of so many columns: its standard output, with line feeds for line ends. `answer` is typed when
/// it asks for something, which ends in ": ".
std::string sealscopeOnTerminal(const std::vector<std::string>& arguments, int columns, const std::vector<std::string>& environment = {},
                                std::string answer = {});

/// The lines of NDJSON output, parsed; a line that does not parse throws.
std::vector<nlohmann::json> jsonLines(const std::string& output);

}  // namespace sealscope::cli
