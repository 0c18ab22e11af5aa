// SPDX-License-Identifier: Apache-2.0
#include "app/cli/CaptureReading.h"
#include "app/cli/commands/Commands.h"
#include "app/cli/Interrupt.h"
#include "app/session/PacketRowReader.h"
#include "app/cli/text/PacketRows.h"
#include "app/cli/Progress.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace sealscope::cli {

namespace {

/// Prints rows. A table's widths are chosen by the first ones, which are held back for that when they all come at once.
class RowPrinter {
public:
    RowPrinter(const CommandContext& context, PacketRowReader& reader, const PacketAnalyzers& analyzers)
        : output_(context.output), reader_(reader),
          format_(context.options.json ? PacketRowFormat::json() : PacketRowFormat::table(analyzers, context.terminal))
    {}

    void measure()
    {
        constexpr std::size_t measured = 200;
        constexpr std::int64_t mostHeld = 1 << 20;
        std::vector<PacketRow> rows;
        std::vector<Data> payloads;  // the capture lends one at a time
        std::int64_t held = 0;
        for (PacketRow row; held <= mostHeld && rows.size() < measured && reader_.next(row); rows.push_back(std::move(row))) {
            held += row.payload.size();
            // A large one is the last, which is lent until the next is asked for.
            if (held <= mostHeld) row.payload = payloads.emplace_back(row.payload);
        }
        format_->prepare(rows);
        for (const PacketRow& row : rows) print(row);
    }

    void print()
    {
        for (PacketRow row; output_.isOpen() && reader_.next(row);) print(row);
    }

private:
    void print(const PacketRow& row)
    {
        text_.clear();
        format_->append(text_, row);
        output_.write(text_);
    }

    Output& output_;
    PacketRowReader& reader_;
    std::unique_ptr<PacketRowFormat> format_;
    std::string text_;
};

/// An input that may pause shows what has come.
bool mayPause(const std::string& file)
{
    std::error_code error;
    return file == "-" || !std::filesystem::is_regular_file(file, error);
}

ExitStatus runPackets(const CommandContext& context)
{
    ExitStatus status = done;
    const auto capture = openCapture(context, status);
    if (!capture) return status;
    catchInterrupts();

    const PacketAnalyzers analyzers;
    // Rows on the terminal are progress enough.
    Progress progress("reading", !context.options.quiet && !context.terminal.isTerminal);
    PacketRowReader reader(*capture, analyzers, interruption(),
                           [&](std::int64_t done, std::int64_t total) { progress.show(done, total); });
    RowPrinter printer(context, reader, analyzers);
    if (std::ranges::any_of(context.options.arguments, mayPause))
        context.output.flushEvery(std::chrono::milliseconds(50));
    else if (!context.options.json)
        printer.measure();
    printer.print();
    context.output.flush();
    return complainAboutDamage(context, capture->errors(), reader.notes(), reader.packetCount());
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
    .access = Access::captures,
    .isPaged = true,
    .run = runPackets};

}  // namespace sealscope::cli
