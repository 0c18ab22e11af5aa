// SPDX-License-Identifier: Apache-2.0
#include "app/cli/text/PacketRows.h"

#include "app/cli/text/ColorSequence.h"
#include "app/records/PacketRecords.h"

#include <fmt/format.h>
#include <utility>

namespace sealscope::cli {

namespace {

class JSONRows final : public PacketRowFormat {
public:
    void prepare(std::span<const PacketRow>) override {}
    void append(std::string& text, const PacketRow& row) override { records_.append(text, row); }
    const Layout& layout() const override { return layout_; }
    void adopt(const Layout&) override {}
    std::unique_ptr<PacketRowFormat> clone() const override { return std::make_unique<JSONRows>(); }

private:
    PacketRecords records_;
    Layout layout_;
};

class TableRows final : public PacketRowFormat {
public:
    TableRows(const PacketAnalyzers& analyzers, const Terminal& terminal)
        : analyzers_(analyzers), terminal_(terminal), isNarrow_(terminal.columns > 0 && terminal.columns < 100),
          texts_(fixedColumns + analyzers.columnTitles().size() + 1), cells_(texts_.size()), table_(columns(analyzers), terminal)
    {}

    void prepare(std::span<const PacketRow> rows) override
    {
        for (const PacketRow& row : rows) table_.measure(cells(row));
    }

    void append(std::string& text, const PacketRow& row) override
    {
        if (!std::exchange(layout_.hasHeading, true)) table_.appendHeading(text);
        table_.appendRow(text, cells(row), row.match.plugIn->color ? fillSequence(*row.match.plugIn->color) : std::string());
    }

    const Layout& layout() const override
    {
        layout_.table = table_.layout();
        return layout_;
    }
    void adopt(const Layout& layout) override
    {
        table_.adopt(layout.table);
        layout_.hasHeading = layout.hasHeading;
    }
    std::unique_ptr<PacketRowFormat> clone() const override
    {
        auto other = std::make_unique<TableRows>(analyzers_, terminal_);
        other->adopt(layout());
        return other;
    }

private:
    static constexpr std::size_t fixedColumns = 4;

    static std::vector<TextColumn> columns(const PacketAnalyzers& analyzers)
    {
        std::vector<TextColumn> columns{
            {.title = "No.",
             .alignment = TextColumn::Alignment::right,
             .narrowest = 4,
             .widest = 12,
             .isFirm = true,
             .style = Style::faint},
            {.title = "Time", .narrowest = 12, .widest = TimeText::clockWidth, .isFirm = true, .style = Style::faint},
            {.title = "Source", .narrowest = 9, .widest = 47, .isFirm = true, .style = Style::accent},
            {.title = "Destination", .narrowest = 9, .widest = 47, .isFirm = true, .style = Style::accent},
        };
        for (const std::string& title : analyzers.columnTitles()) columns.push_back({.title = title, .narrowest = 6, .widest = 32});
        columns.push_back({.title = "Info", .narrowest = 16});
        return columns;
    }

    std::span<const std::string_view> cells(const PacketRow& row)
    {
        for (std::string& text : texts_) text.clear();
        texts_[0] = fmt::format_int(row.number).c_str();
        time_.appendClock(texts_[1], row.time);
        if (isNarrow_) texts_[1].resize(TimeText::clockWidth - 3);  // milliseconds are enough there
        texts_[2] = endpoints_.text(row.source);
        texts_[3] = endpoints_.text(row.destination);
        for (const PacketPlugIn::Column& column : row.match.plugIn->columns)
            if (const auto value = row.match.analyzer->value(column.key, row.payload))
                texts_[fixedColumns + column.position] = displayText(*value);
        if (auto info = row.match.analyzer->protocolInfo(row.payload)) texts_.back() = std::move(*info);
        for (std::size_t i = 0; i < texts_.size(); ++i) cells_[i] = texts_[i];
        return cells_;
    }

    const PacketAnalyzers& analyzers_;
    Terminal terminal_;
    bool isNarrow_;
    std::vector<std::string> texts_;
    std::vector<std::string_view> cells_;
    TextTable table_;
    TimeText time_;
    EndpointTexts endpoints_;
    mutable Layout layout_;
};

}  // namespace

std::unique_ptr<PacketRowFormat> PacketRowFormat::json() { return std::make_unique<JSONRows>(); }

std::unique_ptr<PacketRowFormat> PacketRowFormat::table(const PacketAnalyzers& analyzers, const Terminal& terminal)
{
    return std::make_unique<TableRows>(analyzers, terminal);
}

}  // namespace sealscope::cli
