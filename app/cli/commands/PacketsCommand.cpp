// SPDX-License-Identifier: Apache-2.0
#include "app/cli/CaptureReading.h"
#include "app/cli/Interrupt.h"
#include "app/cli/Progress.h"
#include "app/cli/commands/Commands.h"
#include "app/cli/text/PacketRows.h"
#include "app/session/PacketRowReader.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace sealscope::cli {

namespace {

/// Prints rows. A table's widths are chosen by the first ones, which are held back for that when they all come at once.
class RowPrinter {
public:
    RowPrinter(const CommandContext& context, PacketRowReader& reader, const PacketAnalyzers& analyzers)
        : output_(context.output), reader_(reader), analyzers_(analyzers),
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

    // Rows of different batches are written side by side with the layout that stands then. Where a batch before changes it, which few
    // do, they are written again.
    void printRest()
    {
        publish();
        reader_.rest([&] { return BatchRows(*this); },
                     [&](BatchRows& made, const SegmentBatch& batch) {
                         if (batch.size() > 1 && made.before == format_->layout()) {
                             format_->adopt(made.format->layout());
                         } else {
                             made.text.clear();
                             append(made.text, *format_, batch);
                         }
                         if (batch.size() > 1) publish();
                         output_.write(made.text);
                         return output_.isOpen();
                     });
    }

private:
    /// The rows of a batch as text.
    struct BatchRows {
        explicit BatchRows(RowPrinter& owner) : printer(owner), format(owner.format_->clone()) {}
        void operator()(const SegmentBatch& batch)
        {
            if (batch.size() <= 1) return;  // not worth it
            before = printer.published();
            format->adopt(before);
            text.clear();
            printer.append(text, *format, batch);
        }

        RowPrinter& printer;
        std::unique_ptr<PacketRowFormat> format;
        PacketRowFormat::Layout before;
        std::string text;
    };

    void append(std::string& text, PacketRowFormat& format, const SegmentBatch& batch) const
    {
        PacketRow row;
        for (const CapturedSegment& segment : batch)
            if (makeRow(analyzers_, segment, row)) format.append(text, row);
    }

    void publish()
    {
        const std::scoped_lock lock(mutex_);
        published_ = format_->layout();
    }
    PacketRowFormat::Layout published()
    {
        const std::scoped_lock lock(mutex_);
        return published_;
    }

    void print(const PacketRow& row)
    {
        text_.clear();
        format_->append(text_, row);
        output_.write(text_);
    }

    Output& output_;
    PacketRowReader& reader_;
    const PacketAnalyzers& analyzers_;
    std::unique_ptr<PacketRowFormat> format_;
    std::string text_;
    std::mutex mutex_;
    PacketRowFormat::Layout published_;  ///< of `format_`, for other threads
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
    PacketRowReader reader(*capture, analyzers, interruption(), [&](std::int64_t done, std::int64_t total) { progress.show(done, total); });
    RowPrinter printer(context, reader, analyzers);
    if (std::ranges::any_of(context.options.arguments, mayPause))
        context.output.flushEvery(std::chrono::milliseconds(50));
    else if (!context.options.json)
        printer.measure();
    printer.printRest();
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
