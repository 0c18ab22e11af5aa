// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/cli/commands/Command.h"
#include "app/session/Session.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace sealscope::cli {

/// What the bodies of a capture may decode to, beside the limit of each: nothing where the user says what that is.
std::shared_ptr<DecodingAllowance> decodingAllowance(const Options& options);
/// For so many bytes of the capture.
void allowDecoding(DecodingAllowance* allowance, std::int64_t capturedBytes);

/// How many messages of the capture are told: some bytes of it can stand for one, and to tell it takes microseconds.
std::int64_t mostMessages(const Options& options, const Session& session);
/// Says that there are more.
ExitStatus complainAboutMessages(std::int64_t most);

/// Opens the files of the command line as one session, with the secrets that it names and those inside the capture in
/// place; says why not when it fails, and sets `status`.
std::unique_ptr<Session> openSession(const CommandContext& context, ExitStatus& status);

/// The streams that the command line asks for, in ascending order. Says so when the capture does not have one of them,
/// and sets `status`.
std::vector<std::int64_t> wantedStreams(const CommandContext& context, const Session& session, ExitStatus& status);

/// Says what of the capture was not read, after the rest has been printed. The worse of both statuses is given.
ExitStatus complainAboutDamage(const CommandContext& context, const Session& session, ExitStatus status);

}  // namespace sealscope::cli
