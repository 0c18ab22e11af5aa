// SPDX-License-Identifier: Apache-2.0
#include "app/cli/Interrupt.h"
#include "app/cli/StreamReading.h"
#include "app/cli/commands/Commands.h"
#include "app/cli/text/ExchangeRows.h"
#include "app/cli/text/Messages.h"
#include "app/records/ExchangeRecords.h"
#include "app/session/ExchangesInOrder.h"

#include <algorithm>
#include <string>
#include <string_view>

namespace sealscope::cli {

namespace {

ExitStatus runExchanges(const CommandContext& context)
{
    ExitStatus status = done;
    const auto session = openSession(context, status);
    if (!session) return status;
    const auto streams = wantedStreams(context, *session, status);
    const bool isJSON = context.options.json;

    const auto append = [&](std::string& line, const TCPStream& stream, const Exchange& exchange) {
        if (isJSON)
            appendRecord(line, {.number = stream.key.number, .client = stream.clientEndpoint, .server = stream.serverEndpoint}, exchange);
        else
            appendCells(line, stream.key.number, exchange);
    };
    ExchangeTable table(context.terminal);
    std::int64_t left = context.options.count;  // negative: no limit
    std::int64_t found = 0;
    std::string text;
    const auto take = [&](std::string_view line) {
        ++found;
        if (isJSON) {
            context.output.write(line);
        } else {
            text.clear();
            table.append(text, line);
            context.output.write(text);
        }
        if (left > 0) --left;
        return left != 0 && context.output.isOpen() && !isInterrupted();
    };
    const std::int64_t most = mostMessages(context.options, *session);
    const bool isWhole = exchangesInOrder(*session, streams, {.append = append, .take = take, .most = (most + 1) / 2, .stop = interruption()});
    context.output.flush();
    if (!isWhole) status = std::max(status, complainAboutMessages(most));
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
    .options = {Option::stream, Option::keylog, Option::privateKey, Option::passphraseFile, Option::mostKeyExchanges, Option::reach,
                Option::largestBody, Option::mostMessages, Option::json, Option::filter, Option::count},
    .countsRows = true,
    .access = Access::captures,
    .isPaged = true,
    .run = runExchanges};

}  // namespace sealscope::cli
