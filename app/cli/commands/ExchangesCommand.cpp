// SPDX-License-Identifier: Apache-2.0
#include "app/cli/Interrupt.h"
#include "app/cli/StreamReading.h"
#include "app/cli/commands/Commands.h"
#include "app/cli/text/ExchangeRows.h"
#include "app/cli/text/Messages.h"
#include "app/records/ExchangeRecords.h"
#include "app/session/ExchangesInOrder.h"

#include <string>
#include <utility>
#include <variant>

namespace sealscope::cli {

namespace {

/// One exchange, ready to be printed: as NDJSON, or as a row's cells.
using ExchangeLine = std::variant<std::string, ExchangeCells>;

/// Memory of a line that was printed, for the next that this thread makes; lines are mostly printed by the thread that makes them.
std::string& spareLine()
{
    thread_local std::string spare;
    return spare;
}

ExitStatus runExchanges(const CommandContext& context)
{
    ExitStatus status = done;
    const auto session = openSession(context, status);
    if (!session) return status;
    const auto streams = wantedStreams(context, *session, status);
    const bool isJSON = context.options.json;

    constexpr std::size_t usualLine = 2'048;
    const auto lineOf = [&](const TCPStream& stream, const Exchange& exchange) {
        if (!isJSON) return ExchangeLine(cellsOf(stream.key.number, exchange));
        std::string line = std::exchange(spareLine(), {});
        line.clear();
        line.reserve(usualLine);
        appendRecord(line, {.number = stream.key.number, .client = stream.clientEndpoint, .server = stream.serverEndpoint}, exchange);
        return ExchangeLine(std::move(line));
    };
    ExchangeTable table(context.terminal);
    std::int64_t left = context.options.count;  // negative: no limit
    std::int64_t found = 0;
    std::string text;
    const auto print = [&](ExchangeLine&& line) {
        ++found;
        if (auto* const cells = std::get_if<ExchangeCells>(&line)) {
            text.clear();
            table.append(text, *cells);
            context.output.write(text);
        } else {
            auto& record = std::get<std::string>(line);
            context.output.write(record);
            spareLine() = std::move(record);
        }
        if (left > 0) --left;
        return left != 0 && context.output.isOpen() && !isInterrupted();
    };
    const auto heldBytes = [](const ExchangeLine& line) {
        const auto* const record = std::get_if<std::string>(&line);
        return record ? record->size() : sizeof(ExchangeCells);
    };
    exchangesInOrder(*session, streams, lineOf, heldBytes, print);
    context.output.flush();
    if (found == 0 && status == done && !isInterrupted())
        remark("no requests or replies in this capture; 'sealscope streams' says what does not decrypt");
    return complainAboutDamage(context, *session, status);
}

}  // namespace

const Command exchangesCommand{
    .name = "exchanges",
    .arguments = "FILE…",
    .summary = "what was asked and what came back: a row per request with its reply",
    .description =
        "Prints a row for each request with its reply, over all streams, in the order of the requests' times: decrypted where the\n"
        "key logs hold the secrets, and as they are where nothing is encrypted.",
    .examples = "sealscope exchanges -k keys.txt capture.pcapng|like an access log\n"
                "sealscope exchanges --json capture.pcapng \\| jq 'select(.reply.status >= 400)'|for scripts\n",
    .options = {Option::stream, Option::keylog, Option::privateKey, Option::passphraseFile, Option::reach, Option::largestBody,
                Option::json, Option::filter, Option::count},
    .countsRows = true,
    .access = Access::captures,
    .isPaged = true,
    .run = runExchanges};

}  // namespace sealscope::cli
