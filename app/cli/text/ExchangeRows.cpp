// SPDX-License-Identifier: Apache-2.0
#include "app/cli/text/ExchangeRows.h"

#include "app/records/ExchangeSummary.h"
#include "app/texts/DisplayText.h"
#include "app/texts/SizeText.h"

#include <algorithm>
#include <fmt/format.h>
#include <string_view>
#include <utility>

namespace sealscope::cli {

namespace {

// The widths of the columns before the last, and the gaps between them.
constexpr int widthBeforeURL = 12 + 6 + 7 + 6 + 24 + 8 + 8 + 7 * 2;

}  // namespace

ExchangeCells cellsOf(std::int64_t stream, const Exchange& exchange)
{
    ExchangeSummary summary = summaryOf(exchange);
    return {.time = summary.time,
            .texts = {"", fmt::to_string(stream), std::move(summary.method),
                      summary.status ? fmt::to_string(*summary.status) : summary.hasReply ? "" : "none", std::move(summary.mediaType),
                      summary.size ? sizeText(*summary.size) : "", summary.duration ? durationText(*summary.duration) : "",
                      std::move(summary.url)},
            .isFailure = summary.isFailure};
}

void ExchangeTable::append(std::string& text, ExchangeCells& cells)
{
    if (!std::exchange(hasHeading_, true)) table_.appendHeading(text);
    time_.appendClock(cells.texts[0], cells.time);
    cells.texts[0].resize(TimeText::clockWidth - 3);  // milliseconds
    if (terminal_.columns > 0) cells.texts.back() = shortenedInTheMiddle(cells.texts.back(), terminal_.columns - widthBeforeURL);
    std::array<std::string_view, ExchangeCells::count> views;
    std::ranges::copy(cells.texts, views.begin());
    table_.appendRow(text, views, terminal_.hasColors && cells.isFailure ? sequence(Style::warning) : std::string_view());
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
