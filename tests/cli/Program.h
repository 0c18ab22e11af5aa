// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "harness/PacketPath.h"
#include "harness/RunProgram.h"
#include "harness/TempDirectory.h"

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

/// Writes a connection with a TLS session on it as "capture.pcap"; its path.
std::string writeCapture(const TempDirectory& directory, const std::vector<TLSFlight>& flights, const TCPConversationOptions& options = {});

/// The lines of NDJSON output, parsed; a line that does not parse throws.
std::vector<nlohmann::json> jsonLines(const std::string& output);

}  // namespace sealscope::cli
