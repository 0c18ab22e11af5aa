// SPDX-License-Identifier: Apache-2.0
#include "app/cli/text/ExchangeRows.h"

#include "app/cli/text/DisplayText.h"
#include "app/cli/text/SizeText.h"

#include <algorithm>
#include <fmt/format.h>
#include <string_view>
#include <utility>

namespace sealscope::cli {

namespace {

// The widths of the columns before the last, and the gaps between them.
constexpr int widthBeforeURL = 12 + 6 + 7 + 6 + 24 + 8 + 8 + 7 * 2;

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

}  // namespace

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
