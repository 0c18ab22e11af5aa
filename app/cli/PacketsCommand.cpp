// SPDX-License-Identifier: Apache-2.0
#include "app/cli/CaptureReading.h"
#include "app/cli/Commands.h"
#include "app/cli/Interrupt.h"
#include "app/cli/PacketRowReader.h"
#include "app/cli/PacketRows.h"
#include "app/cli/Progress.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <memory>
#include <oneapi/tbb/enumerable_thread_specific.h>
#include <oneapi/tbb/parallel_pipeline.h>
#include <optional>
#include <utility>
#include <vector>

namespace sealscope::cli {

namespace {

/// Rows on their way to the output, with the payloads that they speak of.
struct PacketBatch {
    static constexpr std::size_t mostRows = 512;
    static constexpr std::size_t mostBytes = 256 * 1'024;

    std::vector<PacketRow> rows;
    std::vector<std::uint8_t> payloads;
    std::string text;

    bool hasRoom(const PacketRow& row) const
    {
        return rows.empty() || (rows.size() < mostRows && payloads.size() + static_cast<std::size_t>(row.payload.size()) <= mostBytes);
    }
    void add(PacketRow row)
    {
        // Grows no more after this, so that the views into it stay.
        if (rows.empty()) payloads.reserve(std::max(mostBytes, static_cast<std::size_t>(row.payload.size())));
        const auto start = std::ssize(payloads);
        payloads.insert(payloads.end(), row.payload.begin(), row.payload.end());
        row.payload = DataView(payloads).sub(start, row.payload.size());
        rows.push_back(std::move(row));
    }
};

using BatchPointer = std::shared_ptr<PacketBatch>;

/// Packs of rows, each with its payloads: the capture lends them only until it reads on.
class BatchReader {
public:
    explicit BatchReader(PacketRowReader& reader) : reader_(reader) {}
    /// The next pack; null at the end.
    BatchPointer next()
    {
        auto batch = std::make_shared<PacketBatch>();
        while (hasRow_ || reader_.next(row_)) {
            hasRow_ = !batch->hasRoom(row_);
            if (hasRow_) break;
            batch->add(std::move(row_));
        }
        return batch->rows.empty() ? nullptr : batch;
    }

private:
    PacketRowReader& reader_;
    PacketRow row_;
    bool hasRow_ = false;  ///< `row_` did not go into the last pack
};

/// Reads, formats and writes side by side. NDJSON rows know nothing of each other; those of a table share its widths.
void printInBatches(const CommandContext& context, PacketRowReader& reader, const PacketAnalyzers& analyzers)
{
    using namespace oneapi::tbb;
    const bool isJSON = context.options.json;
    const auto makeFormat = [&] { return isJSON ? PacketRowFormat::json() : PacketRowFormat::table(analyzers, context.terminal); };
    enumerable_thread_specific<std::unique_ptr<PacketRowFormat>> formats(makeFormat);
    const auto table = makeFormat();
    bool isPrepared = false;
    BatchReader batches(reader);

    const auto read = [&](flow_control& control) -> BatchPointer {
        auto batch = context.output.isOpen() ? batches.next() : nullptr;
        if (!batch) control.stop();
        return batch;
    };
    const auto format = [&](BatchPointer batch) {
        PacketRowFormat& form = isJSON ? *formats.local() : *table;
        if (!isJSON && !std::exchange(isPrepared, true)) table->prepare(batch->rows);
        for (const PacketRow& row : batch->rows) form.append(batch->text, row);
        return batch;
    };
    const auto write = [&](const BatchPointer& batch) { context.output.write(batch->text); };
    constexpr std::size_t mostBatches = 8;
    parallel_pipeline(mostBatches,
                      make_filter<void, BatchPointer>(filter_mode::serial_in_order, read) &
                          make_filter<BatchPointer, BatchPointer>(isJSON ? filter_mode::parallel : filter_mode::serial_in_order, format) &
                          make_filter<BatchPointer, void>(filter_mode::serial_in_order, write));
}

/// Row by row, from an input that may pause: what has come is shown.
void printAsTheyCome(const CommandContext& context, PacketRowReader& reader, const PacketAnalyzers& analyzers)
{
    context.output.flushEvery(std::chrono::milliseconds(50));
    const auto format = context.options.json ? PacketRowFormat::json() : PacketRowFormat::table(analyzers, context.terminal);
    PacketRow row;
    std::string text;
    while (context.output.isOpen() && reader.next(row)) {
        text.clear();
        format->append(text, row);
        context.output.write(text);
    }
}

bool mayPause(const std::string& file)
{
    std::error_code error;
    return file == "-" || !std::filesystem::is_regular_file(file, error);
}

ExitStatus run(const CommandContext& context)
{
    ExitStatus status = done;
    const auto capture = openCapture(context, status);
    if (!capture) return status;
    catchInterrupts();

    const PacketAnalyzers analyzers;
    // Rows on the terminal are progress enough.
    Progress progress("reading", !context.options.quiet && !context.terminal.isTerminal);
    PacketRowReader reader(*capture, analyzers, progress);
    if (std::ranges::any_of(context.options.arguments, mayPause))
        printAsTheyCome(context, reader, analyzers);
    else
        printInBatches(context, reader, analyzers);
    context.output.flush();
    return complainAboutDamage(capture->errors(), reader.notes(), reader.packetCount(), isInterrupted());
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
    .isPaged = true,
    .run = run};

}  // namespace sealscope::cli
