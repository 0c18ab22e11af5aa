// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/session/PacketIndex.h"

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace sealscope::desktop {

/// Which packets the list shows. Any thread may ask it.
struct RowFilter {
    /// One of the filters that a list of packets can have.
    struct Kind {
        std::string title;                         ///< empty for the filter by any column
        std::size_t plugIn = 0;                    ///< whose column it is of
        std::optional<ColumnPredicate> predicate;  ///< nothing for the filter by any column
    };

    bool showsEveryPacket = false;  ///< also those that no plug-in recognizes
    std::optional<std::pair<double, double>> times;  ///< seconds since 1970, both ends included
    Kind kind;
    std::string text;  ///< empty for no filter by columns

    bool accepts(const PacketIndex& packets, std::int64_t position) const;
    /// The filter with its predicate filled in, which is done once for all packets.
    RowFilter prepared() const;

private:
    bool acceptsText(const PacketRow& row) const;
};

/// Every kind there is: by any column, and by each column for which a plug-in declares one.
std::vector<RowFilter::Kind> filterKinds(const PacketAnalyzers& analyzers);

}  // namespace sealscope::desktop
