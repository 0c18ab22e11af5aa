// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/session/Session.h"
#include "host/VELModels/VELExporting.h"
#include "platform/OutputFile.h"

#include <cstdint>
#include <limits>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

namespace sealscope {

/// Why an export ends.
enum class ExportEnding : std::uint8_t {
    complete,         ///< or stopped
    tooManyBytes,     ///< were made of the capture: 448 MiB and six times its size is what a disk may be asked for
    tooManyMessages,  ///< than were allowed
};

/// Hands the interpretations of some streams to a format of a plug-in, one by one in the order given, and writes what it makes of
/// them. Ends early, with a whole file, when it shall stop; how writing went the file tells.
ExportEnding exportStreams(const Session& session, const std::vector<std::int64_t>& streams, const StreamExportFormat& format,
                           OutputFile& file, const std::stop_token& stop,
                           std::int64_t mostMessages = std::numeric_limits<std::int64_t>::max());

/// What a format makes of one stream alone, or of some of its messages, as text; nothing when it is longer than a clipboard should hold.
/// Empty when the format finds nothing in it that it writes about.
std::optional<std::string> exportedText(const TCPStream& stream, const StreamInterpretation& interpretation,
                                        const StreamExportFormat& format);

}  // namespace sealscope
