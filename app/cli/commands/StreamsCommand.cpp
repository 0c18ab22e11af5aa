// SPDX-License-Identifier: Apache-2.0
#include "app/cli/commands/Commands.h"
#include "app/records/EndpointTexts.h"
#include "app/session/InOrder.h"
#include "app/cli/Interrupt.h"
#include "app/records/StreamRecords.h"
#include "app/cli/StreamReading.h"
#include "app/verdict/StreamVerdict.h"
#include "app/texts/TimeText.h"
#include "app/records/VerdictSentence.h"
#include "app/cli/text/VerdictTable.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <utility>

namespace sealscope::cli {

namespace {

/// What is printed of it. Made where the row is, so that little changes hands between threads.
struct StreamLine {
    StreamSummary summary;
    std::string_view verdict;  ///< for people
    std::string serverName;    ///< that the client asked for
    std::string version;       ///< negotiated
    std::string text;          ///< the sentence on it; of NDJSON the whole line
};

/// The streams as a table for people. A narrow terminal shows less of each: of one row the name and the version stand in front of
/// the sentence below it then.
class StreamTable {
public:
    explicit StreamTable(const Terminal& terminal)
        : detail_(terminal.columns == 0 || terminal.columns >= 180 ? Detail::full
                  : terminal.columns < 110                         ? Detail::least
                                                                   : Detail::reduced),
          table_(columns(detail_), terminal)
    {}

    void measure(const StreamSummary& summary) { table_.measure(cells({.summary = summary})); }

    void append(std::string& text, const StreamLine& line)
    {
        if (detail_ != Detail::least || line.version.empty()) return table_.append(text, cells(line), line.verdict, line.text);
        const std::string named = line.serverName.empty() ? line.version : line.serverName + ", " + line.version;
        table_.append(text, cells(line), line.verdict, line.text.empty() ? named : named + ": " + line.text);
    }

private:
    enum class Detail { least, reduced, full };

    static std::vector<TextColumn> columns(Detail detail)
    {
        using enum TextColumn::Alignment;
        std::vector<TextColumn> columns{
            {.title = "Stream", .alignment = right, .narrowest = 6, .widest = 10, .isFirm = true, .style = Style::faint},
            {.title = "Client", .narrowest = 9, .widest = 47, .isFirm = true, .style = Style::accent},
            {.title = "Server", .narrowest = 9, .widest = 47, .isFirm = true, .style = Style::accent},
            {.title = "Sent", .alignment = right, .narrowest = 5, .widest = 14},
            {.title = "Received", .alignment = right, .narrowest = 5, .widest = 14},
        };
        if (detail == Detail::least) return columns;
        columns.push_back({.title = "Server Name", .narrowest = 11, .widest = 32});
        columns.push_back({.title = "Version", .narrowest = 7, .widest = 8, .isFirm = true});
        if (detail == Detail::reduced) return columns;
        columns.push_back({.title = "Missing", .alignment = right, .narrowest = 4, .widest = 14});
        columns.push_back({.title = "Start", .narrowest = 8, .widest = TimeText::dateWidth + TimeText::clockWidth, .style = Style::faint});
        columns.push_back({.title = "Seconds", .alignment = right, .narrowest = 7, .widest = 14, .style = Style::faint});
        return columns;
    }

    std::span<const std::string_view> cells(const StreamLine& line)
    {
        const StreamSummary& summary = line.summary;
        texts_[0] = fmt::to_string(summary.number);
        texts_[1] = endpoints_.text(summary.client);
        texts_[2] = endpoints_.text(summary.server);
        texts_[3] = fmt::to_string(summary.clientBytes);
        texts_[4] = fmt::to_string(summary.serverBytes);
        texts_[5] = line.serverName;
        texts_[6] = line.version;
        texts_[7] = fmt::to_string(summary.missingBytes);
        texts_[8].clear();
        if (detail_ == Detail::full) time_.appendDateAndClock(texts_[8], summary.startTime);
        texts_[9] = fmt::format("{:.6f}", summary.endTime - summary.startTime);
        std::ranges::copy(texts_, cells_.begin());
        return std::span(cells_).first(detail_ == Detail::least ? 5 : detail_ == Detail::reduced ? 7 : 10);
    }

    Detail detail_;
    VerdictTable table_;
    TimeText time_;
    EndpointTexts endpoints_;
    std::array<std::string, 10> texts_;
    std::array<std::string_view, 10> cells_;
};

ExitStatus runStreams(const CommandContext& context)
{
    ExitStatus status = done;
    const auto session = openSession(context, status);
    if (!session) return status;
    const auto streams = wantedStreams(context, *session, status);
    const StreamVerdicts verdicts(*session);

    StreamTable table(context.terminal);
    constexpr std::ptrdiff_t measured = 1'000;
    if (!context.options.json) {
        const std::vector<std::int64_t> first(streams.begin(), streams.begin() + std::min(measured, std::ssize(streams)));
        const auto packets = [&](std::int64_t number) { return session->packets(number) * usualPayload; };
        const auto summary = [&](std::int64_t number) { return session->summary(number); };
        inOrder(first, packets, summary, [&](const StreamSummary& each) {
            table.measure(each);
            return !isInterrupted();
        });
    }

    const auto look = [&](std::int64_t number) {
        if (context.options.json) {
            StreamLine line;
            appendRecord(line.text, streamRow(*session, verdicts, number));
            return line;
        }
        const TCPStream stream = session->stream(number);
        StreamRow row{.summary = session->summary(number)};
        row.canInterpret = session->plugIns().isSecured(stream);
        if (row.canInterpret) row.verdict = verdicts.verdict(stream, ReportDepth::opened);

        StreamLine line{.summary = row.summary, .verdict = verdictText(row)};
        if (row.verdict) {
            if (const auto& report = row.verdict->report) {
                line.serverName = report->serverName.value_or("");
                line.version = report->versionName;
            }
        }
        if (row.verdict)
            line.text = verdictSentence(*row.verdict, row.summary);
        return line;
    };
    std::string text;
    const auto print = [&](const StreamLine& line) {
        if (context.options.json) {
            context.output.write(line.text);
        } else {
            text.clear();
            table.append(text, line);
            context.output.write(text);
        }
        return context.output.isOpen() && !isInterrupted();
    };
    const auto weight = [&](std::int64_t) { return std::int64_t{1'000}; };
    inOrder(streams, weight, look, print);
    context.output.flush();
    return complainAboutDamage(context, *session, status);
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
    .options = {Option::stream, Option::keylog, Option::privateKey, Option::passphraseFile, Option::mostKeyExchanges, Option::reach,
                Option::json, Option::filter, Option::count},
    .access = Access::captures,
    .isPaged = true,
    .run = runStreams};

}  // namespace sealscope::cli
