// SPDX-License-Identifier: Apache-2.0
#include "app/capture/LiveCapture.h"
#include "app/cli/CaptureReading.h"
#include "app/cli/commands/Commands.h"
#include "app/cli/Interrupt.h"
#include "app/cli/StreamReading.h"
#include "app/cli/text/ExchangeRows.h"
#include "app/cli/text/Messages.h"
#include "app/cli/text/PacketRows.h"
#include "app/records/ExchangeRecords.h"
#include "app/records/VerdictSentence.h"
#include "app/session/LiveSession.h"
#include "app/session/PacketRowReader.h"
#include "app/verdict/StreamVerdict.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fmt/format.h>
#include <net/if.h>
#include <string>
#include <vector>

namespace sealscope::cli {

namespace {

std::atomic<LiveCapture*> running = nullptr;  // for the signal handler

/// Lets signals end a capture as long as it is there.
class Running {
public:
    explicit Running(LiveCapture& capture)
    {
        running = &capture;
        catchInterrupts([] {
            if (LiveCapture* const active = running) active->stop();
        });
    }
    ~Running() { running = nullptr; }
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;
};

std::vector<std::string> interfaceNames()
{
    std::vector<std::string> names;
    struct if_nameindex* const all = if_nameindex();
    for (const auto* one = all; one && one->if_index != 0; ++one) names.emplace_back(one->if_name);
    if (all) if_freenameindex(all);
    return names;
}

/// Prints rows until the user, the count or the interface ends it. What has come is written as soon as no more is waiting.
LiveCapture::Outcome printRows(const CommandContext& context, const PacketAnalyzers& analyzers, LiveCapture& capture, std::int64_t& packets)
{
    const auto format = context.options.json ? PacketRowFormat::json() : PacketRowFormat::table(analyzers, context.terminal);
    PacketRowMaker maker(analyzers);
    CapturedPacket packet;
    PacketRow row;
    std::string text;
    bool isFlushed = true;
    for (std::int64_t left = context.options.count; left != 0 && context.output.isOpen();) {
        const auto outcome = capture.next(packet, std::chrono::milliseconds(isFlushed ? 1'000 : 0));
        if (outcome == LiveCapture::Outcome::timeout) {
            context.output.flush();
            isFlushed = true;
        } else if (outcome != LiveCapture::Outcome::packet) {
            return outcome;
        } else {
            ++packets;
            if (left > 0) --left;
            if (!maker.make(packet, row)) continue;
            text.clear();
            format->append(text, row);
            context.output.write(text);
            isFlushed = false;
        }
    }
    return LiveCapture::Outcome::stopped;
}

/// Prints exchanges as they become complete, until the user, the count or the interface ends it.
LiveCapture::Outcome printExchanges(const CommandContext& context, LiveSession& session, LiveCapture& capture,
                                    DecodingAllowance* allowance, std::int64_t& packets)
{
    using Clock = std::chrono::steady_clock;
    // Together with the time that a packet needs to get here well below what anybody notices.
    constexpr std::chrono::milliseconds betweenReads{25};
    ExchangeTable table(context.terminal);
    std::int64_t left = context.options.count;  // negative: no limit
    std::string text, cells;
    const auto print = [&](const LiveExchange& found) {
        if (left == 0) return;
        if (left > 0) --left;
        text.clear();
        if (context.options.json) {
            appendRecord(text, {.number = found.stream, .client = found.client, .server = found.server}, found.exchange);
        } else {
            cells.clear();
            appendCells(cells, found.stream, found.exchange);
            table.append(text, cells);
        }
        context.output.write(text);
    };
    CapturedPacket packet;
    auto outcome = LiveCapture::Outcome::timeout;
    for (auto nextRead = Clock::now(); left != 0 && context.output.isOpen();) {
        const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(nextRead - Clock::now());
        outcome = capture.next(packet, std::clamp(wait, std::chrono::milliseconds(0), betweenReads));
        if (outcome == LiveCapture::Outcome::packet) {
            ++packets;
            session.add(packet);
            allowDecoding(allowance, packet.frame.size());
        } else if (outcome != LiveCapture::Outcome::timeout) {
            break;
        }
        if (Clock::now() < nextRead) continue;
        session.read(print);
        context.output.flush();
        nextRead = Clock::now() + betweenReads;
    }
    session.finish(print);
    return outcome == LiveCapture::Outcome::failed ? outcome : LiveCapture::Outcome::stopped;
}

/// Loss is told even where remarks are not wanted: the list is not what was on the wire.
void tellCounts(std::int64_t packets, const LiveCounts& counts)
{
    const std::int64_t dropped = counts.droppedByKernel + counts.droppedByInterface;
    remark(fmt::format("{} packet{} captured", packets, packets == 1 ? "" : "s"));
    if (dropped == 0) return;
    complain(fmt::format("{} packets were lost: {} were not fetched in time, {} were dropped by the interface", dropped,
                         counts.droppedByKernel, counts.droppedByInterface));
}

ExitStatus runLive(const CommandContext& context)
{
    const Options& options = context.options;
    if (options.interface.empty()) {
        complain(fmt::format("'live' wants --interface NAME; this machine has {}", fmt::join(interfaceNames(), ", ")));
        return wrongCommandLine;
    }
    if (options.write == "-") {
        complain("--write -: standard output is for the rows");
        return wrongCommandLine;
    }
    if (!options.exchanges && !options.keylogs.empty()) {
        complain("'live' opens nothing with --keylog unless it is told to --follow");
        return wrongCommandLine;
    }
    const PacketAnalyzers analyzers;  // reads settings, which are out of reach once privileges were given up
    auto opened = LiveCapture::open({.interface = options.interface,
                                     .filter = options.filter,
                                     .writeTo = options.write,
                                     .existing = options.force ? ExistingFile::isReplaced : ExistingFile::stays});
    if (!opened) return complainAbout(opened.error());
    LiveCapture& capture = **opened;
    context.confining.begin();
    const Running interruptible(capture);

    ExitStatus status = done;
    std::int64_t packets = 0;
    auto outcome = LiveCapture::Outcome::stopped;
    if (options.exchanges) {
        for (const std::string& file : options.keylogs) {
            std::error_code error;
            const auto problem = std::filesystem::exists(file, error) ? keyLogProblem(file) : std::nullopt;
            if (problem && problem->isUnreadable()) complain(fmt::format("--keylog {}", problemText(*problem)));
        }
        const auto allowance = decodingAllowance(options);
        LiveSession session({.keyLogs = options.keylogs,
                             .plugIns = {.largestDecodedBody = options.largestBody.value_or(PlugInOptions().largestDecodedBody),
                                         .decodingAllowance = allowance}});
        outcome = printExchanges(context, session, capture, allowance.get(), packets);
        if (const std::int64_t lost = session.givenUp(); lost > 0)
            complain(fmt::format("{} connection{} could not be followed: too much was open at once", lost, lost == 1 ? "" : "s"));
    } else {
        outcome = printRows(context, analyzers, capture, packets);
    }
    if (outcome == LiveCapture::Outcome::failed) status = complainAbout(capture.error());
    context.output.flush();
    if (const auto written = capture.finishWriting(); !written) status = complainAbout(written.error());
    tellCounts(packets, capture.counts());
    return status;
}

}  // namespace

const Command liveCommand{.name = "live",
                          .arguments = "",
                          .summary = "what passes a network interface: its packets, or its requests and replies",
                          .description =
                              "Prints the rows of 'sealscope packets' for what passes a network interface, until Ctrl-C; with --follow those of\n"
                              "'sealscope exchanges', each as soon as its reply is complete, decrypted with secrets that the key logs hold or\n"
                              "that come while it runs. Privileges are given up once the interface is open.",
                          .examples = "sudo sealscope live -i eth0|until Ctrl-C\n"
                                      "sudo sealscope live -i eth0 --follow -k keys.txt|requests and replies, as they happen\n"
                                      "sudo sealscope live -i lo --exchanges --json|the same for scripts\n"
                                      "sudo sealscope live -i any -f 'tcp port 443' --json|for scripts, one JSON object a line\n"
                                      "sudo sealscope live -i eth0 -n 1000 -w capture.pcap|a thousand packets, kept in a file\n",
                          .options = {Option::interface, Option::follow, Option::exchanges, Option::keylog, Option::largestBody, Option::write,
                                      Option::force, Option::filter, Option::count, Option::json},
                          .fewestArguments = 0,
                          .mostArguments = 0,
                          .access = Access::interface,
                          .run = runLive};

}  // namespace sealscope::cli
