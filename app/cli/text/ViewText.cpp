// SPDX-License-Identifier: Apache-2.0
#include "app/cli/text/ViewText.h"

#include "app/cli/text/ColorSequence.h"
#include "app/texts/DisplayText.h"
#include "host/VELCommonTools/Color.h"
#include "platform/UTF8.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>
#include <limits>
#include <vector>

namespace sealscope::cli {

namespace {

constexpr int boundless = std::numeric_limits<int>::max();

/// A piece of a line. `width` counts columns, which the sequences in the text take none of.
struct Cell {
    std::string text;
    int width = 0;
};

Cell cellOf(std::string_view text)
{
    Cell cell;
    cell.width = appendDisplaySafe(cell.text, text);
    return cell;
}

/// The scalars of a text, each as a cell.
std::vector<Cell> scalarsOf(std::string_view text)
{
    std::vector<Cell> cells;
    const DataView bytes(text);
    for (std::int64_t offset = 0; offset < bytes.size();) {
        const auto scalar = utf8::scalarAt(bytes, offset);
        const std::int64_t length = scalar ? scalar->length : 1;
        cells.push_back(cellOf(bytes.sub(offset, length).text()));
        offset += length;
    }
    return cells;
}

Cell joined(std::span<const Cell> cells)
{
    Cell all;
    for (const Cell& cell : cells) all.text += cell.text, all.width += cell.width;
    return all;
}

/// The text in one line of at most `columns`, with "…" for what was cut out of its middle.
Cell cutInTheMiddle(std::string_view text, int columns)
{
    if (Cell whole = cellOf(text); whole.width <= columns) return whole;
    const std::vector<Cell> scalars = scalarsOf(text);
    int left = std::max(columns - 1, 0);
    std::size_t head = 0, tail = scalars.size();
    for (bool fromHead = true; head < tail; fromHead = !fromHead) {
        const Cell& next = fromHead ? scalars[head] : scalars[tail - 1];
        if (next.width > left) break;
        left -= next.width;
        if (fromHead)
            ++head;
        else
            --tail;
    }
    const std::span all(scalars);
    Cell cut = joined(all.first(head));
    cut.text += "…";
    const Cell end = joined(all.subspan(tail));
    return {cut.text + end.text, cut.width + 1 + end.width};
}

/// The text in lines of at most `columns`, broken at spaces, and within a word where that is too long for a line, as texts
/// in scripts without spaces are.
std::vector<Cell> wrapped(std::string_view text, int columns)
{
    if (columns == boundless) return {cellOf(text)};
    std::vector<Cell> lines(1);
    std::vector<Cell> word;
    const auto endWord = [&] {
        const int width = joined(word).width;
        if (lines.back().width > 0 && lines.back().width + 1 + width > columns)
            lines.emplace_back();
        else if (lines.back().width > 0)
            lines.back().text += ' ', ++lines.back().width;
        for (const Cell& scalar : word) {
            if (lines.back().width > 0 && lines.back().width + scalar.width > columns) lines.emplace_back();
            lines.back().text += scalar.text;
            lines.back().width += scalar.width;
        }
        word.clear();
    };
    for (Cell& scalar : scalarsOf(text)) {
        if (scalar.text == " ")
            endWord();
        else
            word.push_back(std::move(scalar));
    }
    endWord();
    return lines;
}

class Renderer {
public:
    explicit Renderer(const Terminal& terminal) : hasColors_(terminal.hasColors) {}

    std::vector<Cell> lines(const AnyView& view, int columns) const
    {
        struct Visitor {
            const Renderer& renderer;
            const AnyView& view;
            int columns;

            std::vector<Cell> operator()(const EmptyView&) const { return {}; }
            std::vector<Cell> operator()(const VStack& stack) const { return renderer.column(stack, columns); }
            std::vector<Cell> operator()(const HStack& stack) const { return renderer.row(stack, columns); }
            std::vector<Cell> operator()(const Text& text) const
            {
                if (view.style().lineLimit == 1 && columns != boundless) return {cutInTheMiddle(text.text, columns)};
                return wrapped(text.text, columns);
            }
            std::vector<Cell> operator()(const TextField& field) const { return {renderer.field(field, columns)}; }
            std::vector<Cell> operator()(const Button& button) const { return {cellOf("[" + button.title + "]")}; }
            std::vector<Cell> operator()(const Toggle& toggle) const
            {
                return {cellOf((toggle.isOn.get() ? "[x] " : "[ ] ") + toggle.title)};
            }
            std::vector<Cell> operator()(const ColorWell& well) const { return {renderer.colorWell(well)}; }
        };
        std::vector<Cell> result = std::visit(Visitor{*this, view, columns}, view.content());
        for (Cell& line : result) line.text = styled(line.text, styleOf(view.style()));
        return result;
    }

private:
    static Style styleOf(const ViewStyle& style)
    {
        if (style.font && style.font->weight == Font::Weight::bold) return Style::strong;
        return style.isSecondary ? Style::faint : Style::plain;
    }

    std::string styled(const std::string& text, Style style) const
    {
        if (!hasColors_ || style == Style::plain || text.empty()) return text;
        return fmt::format("{}{}{}", sequence(style), text, resetSequence);
    }

    std::vector<Cell> column(const VStack& stack, int columns) const
    {
        // A line is about 16 points high; less space than that between two rows is none.
        const auto emptyLines = static_cast<std::size_t>(std::lround(std::floor(stack.spacing / 16)));
        std::vector<Cell> all;
        for (const AnyView& child : stack.children) {
            std::vector<Cell> rows = lines(child, columns);
            if (!all.empty() && !rows.empty()) all.resize(all.size() + emptyLines);
            std::ranges::move(rows, std::back_inserter(all));
        }
        return all;
    }

    /// All in one line; what has to be cut gets the columns that the others leave.
    std::vector<Cell> row(const HStack& stack, int columns) const
    {
        constexpr int gap = 2;
        const auto isFlexible = [](const AnyView& view) {
            return view.style().lineLimit == 1 || std::holds_alternative<TextField>(view.content());
        };
        int left = columns == boundless ? boundless : columns + gap;
        for (const AnyView& child : stack.children) {
            if (columns == boundless) break;
            left -= gap;
            if (!isFlexible(child)) left -= joined(lines(child, boundless)).width;
        }
        Cell line;
        for (const AnyView& child : stack.children) {
            const Cell cell = joined(lines(child, isFlexible(child) && columns != boundless ? std::max(left, 12) : boundless));
            if (line.width > 0) line.text.append(gap, ' '), line.width += gap;
            line.text += cell.text;
            line.width += cell.width;
        }
        return {line};
    }

    Cell field(const TextField& field, int columns) const
    {
        const std::string value = field.text.get();
        const Cell label = cellOf(field.label.empty() ? std::string() : field.label + " ");
        const int room = columns == boundless ? boundless : columns - label.width - 4;
        const Cell inside = room == boundless ? cellOf(value.empty() ? field.placeholder : value)
                                              : cutInTheMiddle(value.empty() ? field.placeholder : value, room);
        return {label.text + "[ " + styled(inside.text, value.empty() ? Style::faint : Style::plain) + " ]",
                label.width + inside.width + 4};
    }

    Cell colorWell(const ColorWell& well) const
    {
        const auto color = well.color.get();
        Cell cell = cellOf(fmt::format("{} {}", well.title, color ? rawValue(*color) : "—"));
        if (!color || !hasColors_) return cell;
        cell.text += fmt::format(" {}    {}", fillSequence(*color), resetSequence);
        cell.width += 5;
        return cell;
    }

    bool hasColors_;
};

}  // namespace

void appendViewText(std::string& text, const AnyView& view, const Terminal& terminal)
{
    const int columns = terminal.columns > 0 ? terminal.columns : boundless;
    for (const Cell& line : Renderer(terminal).lines(view, columns)) text += line.text + '\n';
}

}  // namespace sealscope::cli
