// SPDX-License-Identifier: Apache-2.0
#include "app/cli/Interrupt.h"
#include "app/cli/StreamReading.h"
#include "app/cli/commands/Commands.h"
#include "app/cli/text/DisplayText.h"
#include "app/cli/text/Messages.h"
#include "app/cli/text/SizeText.h"
#include "app/cli/text/TextTable.h"
#include "app/cli/text/TimeText.h"
#include "app/records/ExchangeRecords.h"
#include "app/session/Exchanges.h"
#include "app/session/InOrder.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <functional>
#include <limits>
#include <queue>
#include <tuple>
#include <utility>
#include <vector>

namespace sealscope::cli {

namespace {

/// What a row of the table shows, as texts.
struct ExchangeCells {
    static constexpr std::size_t count = 8;
    double time = 0;
    std::array<std::string, count> texts;  ///< the first, the clock, is made when the row is printed
    bool isFailure = false;                ///< of the request: status 400 or more, or no reply
};

/// One exchange, ready to be printed.
struct ExchangeLine {
    double time = 0;
    std::int64_t stream = 0;
    std::int64_t position = 0;  ///< among those of its stream
    std::string json;           ///< the whole line, where NDJSON is wanted
    ExchangeCells cells;        ///< else
    bool operator>(const ExchangeLine& other) const
    {
        return std::tie(time, stream, position) > std::tie(other.time, other.stream, other.position);
    }
};

std::string attributeText(const std::optional<StreamMessage>& message, std::string_view key)
{
    const VELValue* const value = message ? message->attribute(key) : nullptr;
    return value ? displayText(*value) : std::string();
}

/// "text/html; charset=utf-8" without its parameters.
std::string mediaType(const std::string& contentType)
{
    std::string type = contentType.substr(0, contentType.find(';'));
    while (type.ends_with(' ')) type.pop_back();
    return type;
}

ExchangeCells cellsOf(std::int64_t stream, const Exchange& exchange)
{
    const auto& [request, reply] = exchange;
    const VELValue* const status = reply ? reply->attribute("status") : nullptr;
    const auto* const code = status ? std::get_if<std::int64_t>(status) : nullptr;
    std::string url = attributeText(request, "url");
    if (url.empty()) url = request ? request->summary : "(the capture lacks the request)";
    const auto duration = exchange.duration();
    return {.time = exchange.time(),
            .texts = {"", fmt::to_string(stream), attributeText(request, "method"), code ? fmt::to_string(*code) : reply ? "" : "none",
                      mediaType(attributeText(reply, "contentType")), reply && reply->body ? sizeText(reply->body->length()) : "",
                      duration ? durationText(*duration) : "", std::move(url)},
            .isFailure = !reply || (code && *code >= 400)};
}

/// Prints exchanges as a good access log reads.
class ExchangeTable {
public:
    explicit ExchangeTable(const Terminal& terminal) : terminal_(terminal), table_(columns(), terminal) {}

    void append(std::string& text, ExchangeCells& cells)
    {
        if (!std::exchange(hasHeading_, true)) table_.appendHeading(text);
        time_.appendClock(cells.texts[0], cells.time);
        cells.texts[0].resize(TimeText::clockWidth - 3);  // milliseconds
        if (terminal_.columns > 0) cells.texts.back() = shortenedInTheMiddle(cells.texts.back(), terminal_.columns - widthBeforeURL);
        std::array<std::string_view, ExchangeCells::count> views;
        std::ranges::copy(cells.texts, views.begin());
        table_.appendRow(text, views, terminal_.hasColors && cells.isFailure ? sequence(Style::warning) : std::string_view());
    }

private:
    // The widths of the columns before the last, and the gaps between them.
    static constexpr int widthBeforeURL = 12 + 6 + 7 + 6 + 24 + 8 + 8 + 7 * 2;

    static std::vector<TextColumn> columns()
    {
        using enum TextColumn::Alignment;
        return {
            {.title = "Time", .narrowest = 12, .widest = 12, .isFirm = true, .style = Style::faint},
            {.title = "Stream", .alignment = right, .narrowest = 6, .widest = 8, .isFirm = true, .style = Style::faint},
            {.title = "Method", .narrowest = 7, .widest = 10, .isFirm = true, .style = Style::strong},
            {.title = "Status", .alignment = right, .narrowest = 6, .widest = 6, .isFirm = true, .style = Style::good},
            {.title = "Type", .narrowest = 12, .widest = 24},
            {.title = "Size", .alignment = right, .narrowest = 8, .widest = 8, .isFirm = true},
            {.title = "Duration", .alignment = right, .narrowest = 8, .widest = 8, .isFirm = true},
            {.title = "URL", .narrowest = 20, .style = Style::accent},
        };
    }

    Terminal terminal_;
    TextTable table_;
    TimeText time_;
    bool hasHeading_ = false;
};

/// Hands exchanges out in the order of their times, over streams that come in the order of their first packets: nothing of a
/// later stream can be earlier than its first packet.
class ByTime {
public:
    void add(ExchangeLine line) { waiting_.push(std::move(line)); }
    template <class Take> void handOutBefore(double time, const Take& take)
    {
        while (!waiting_.empty() && waiting_.top().time < time) {
            // A queue lends its top as a constant; what is taken from it is popped at once.
            auto line = std::move(const_cast<ExchangeLine&>(waiting_.top()));
            waiting_.pop();
            if (!take(std::move(line))) return;
        }
    }

private:
    std::priority_queue<ExchangeLine, std::vector<ExchangeLine>, std::greater<>> waiting_;
};

ExitStatus run(const CommandContext& context)
{
    ExitStatus status = done;
    const auto session = openSession(context, status);
    if (!session) return status;
    const auto streams = wantedStreams(context, *session, status);
    const bool isJSON = context.options.json;

    const auto linesOf = [&](std::int64_t number) {
        std::vector<ExchangeLine> lines;
        const TCPStream stream = session->stream(number);
        auto interpretation = applicationInterpretation(*session, stream);
        if (!interpretation) return lines;
        for (const Exchange& exchange : exchangesOf(std::move(*interpretation))) {
            ExchangeLine& line = lines.emplace_back(ExchangeLine{.time = exchange.time(), .stream = number, .position = std::ssize(lines)});
            if (isJSON)
                appendRecord(line.json, {.number = number, .client = stream.clientEndpoint, .server = stream.serverEndpoint}, exchange);
            else
                line.cells = cellsOf(number, exchange);
        }
        return lines;
    };

    ExchangeTable table(context.terminal);
    std::int64_t left = context.options.count;  // negative: no limit
    std::string text;
    bool isWanted = true;
    const auto print = [&](ExchangeLine line) {
        if (left == 0) return isWanted = false;
        if (left > 0) --left;
        text.clear();
        if (!isJSON) table.append(text, line.cells);
        context.output.write(isJSON ? line.json : text);
        return isWanted = context.output.isOpen() && !isInterrupted();
    };
    ByTime byTime;
    std::size_t taken = 0;
    std::int64_t found = 0;
    const auto take = [&](std::vector<ExchangeLine> lines) {
        found += std::ssize(lines);
        for (ExchangeLine& line : lines) byTime.add(std::move(line));
        ++taken;
        const double next = taken < streams.size() ? session->startTime(streams[taken]) : std::numeric_limits<double>::infinity();
        byTime.handOutBefore(next, print);
        return isWanted && !isInterrupted();
    };
    const auto weight = [&](std::int64_t number) { return session->packets(number) * usualPayload; };
    inOrder(streams, weight, linesOf, take);
    byTime.handOutBefore(std::numeric_limits<double>::infinity(), [&](ExchangeLine line) { return isWanted && print(std::move(line)); });
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
    .run = run};

}  // namespace sealscope::cli
