// SPDX-License-Identifier: Apache-2.0
#include "app/cli/text/VerdictTable.h"

#include "app/texts/DisplayText.h"

#include <algorithm>
#include <utility>

namespace sealscope::cli {

namespace {

std::vector<TextColumn> withVerdict(std::vector<TextColumn> columns, const Terminal& terminal)
{
    constexpr int longestVerdict = 19;
    columns.push_back({.title = "Verdict", .narrowest = longestVerdict, .style = Style::strong});
    if (!terminal.isTerminal) columns.push_back({.title = "Detail"});
    return columns;
}

}  // namespace

VerdictTable::VerdictTable(std::vector<TextColumn> columns, const Terminal& terminal)
    : terminal_(terminal), table_(withVerdict(std::move(columns), terminal), terminal)
{}

std::span<const std::string_view> VerdictTable::row(std::span<const std::string_view> cells, std::string_view verdict,
                                                    std::string_view sentence)
{
    cells_.assign(cells.begin(), cells.end());
    cells_.push_back(verdict);
    if (!terminal_.isTerminal) cells_.push_back(sentence);
    return cells_;
}

void VerdictTable::measure(std::span<const std::string_view> cells) { table_.measure(row(cells, {}, {})); }

void VerdictTable::append(std::string& text, std::span<const std::string_view> cells, std::string_view verdict, std::string_view sentence)
{
    if (!std::exchange(hasHeading_, true)) table_.appendHeading(text);
    table_.appendRow(text, row(cells, verdict, sentence));
    if (terminal_.isTerminal) appendWrapped(text, displaySafe(sentence));
}

// Lines are cut at blanks. A word that is longer than a line stays whole: it may be a path that somebody wants to copy.
void VerdictTable::appendWrapped(std::string& text, std::string_view sentence) const
{
    constexpr std::size_t indent = 8;
    const std::size_t room = static_cast<std::size_t>(std::max(terminal_.columns, 40)) - indent;
    while (!sentence.empty()) {
        std::size_t length = sentence.size();
        if (length > room) {
            length = sentence.rfind(' ', room);
            if (length == std::string_view::npos || length == 0) length = std::min(sentence.find(' ', 1), sentence.size());
        }
        text.append(indent, ' ');
        text += sentence.substr(0, length);
        text += '\n';
        sentence.remove_prefix(std::min(length + 1, sentence.size()));
    }
}

}  // namespace sealscope::cli
