// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/models/RowFilter.h"

#include <exception>

namespace sealscope::desktop {

RowFilter RowFilter::prepared() const
{
    RowFilter filter = *this;
    if (text.empty()) return filter;
    if (!filter.kind.predicate) filter.kind.predicate = ColumnPredicate::parse("any CONTAINS[cd] $value");
    filter.kind.predicate = filter.kind.predicate->with(text);
    return filter;
}

bool RowFilter::accepts(const PacketIndex& packets, std::int64_t position) const
{
    const PacketEntry& entry = packets[position];
    if (times && (entry.time < times->first || entry.time > times->second)) return false;
    const bool isRecognized = entry.plugIn != PacketEntry::unrecognized;
    if (!isRecognized && !showsEveryPacket) return false;
    if (text.empty()) return true;
    const bool isOfColumn = !kind.title.empty();
    if (isOfColumn && (!isRecognized || entry.plugIn != kind.plugIn)) return false;
    try {
        return acceptsText(packets.row(position));
    } catch (const std::exception&) {
        return false;  // a plug-in that fails on a packet says nothing about it
    }
}

bool RowFilter::acceptsText(const PacketRow& row) const
{
    if (!kind.title.empty()) return row.match && kind.predicate->accepts(row.match.analyzer->value(kind.predicate->key(), row.payload));
    if (kind.predicate->accepts(row.source.text()) || kind.predicate->accepts(row.destination.text())) return true;
    if (!row.match) return false;
    for (const PacketPlugIn::Column& column : row.match.plugIn->columns)
        if (const auto value = row.match.analyzer->value(column.key, row.payload); value && kind.predicate->accepts(value)) return true;
    const auto info = row.match.analyzer->protocolInfo(row.payload);
    return info && kind.predicate->accepts(*info);
}

std::vector<RowFilter::Kind> filterKinds(const PacketAnalyzers& analyzers)
{
    std::vector<RowFilter::Kind> kinds(1);
    for (std::size_t plugIn = 0; plugIn < analyzers.plugIns().size(); ++plugIn)
        for (const PacketPlugIn::Column& column : analyzers.plugIns()[plugIn].columns)
            if (column.filter) kinds.push_back({column.filterTitle.empty() ? column.title : column.filterTitle, plugIn, column.filter});
    return kinds;
}

}  // namespace sealscope::desktop
