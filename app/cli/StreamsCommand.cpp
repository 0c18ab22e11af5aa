// SPDX-License-Identifier: Apache-2.0
#include "app/cli/Commands.h"
#include "app/cli/DisplayText.h"
#include "app/cli/EndpointTexts.h"
#include "app/cli/InOrder.h"
#include "app/cli/Interrupt.h"
#include "app/cli/JSONLineWriter.h"
#include "app/cli/StreamReading.h"
#include "app/cli/StreamVerdict.h"
#include "app/cli/TextTable.h"
#include "app/cli/TimeText.h"
#include "app/cli/VerdictSentence.h"

#include <array>
#include <fmt/format.h>
#include <utility>

namespace sealscope::cli {

namespace {

/// What is known of one stream.
struct StreamRow {
    StreamSummary summary;
    bool canInterpret = false;
    std::optional<StreamVerdict> verdict;  ///< only of streams that can be interpreted
};

void appendJSON(std::string& text, const StreamRow& row)
{
    const StreamSummary& summary = row.summary;
    JSONLineWriter json(text);
    json.beginObject();
    json.member("stream", summary.number);
    json.member("client", summary.client.text());
    json.member("server", summary.server.text());
    json.member("clientBytes", summary.clientBytes);
    json.member("serverBytes", summary.serverBytes);
    json.member("missingBytes", summary.missingBytes);
    json.member("startTime", summary.startTime);
    json.member("endTime", summary.endTime);
    json.member("packets", summary.packets);
    json.member("contradictingBytes", summary.contradictingBytes);
    json.member("restarts", summary.restarts);
    json.member("hasSYN", summary.hasSYN);
    json.member("canInterpret", row.canInterpret);
    json.member("verdict", row.verdict ? std::optional(verdictName(row.verdict->outcome)) : std::nullopt);
    json.key("reason");
    if (row.verdict)
        writeReason(json, *row.verdict, summary);
    else
        json.null();
    json.endObject();
    text += '\n';
}

/// The streams as a table. What is to say about a verdict follows its row on a terminal, whose width it would not fit, and
/// is the last column elsewhere.
class StreamTable {
public:
    explicit StreamTable(const Terminal& terminal) : terminal_(terminal), table_(columns(terminal), terminal) {}

    void measure(const StreamSummary& summary) { table_.measure(cells({.summary = summary})); }

    void append(std::string& text, const StreamRow& row)
    {
        if (!std::exchange(hasHeading_, true)) table_.appendHeading(text);
        table_.appendRow(text, cells(row));
        if (!terminal_.isTerminal || !row.verdict) return;
        const std::string sentence = displaySafe(verdictSentence(*row.verdict, row.summary));
        appendWrapped(text, sentence);
    }

private:
    static std::vector<TextColumn> columns(const Terminal& terminal)
    {
        using enum TextColumn::Alignment;
        std::vector<TextColumn> columns{
            {.title = "Stream", .alignment = right, .narrowest = 6, .widest = 10, .isFirm = true, .style = Style::faint},
            {.title = "Start",
             .narrowest = TimeText::clockWidth - 7,
             .widest = TimeText::dateWidth + TimeText::clockWidth,
             .style = Style::faint},
            {.title = "Seconds", .alignment = right, .narrowest = 7, .widest = 14, .style = Style::faint},
            {.title = "Client", .narrowest = 9, .widest = 47, .isFirm = true, .style = Style::accent},
            {.title = "Server", .narrowest = 9, .widest = 47, .isFirm = true, .style = Style::accent},
            {.title = "Sent", .alignment = right, .narrowest = 5, .widest = 14},
            {.title = "Received", .alignment = right, .narrowest = 5, .widest = 14},
            {.title = "Missing", .alignment = right, .narrowest = 4, .widest = 14},
            {.title = "Verdict", .narrowest = 19, .style = Style::strong},
        };
        if (!terminal.isTerminal) columns.push_back({.title = "Reason"});
        return columns;
    }

    std::span<const std::string_view> cells(const StreamRow& row)
    {
        const StreamSummary& summary = row.summary;
        texts_[0] = fmt::to_string(summary.number);
        texts_[1].clear();
        // A terminal is narrow, and what is looked at there is mostly of one day.
        if (terminal_.isTerminal)
            time_.appendClock(texts_[1], summary.startTime);
        else
            time_.appendDateAndClock(texts_[1], summary.startTime);
        texts_[2] = fmt::format("{:.6f}", summary.endTime - summary.startTime);
        texts_[3] = endpoints_.text(summary.client);
        texts_[4] = endpoints_.text(summary.server);
        texts_[5] = fmt::to_string(summary.clientBytes);
        texts_[6] = fmt::to_string(summary.serverBytes);
        texts_[7] = fmt::to_string(summary.missingBytes);
        texts_[8] = row.verdict ? verdictText(row.verdict->outcome) : row.canInterpret ? "not asked" : "not TLS";
        texts_[9] = row.verdict && !terminal_.isTerminal ? verdictSentence(*row.verdict, summary) : "";
        for (std::size_t i = 0; i < texts_.size(); ++i) cells_[i] = texts_[i];
        return std::span(cells_).first(terminal_.isTerminal ? 9 : 10);
    }

    /// The sentence in lines that fit the terminal, cut at blanks.
    void appendWrapped(std::string& text, std::string_view sentence) const
    {
        constexpr std::size_t indent = 8;
        const std::size_t room = static_cast<std::size_t>(std::max(terminal_.columns, 40)) - indent;
        while (!sentence.empty()) {
            std::size_t length = sentence.size();
            if (length > room) {
                length = sentence.rfind(' ', room);
                if (length == std::string_view::npos || length == 0) length = std::min(sentence.find(' '), sentence.size());
            }
            text.append(indent, ' ');
            text += sentence.substr(0, length);
            text += '\n';
            sentence.remove_prefix(std::min(length + 1, sentence.size()));
        }
    }

    Terminal terminal_;
    TextTable table_;
    TimeText time_;
    EndpointTexts endpoints_;
    std::array<std::string, 10> texts_;
    std::array<std::string_view, 10> cells_;
    bool hasHeading_ = false;
};

ExitStatus run(const CommandContext& context)
{
    ExitStatus status = done;
    const auto session = openSession(context, status);
    if (!session) return status;
    const auto streams = wantedStreams(context, *session, status);
    const VELStreamInterpreting* interpreter = tlsInterpreter();
    const StreamVerdicts verdicts(*session);

    StreamTable table(context.terminal);
    constexpr std::size_t measured = 1'000;
    if (!context.options.json)
        for (std::size_t i = 0; i < std::min(measured, streams.size()); ++i) table.measure(session->summary(streams[i]));

    const auto look = [&](std::int64_t number) {
        StreamRow row{.summary = session->summary(number)};
        const TCPStream stream = session->stream(number);
        row.canInterpret = interpreter && interpreter->canInterpret(stream);
        if (row.canInterpret) row.verdict = verdicts.verdict(stream, true);
        return row;
    };
    std::string text;
    const auto print = [&](const StreamRow& row) {
        text.clear();
        if (context.options.json)
            appendJSON(text, row);
        else
            table.append(text, row);
        context.output.write(text);
        return context.output.isOpen() && !isInterrupted();
    };
    const auto weight = [&](std::int64_t) { return std::int64_t{1'000}; };
    inOrder(streams, weight, look, print);
    context.output.flush();
    return complainAboutDamage(*session, status);
}

}  // namespace

const Command streamsCommand{
    .name = "streams",
    .arguments = "FILE…",
    .summary = "one row per TCP connection: who, how much, and whether it decrypts",
    .description = "Prints a row for each TCP connection, with the verdict on its decryption and, for one that does not decrypt, what\n"
                   "is the matter.",
    .examples = "sealscope streams capture.pcapng|all connections\n"
                "sealscope streams -k keys.txt capture.pcapng|with the secrets of a key log\n"
                "sealscope streams --json capture.pcapng \\| jq 'select(.verdict != \"decrypted\")'|for scripts\n",
    .options = {Option::stream, Option::keylog, Option::json, Option::filter, Option::count},
    .isPaged = true,
    .run = run};

}  // namespace sealscope::cli
