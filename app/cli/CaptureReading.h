// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/capture/Capture.h"
#include "app/capture/PacketDecoder.h"
#include "app/cli/commands/Command.h"

#include <memory>
#include <vector>

namespace sealscope::cli {

/// Says that a capture could not be opened, and gives the status to end with.
ExitStatus complainAbout(const CaptureError& error);

/// Opens the files of the command line, and from then on ends by itself when it is asked to; says why not when it fails, and sets `status`.
std::unique_ptr<Capture> openCapture(const CommandContext& context, ExitStatus& status);

/// Says what of a capture was not read, after what was read has been printed, and gives the status to end with.
/// `packets` counts what was read.
ExitStatus complainAboutDamage(const CommandContext& context, const std::vector<CaptureError>& errors, const DecoderNotes& notes,
                               std::int64_t packets);

}  // namespace sealscope::cli
