// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/models/ExchangeTable.h"

#include <algorithm>
#include <numeric>
#include <oneapi/tbb/parallel_sort.h>
#include <utility>

namespace sealscope::desktop {

void ExchangeTable::add(FoundExchange exchange)
{
    ExchangeSummary& summary = exchange.summary;
    records_.push_back({.time = summary.time,
                        .wait = summary.wait.value_or(-1),
                        .duration = summary.duration.value_or(-1),
                        .size = summary.size.value_or(-1),
                        .request = exchange.request,
                        .stream = static_cast<std::uint32_t>(exchange.stream),
                        .status = static_cast<std::int32_t>(summary.status.value_or(-1)),
                        .method = names_.number(summary.method),
                        .type = names_.number(summary.mediaType),
                        .protocol = names_.number(summary.protocol),
                        .hasReply = summary.hasReply,
                        .isFailure = summary.isFailure,
                        .url = std::move(summary.url)});
}

std::vector<std::uint32_t> ExchangeTable::urlRanks() const
{
    std::vector<std::uint32_t> sorted(records_.size()), ranks(records_.size());
    std::iota(sorted.begin(), sorted.end(), 0U);
    oneapi::tbb::parallel_sort(sorted.begin(), sorted.end(), [&](std::uint32_t one, std::uint32_t other) {
        const int order = records_[one].url.compare(records_[other].url);
        return order != 0 ? order < 0 : one < other;
    });
    // The same text has the same rank, so that rows of one URL stay in their order whichever way they are sorted.
    for (std::size_t at = 0; at < sorted.size(); ++at)
        ranks[sorted[at]] = at > 0 && records_[sorted[at]].url == records_[sorted[at - 1]].url ? ranks[sorted[at - 1]]
                                                                                               : static_cast<std::uint32_t>(at);
    return ranks;
}

void ExchangeTable::arrange(RowOrder& order, Column column, RowOrder::Direction direction, const FilterTerms& terms) const
{
    std::vector<std::vector<bool>> inNames;
    for (const std::string& term : terms.terms()) {
        std::vector<bool>& contains = inNames.emplace_back(names_.size());
        for (std::uint32_t number = 0; number < names_.size(); ++number) contains[number] = containsLowered(names_[number], term);
    }
    const auto isWanted = [&](std::uint32_t row) {
        const Record& record = records_[row];
        for (std::size_t i = 0; i < inNames.size(); ++i) {
            const std::vector<bool>& inName = inNames[i];
            const std::string& term = terms.terms()[i];
            const bool isFound = inName[record.method] || inName[record.type] || inName[record.protocol] ||
                                 containsLowered(record.url, term) || (record.status >= 0 && std::to_string(record.status).contains(term));
            if (!isFound) return false;
        }
        return true;
    };
    const auto by = [&](const auto& key) {
        order.arrange(size(), direction, [&](std::uint32_t row) { return static_cast<std::uint64_t>(key(records_[row], row)); }, isWanted);
    };
    const auto byName = [&](std::uint32_t Record::*name) {
        const auto& ranks = names_.ranks();
        by([&](const Record& record, std::uint32_t) { return ranks[record.*name]; });
    };
    switch (column) {
    case Column::time:
    case Column::waterfall: return by([](const Record& record, std::uint32_t) { return sortKey(record.time); });
    case Column::stream:
        // Of one stream in the order of time, as it is read.
        return by([](const Record& record, std::uint32_t) { return record.stream; });
    case Column::method: return byName(&Record::method);
    case Column::status: return by([](const Record& record, std::uint32_t) { return record.status + 1; });
    case Column::type: return byName(&Record::type);
    case Column::size: return by([](const Record& record, std::uint32_t) { return record.size + 1; });
    case Column::duration: return by([](const Record& record, std::uint32_t) { return sortKey(record.duration); });
    case Column::url: {
        const auto ranks = urlRanks();
        return by([&](const Record&, std::uint32_t row) { return ranks[row]; });
    }
    }
}

}  // namespace sealscope::desktop
