// SPDX-License-Identifier: Apache-2.0
#include "app/cli/StreamReading.h"

#include "app/cli/CaptureReading.h"
#include "app/cli/Interrupt.h"
#include "app/cli/Messages.h"
#include "app/cli/Progress.h"
#include "app/cli/Secrets.h"

#include <algorithm>
#include <fmt/format.h>
#include <numeric>

namespace sealscope::cli {

std::unique_ptr<Session> openSession(const CommandContext& context, ExitStatus& status)
{
    catchInterrupts();
    std::unique_ptr<Session> session;
    {
        Progress progress("reading", !context.options.quiet);
        auto opened = Session::open({.files = context.options.arguments,
                                     .filter = context.options.filter,
                                     .maximumPackets = context.options.count,
                                     .keepsEveryBlock = !context.options.injectSecrets.empty() || !context.options.stripSecrets.empty(),
                                     .stop = interruption(),
                                     .progress = [&](std::int64_t done, std::int64_t total) {
                                         progress.show(done, total);
                                         return !isInterrupted();
                                     }});
        if (!opened) {
            status = complainAbout(opened.error());
            return nullptr;
        }
        session = std::move(*opened);
    }
    // What was indexed is printed all the same; a further Ctrl-C then ends the printing.
    if (isInterrupted()) catchInterrupts();
    status = std::max(status, useSecrets(context.options.keylogs, session->embeddedKeyLog()));
    return session;
}

std::vector<std::int64_t> wantedStreams(const CommandContext& context, const Session& session, ExitStatus& status)
{
    const std::int64_t count = session.streamCount();
    std::vector<std::int64_t> streams = context.options.streams;
    if (streams.empty()) {
        streams.resize(static_cast<std::size_t>(count));
        std::iota(streams.begin(), streams.end(), std::int64_t{0});
        return streams;
    }
    std::ranges::sort(streams);
    const auto repeated = std::ranges::unique(streams);
    streams.erase(repeated.begin(), repeated.end());
    if (streams.back() >= count) {
        if (count == 0)
            complain(fmt::format("--stream {}: the capture has no TCP connections", streams.back()));
        else if (count == 1)
            complain(fmt::format("--stream {}: the capture has 1 TCP connection, numbered 0", streams.back()));
        else
            complain(fmt::format("--stream {}: the capture has {} TCP connections, numbered 0 to {}", streams.back(), count, count - 1));
        status = wrongCommandLine;
        std::erase_if(streams, [&](std::int64_t stream) { return stream >= count; });
    }
    return streams;
}

ExitStatus complainAboutDamage(const CommandContext& context, const Session& session, ExitStatus status)
{
    const ExitStatus damage = complainAboutDamage(context, session.errors(), session.notes(), session.packetCount());
    for (const CaptureError& lost : session.capture().lostFiles()) status = std::max(status, complainAbout(lost));
    return std::max(status, damage);
}

const VELStreamInterpreting* tlsInterpreter()
{
    // Its display name is how the contract tells this interpreter from the others.
    const auto interpreters = VELStreamInterpreterRegistry::shared().snapshot();
    const auto found = std::ranges::find(interpreters, std::string_view("TLS"), &VELStreamInterpreting::streamDisplayName);
    return found == interpreters.end() ? nullptr : *found;
}

}  // namespace sealscope::cli
