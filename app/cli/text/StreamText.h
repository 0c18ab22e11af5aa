// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/cli/text/Terminal.h"
#include "app/records/StreamRecords.h"
#include "app/session/Session.h"
#include "host/VELModels/StreamMessage.h"
#include "host/VELModels/TLSDecryptionProbeRegistry.h"
#include "host/VELModels/VELStreamInterpreting.h"

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sealscope::cli {

/// What stands above a conversation.
struct StreamHeading {
    StreamSummary summary;
    std::string_view interpreter;               ///< name of the interpreter that read the stream
    std::optional<TLSDecryptionReport> report;  ///< for server name, version and cipher suite
};

/// How much of long bodies a terminal shows; elsewhere all of each is written.
enum class ShownBodies { beginnings, whole };

/// Appends a stream as a conversation: a heading, then message by message the time, who speaks, what, the details, the
/// message that it answers, and the body. A body is shown as text where it is text, else in hexadecimal; on a terminal only
/// its beginning.
void appendStreamText(std::string& text, const StreamHeading& heading, const StreamTeller& tell, const Terminal& terminal,
                      ShownBodies bodies, const Spill& spill);

}  // namespace sealscope::cli
