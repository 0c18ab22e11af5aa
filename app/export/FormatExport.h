// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/OutputFile.h"
#include "app/session/Session.h"
#include "host/VELModels/VELExporting.h"

#include <cstdint>
#include <stop_token>
#include <vector>

namespace sealscope {

/// Hands the interpretations of some streams to a format of a plug-in, one by one in the order given, and writes what it makes of
/// them. Ends early, with a whole file, when it shall stop; how writing went the file tells.
void exportStreams(const Session& session, const std::vector<std::int64_t>& streams, const StreamExportFormat& format, OutputFile& file,
                   const std::stop_token& stop);

}  // namespace sealscope
