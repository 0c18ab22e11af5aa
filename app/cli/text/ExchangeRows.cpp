// SPDX-License-Identifier: Apache-2.0
#include "app/cli/text/ExchangeRows.h"

#include "app/records/ExchangeSummary.h"
#include "app/texts/DisplayText.h"
#include "app/texts/SizeText.h"

#include <array>
#include <cstring>
#include <fmt/format.h>
#include <span>
#include <string_view>
#include <utility>

namespace sealscope::cli {

namespace {

// The widths of the columns before the last, and the gaps between them.
constexpr int widthBeforeURL = 12 + 6 + 7 + 6 + 24 + 8 + 8 + 7 * 2;

constexpr std::size_t columnCount = 8;

/// What stands in front of the cells' texts, each of which has its length in front.
struct CellsHead {
    double time = 0;
    std::uint64_t isFailure = 0;  ///< of the request: status 400 or more, or no reply
};

void appendBytes(std::string& cells, const auto& value) { cells.append(reinterpret_cast<const char*>(&value), sizeof value); }

template <class Value> Value takeBytes(std::string_view& cells)
{
    Value value;
    std::memcpy(&value, cells.data(), sizeof value);
    cells.remove_prefix(sizeof value);
    return value;
}

}  // namespace

void appendCells(std::string& cells, std::int64_t stream, const Exchange& exchange)
{
    const ExchangeSummary summary = summaryOf(exchange);
    appendBytes(cells, CellsHead{.time = summary.time, .isFailure = summary.isFailure});
    const auto add = [&](std::string_view text) {
        appendBytes(cells, text.size());
        cells += text;
    };
    add(fmt::format_int(stream).str());
    add(summary.method);
    add(summary.status ? fmt::format_int(*summary.status).str() : summary.hasReply ? "" : "none");
    add(summary.mediaType);
    add(summary.size ? sizeText(*summary.size) : "");
    add(summary.duration ? durationText(*summary.duration) : "");
    add(summary.url);
}

void ExchangeTable::append(std::string& text, std::string_view cells)
{
    if (!std::exchange(hasHeading_, true)) table_.appendHeading(text);
    const auto head = takeBytes<CellsHead>(cells);
    clock_.clear();
    time_.appendClock(clock_, head.time);
    clock_.resize(TimeText::clockWidth - 3);  // milliseconds
    std::array<std::string_view, columnCount> views{clock_};
    for (std::string_view& view : std::span(views).subspan(1)) {
        const auto size = takeBytes<std::size_t>(cells);
        view = cells.substr(0, size);
        cells.remove_prefix(size);
    }
    if (terminal_.columns > 0) views.back() = url_ = shortenedInTheMiddle(views.back(), terminal_.columns - widthBeforeURL);
    table_.appendRow(text, views, terminal_.hasColors && head.isFailure != 0 ? sequence(Style::warning) : std::string_view());
}

std::vector<TextColumn> ExchangeTable::columns()
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

}  // namespace sealscope::cli
