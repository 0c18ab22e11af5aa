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
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace sealscope::cli {

namespace {

/// Prints rows. A table's widths are chosen by the first ones, which are held back for that when they all come at once.
class RowPrinter {
public:
    enum class Arrival : std::uint8_t { atOnce, oneByOne };
    RowPrinter(const CommandContext& context, const PacketAnalyzers& analyzers, Arrival arrival)
        : output_(context.output), analyzers_(analyzers),
          format_(context.options.json ? PacketRowFormat::json() : PacketRowFormat::table(analyzers, context.terminal)),
          isMeasuring_(arrival == Arrival::atOnce && !context.options.json)
    {}

    // Rows of different batches are written side by side with the layout that stands then. Where a batch before changes it, which few
    // do, they are written again.
    void print(PacketRowReader& reader)
    {
        if (!isMeasuring_) publish();
        reader.readAll([&] { return BatchRows(*this); },
                       [&](BatchRows& made, const SegmentBatch& batch) {
                           if (!made.before) {
                               for (PacketRow& row : made.rows) append(made.text, row);
                           } else if (*made.before == format_->layout()) {
                               format_->adopt(made.format->layout());
                           } else {
                               made.text.clear();
                               made.forEachRow(batch, [&](PacketRow& row) { append(made.text, row); });
                           }
                           if (made.text.empty()) return output_.isOpen();
                           if (!isMeasuring_) publish();
                           output_.write(made.text);
                           return output_.isOpen();
                       });
        std::string text;
        endMeasuring(text);
        output_.write(text);
    }

private:
    /// The rows of a batch, as text when the layout is known. In lines of the caches of its own.
    struct alignas(64) BatchRows {
        explicit BatchRows(RowPrinter& owner) : printer(owner), format(owner.format_->clone()) {}
        void operator()(const SegmentBatch& batch)
        {
            text.clear();
            rows.clear();
            before = printer.published();
            if (!before) return forEachRow(batch, [&](PacketRow& made) { rows.push_back(std::move(made)); });
            format->adopt(*before);
            forEachRow(batch, [&](const PacketRow& made) { format->append(text, made); });
        }
        /// Each is told as soon as it is made, while what it shows is in the caches.
        template <class Tell> void forEachRow(const SegmentBatch& batch, const Tell& tell)
        {
            constexpr std::ptrdiff_t ahead = 8;  // what was read to find the segments has left the first caches since
            for (const CapturedSegment& segment : batch) {
                if (batch.end() - &segment > ahead) __builtin_prefetch((&segment + ahead)->tcp.payload.data());
                if (!makeRow(printer.analyzers_, segment, row)) continue;
                row.number += batch.packetsBefore();
                tell(row);
            }
        }

        RowPrinter& printer;
        std::unique_ptr<PacketRowFormat> format;
        PacketRow row;
        std::optional<PacketRowFormat::Layout> before;
        std::string text;
        std::vector<PacketRow> rows;  ///< while there is no layout
    };

    void append(std::string& text, PacketRow& row)
    {
        if (!isMeasuring_) return format_->append(text, row);
        heldBytes_ += row.payload.size();
        row.payload = heldPayloads_.emplace_back(row.payload);
        held_.push_back(std::move(row));
        if (heldBytes_ > mostHeldBytes || held_.size() == mostHeld) endMeasuring(text);
    }

    void endMeasuring(std::string& text)
    {
        if (!std::exchange(isMeasuring_, false)) return;
        format_->prepare(held_);
        for (const PacketRow& row : held_) format_->append(text, row);
        held_.clear();
        heldPayloads_.clear();
    }

    void publish()
    {
        const std::scoped_lock lock(mutex_);
        published_ = format_->layout();
    }
    std::optional<PacketRowFormat::Layout> published()
    {
        const std::scoped_lock lock(mutex_);
        return published_;
    }

    static constexpr std::size_t mostHeld = 200;
    static constexpr std::int64_t mostHeldBytes = 1 << 20;

    Output& output_;
    const PacketAnalyzers& analyzers_;
    std::unique_ptr<PacketRowFormat> format_;
    bool isMeasuring_;
    std::vector<PacketRow> held_;
    std::vector<Data> heldPayloads_;
    std::int64_t heldBytes_ = 0;
    std::mutex mutex_;
    std::optional<PacketRowFormat::Layout> published_;  ///< of `format_`, for other threads; nothing while it is not chosen yet
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

    const PacketAnalyzers analyzers;
    // Rows on the terminal are progress enough.
    const bool hasProgress = !context.options.quiet && !context.terminal.isTerminal;
    Progress progress("reading", hasProgress ? Progress::Showing::onTerminal : Progress::Showing::never);
    PacketRowReader reader(*capture, analyzers, interruption(), [&](std::int64_t done, std::int64_t total) { progress.show(done, total); });
    const bool maySlow = std::ranges::any_of(context.options.arguments, mayPause);
    if (maySlow) context.output.flushEvery(std::chrono::milliseconds(50));
    RowPrinter(context, analyzers, maySlow ? RowPrinter::Arrival::oneByOne : RowPrinter::Arrival::atOnce).print(reader);
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
    .plugIns = PlugInPurpose::packets,
    .isPaged = true,
    .run = runPackets};

}  // namespace sealscope::cli
