// SPDX-License-Identifier: Apache-2.0
#include "app/cli/StreamReading.h"

#include "app/cli/CaptureReading.h"
#include "app/cli/Interrupt.h"
#include "app/cli/PrivateKeys.h"
#include "app/cli/Progress.h"
#include "app/cli/text/Messages.h"
#include "app/records/VerdictSentence.h"
#include "app/verdict/StreamVerdict.h"

#include <algorithm>
#include <fmt/format.h>
#include <numeric>
#include <string_view>

namespace sealscope::cli {

namespace {

/// Says which of the key logs of the command line give nothing.
ExitStatus complainAboutKeyLogs(const std::vector<std::string>& files)
{
    ExitStatus status = done;
    for (const std::string& file : files) {
        const auto problem = keyLogProblem(file);
        if (!problem) continue;
        complain(fmt::format("--keylog {}", problemText(*problem)));
        if (problem->isUnreadable()) status = failed;
    }
    return status;
}

}  // namespace

std::shared_ptr<DecodingAllowance> decodingAllowance(const Options& options)
{
    constexpr std::int64_t atFirst = std::int64_t{64} << 20;
    return options.largestBody ? nullptr : std::make_shared<DecodingAllowance>(atFirst);
}

void allowDecoding(DecodingAllowance* allowance, std::int64_t capturedBytes)
{
    // Of a large capture fewer: what is written of them is to stay below sixteen times its size.
    constexpr std::int64_t perByte = 32, perByteOfMany = 4, ofMany = std::int64_t{160} << 20;
    if (allowance) allowance->add(std::min(perByte * capturedBytes, ofMany + perByteOfMany * capturedBytes));
}

std::int64_t mostMessages(const Options& options, const Session& session)
{
    constexpr std::int64_t ofEveryCapture = 200'000, bytesForOneMore = 100;
    return options.mostMessages.value_or(ofEveryCapture + session.capture().bytesOfFiles() / bytesForOneMore);
}

ExitStatus complainAboutMessages(std::int64_t most)
{
    constexpr std::string_view sentence = "the output ends early: the capture has more than {} messages; --most-messages N sets another "
                                          "number, --stream I picks a connection";
    complain(fmt::format(sentence, most));
    return failed;
}

std::unique_ptr<Session> openSession(const CommandContext& context, ExitStatus& status)
{
    const Options& options = context.options;
    auto privateKeys = readPrivateKeys(options);
    if (!privateKeys) {
        status = failed;
        return nullptr;
    }
    catchInterrupts();
    context.confining.begin();
    const auto allowance = decodingAllowance(options);
    std::unique_ptr<Session> session;
    {
        Progress progress("reading", options.quiet ? Progress::Showing::never : Progress::Showing::onTerminal);
        auto opened =
            Session::open({.files = options.arguments,
                           .filter = options.filter,
                           .maximumPackets = options.command->countsRows ? -1 : options.count,
                           .keepsEveryBlock = !options.injectSecrets.empty() || !options.stripSecrets.empty(),
                           .keyLogs = options.keylogs,
                           .privateKeys = *std::move(privateKeys),
                           .mostKeyExchanges = options.mostKeyExchanges,
                           .plugIns = {.reach = options.reach,
                                       .carried = options.noInterpreters ? CarriedStreams::shownAsBytes : CarriedStreams::interpreted,
                                       .largestDecodedBody = options.largestBody.value_or(PlugInOptions().largestDecodedBody),
                                       .decodingAllowance = allowance},
                           .progress = [&](std::int64_t done, std::int64_t total) { progress.show(done, total); },
                           .stop = interruption()});
        if (!opened) {
            status = complainAbout(opened.error());
            return nullptr;
        }
        session = std::move(*opened);
        allowDecoding(allowance.get(), session->capture().bytesOfFiles());
    }
    // What was indexed is printed all the same; a further Ctrl-C then ends the printing.
    if (isInterrupted()) catchInterrupts();
    status = std::max(status, complainAboutKeyLogs(options.keylogs));
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
    status = std::max(status, complainAboutDamage(context, session.errors(), session.notes(), session.packetCount()));
    for (const CaptureError& lost : session.capture().lostFiles()) status = std::max(status, complainAbout(lost));
    return status;
}

}  // namespace sealscope::cli
