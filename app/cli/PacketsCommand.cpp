// SPDX-License-Identifier: Apache-2.0
#include "app/cli/CaptureReading.h"
#include "app/cli/Commands.h"
#include "app/cli/Interrupt.h"
#include "app/cli/PacketRows.h"
#include "app/cli/Progress.h"

#include <utility>
#include <vector>

namespace sealscope::cli {

namespace {

ExitStatus run(const CommandContext& context)
{
    ExitStatus status = done;
    const auto capture = openCapture(context, status);
    if (!capture) return status;
    catchInterrupts();

    const PacketAnalyzers analyzers;
    const auto format = context.options.json ? PacketRowFormat::json() : PacketRowFormat::table(analyzers, context.terminal);
    PacketDecoder decoder;
    Progress progress("reading", !context.options.quiet && !context.terminal.isTerminal);

    CapturedPacket packet;
    TCPPacket segment;
    std::string text;
    std::int64_t packets = 0;
    while (context.output.isOpen() && !isInterrupted() && capture->next(packet)) {
        ++packets;
        progress.update(capture->bytesRead(), capture->bytesTotal());
        if (!decoder.decode(packet, segment) || segment.payload.isEmpty()) continue;
        auto match = analyzers.match(segment.payload);
        if (!match) continue;
        const PacketRow row{.number = packet.number,
                            .time = packet.time.value(),
                            .source = segment.source,
                            .destination = segment.destination,
                            .payload = segment.payload,
                            .match = std::move(match)};
        text.clear();
        format->append(text, row);
        context.output.write(text);
    }
    context.output.flush();
    return complainAboutDamage(capture->errors(), decoder.notes(), packets, isInterrupted());
}

}  // namespace

const Command packetsCommand{
    .name = "packets",
    .arguments = "FILE…",
    .summary = "the packet list: one row per packet that a plug-in recognises",
    .description = "Prints a row for each packet whose TCP payload a plug-in recognises: number, time, endpoints, the columns of the\n"
                   "plug-in, and a summary.",
    .examples = "sealscope packets capture.pcapng|the list\n"
                "sealscope packets -f 'host 192.0.2.1' capture.pcapng|only what the filter passes\n"
                "sealscope packets --json capture.pcapng|one JSON object a line\n"
                "tcpdump -w - \\| sealscope packets -|from another program, as it comes\n",
    .options = {Option::json, Option::filter, Option::count},
    .run = run};

}  // namespace sealscope::cli
