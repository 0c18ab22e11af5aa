// SPDX-License-Identifier: Apache-2.0
#include "app/cli/text/TextTable.h"

#include "app/texts/DisplayText.h"

#include <algorithm>
#include <limits>
#include <numeric>

namespace sealscope::cli {

TextTable::TextTable(std::vector<TextColumn> columns, const Terminal& terminal) : columns_(std::move(columns)), terminal_(terminal)
{
    for (const TextColumn& column : columns_) {
        cell_.clear();
        layout_.widths.push_back(std::max(appendDisplaySafe(cell_, column.title), column.narrowest));
    }
    fitToTerminal();
}

void TextTable::measure(std::span<const std::string_view> cells)
{
    for (std::size_t i = 0; i + 1 < columns_.size(); ++i) {
        cell_.clear();
        layout_.widths[i] = std::max(layout_.widths[i], appendDisplaySafe(cell_, cells[i]));
        if (terminal_.columns > 0) layout_.widths[i] = std::min(layout_.widths[i], std::max(columns_[i].widest, columns_[i].narrowest));
    }
    fitToTerminal();
}

// Takes a column at a time from the widest of those that can give, until the last one has the room that it needs.
void TextTable::fitToTerminal()
{
    if (terminal_.columns == 0) return;
    const int gaps = gap * static_cast<int>(columns_.size() - 1);
    for (;;) {
        layout_.lastWidth = terminal_.columns - gaps - std::accumulate(layout_.widths.begin(), layout_.widths.end() - 1, 0);
        if (layout_.lastWidth >= columns_.back().narrowest) return;
        const auto widest = [&](auto&& mayGive) {
            std::size_t giver = columns_.size();
            for (std::size_t i = 0; i + 1 < columns_.size(); ++i) {
                const bool canGive = mayGive(columns_[i]) && layout_.widths[i] > columns_[i].narrowest;
                if (canGive && (giver == columns_.size() || layout_.widths[i] > layout_.widths[giver])) giver = i;
            }
            return giver;
        };
        std::size_t giver = widest([](const TextColumn& column) { return !column.isFirm; });
        if (giver == columns_.size()) giver = widest([](const TextColumn& column) { return column.isFirm; });
        if (giver == columns_.size()) break;
        --layout_.widths[giver];
    }
    layout_.lastWidth = std::max(layout_.lastWidth, 1);
}

void TextTable::appendHeading(std::string& text)
{
    std::vector<std::string_view> titles;
    for (const TextColumn& column : columns_) titles.push_back(column.title);
    appendCells(text, titles, RowKind::heading, {});
}

void TextTable::appendRow(std::string& text, std::span<const std::string_view> cells, std::string_view fill)
{
    appendCells(text, cells, RowKind::row, terminal_.hasColors ? fill : std::string_view());
}

void TextTable::appendCells(std::string& text, std::span<const std::string_view> cells, RowKind kind, std::string_view fill)
{
    text += fill;
    std::size_t lineEnd = text.size();  // blanks at the end of a line are left out
    for (std::size_t i = 0; i < columns_.size(); ++i) {
        const TextColumn& column = columns_[i];
        const bool isLast = i + 1 == columns_.size();
        int room = std::numeric_limits<int>::max();
        if (terminal_.columns > 0) room = isLast ? layout_.lastWidth : layout_.widths[i];

        cell_.clear();
        int width = appendDisplaySafe(cell_, cells[i], room);
        if (!isLast && width >= room && room < column.widest) {
            // Perhaps cut: the column may still grow, as long as the last one keeps its own.
            std::string whole;
            const int wanted = std::min(appendDisplaySafe(whole, cells[i]), column.widest);
            const int growth = std::min(wanted - room, layout_.lastWidth - columns_.back().narrowest);
            if (growth > 0) {
                layout_.widths[i] += growth;
                layout_.lastWidth -= growth;
                cell_.clear();
                width = appendDisplaySafe(cell_, cells[i], layout_.widths[i]);
            }
        }
        if (!isLast) layout_.widths[i] = std::max(layout_.widths[i], width);

        const auto padding = static_cast<std::size_t>(isLast ? 0 : layout_.widths[i] - width);
        if (column.alignment == TextColumn::Alignment::right) text.append(padding, ' ');
        const Style style = kind == RowKind::heading ? Style::strong : column.style;
        const bool isColored = terminal_.hasColors && fill.empty() && style != Style::plain && !cell_.empty();
        if (isColored) text += sequence(style);
        text += cell_;
        if (isColored) text += resetSequence;
        if (!cell_.empty()) lineEnd = text.size();
        if (column.alignment == TextColumn::Alignment::left) text.append(padding, ' ');
        if (!isLast) text.append(gap, ' ');
    }
    text.resize(lineEnd);
    if (!fill.empty()) text += resetSequence;
    text += '\n';
}

}  // namespace sealscope::cli
