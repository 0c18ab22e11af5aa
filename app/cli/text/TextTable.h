// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/cli/text/Terminal.h"

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace sealscope::cli {

/// A column of a table that comes row by row.
struct TextColumn {
    enum class Alignment { left, right };
    std::string title;
    Alignment alignment = Alignment::left;
    int narrowest = 4;    ///< columns that it keeps however narrow the terminal is
    int widest = 40;      ///< a longer text does not widen it on a terminal
    bool isFirm = false;  ///< gives room only when the others have none left to give
    Style style = Style::plain;
};

/// Lays rows out in columns. The widths come from the rows that are measured before the first row is written; a longer
/// text that comes later widens its column from there on. On a terminal rows fit its width, and what does not is cut and
/// ends in "…"; elsewhere nothing is cut. The last column takes what is left and is padded nowhere. Texts may hold anything.
class TextTable {
public:
    TextTable(std::vector<TextColumn> columns, const Terminal& terminal);

    /// How wide the columns are: what rows of other tables of the same columns look the same with.
    struct Layout {
        std::vector<int> widths;
        int lastWidth = 0;  ///< of the last column on a terminal
        bool operator==(const Layout&) const = default;
    };
    const Layout& layout() const { return layout_; }
    void adopt(const Layout& layout) { layout_ = layout; }

    /// Lets the widths take a row into account, before the heading is written.
    void measure(std::span<const std::string_view> cells);
    void appendHeading(std::string& text);
    /// A row; `fill` is the sequence of its own colour, in place of the columns' styles.
    void appendRow(std::string& text, std::span<const std::string_view> cells, std::string_view fill = {});

private:
    static constexpr int gap = 2;

    void fitToTerminal();
    enum class RowKind : std::uint8_t { heading, row };
    void appendCells(std::string& text, std::span<const std::string_view> cells, RowKind kind, std::string_view fill);

    std::vector<TextColumn> columns_;
    Layout layout_;
    Terminal terminal_;
    std::string cell_;
};

}  // namespace sealscope::cli
