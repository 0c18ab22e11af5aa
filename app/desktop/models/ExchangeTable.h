// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/desktop/models/FilterTerms.h"
#include "app/desktop/models/RowOrder.h"
#include "app/desktop/models/TextPool.h"
#include "app/records/ExchangeSummary.h"

#include <cstdint>
#include <string>
#include <vector>

namespace sealscope::desktop {

/// An exchange that was found, on its way into the table.
struct FoundExchange {
    std::int64_t stream = 0;
    std::uint64_t request = 0;  ///< mark of its first message
    ExchangeSummary summary;
};

/// What a list shows of the exchanges of a capture; holds no message and no body.
class ExchangeTable {
public:
    enum class Column : std::uint8_t { time, stream, method, status, type, size, duration, url, waterfall };
    static constexpr int columnCount = 9;

    struct Record {
        double time = 0;
        double wait = -1;  ///< negative where it is not known
        double duration = -1;
        std::int64_t size = -1;
        std::uint64_t request = 0;
        std::uint32_t stream = 0;
        std::int32_t status = -1;
        std::uint32_t method = 0;  ///< numbers of `names`
        std::uint32_t type = 0;
        std::uint32_t protocol = 0;
        bool hasReply = false;
        bool isFailure = false;
        std::string url;
    };

    void clear() { records_.clear(); }
    void add(FoundExchange exchange);

    std::uint32_t size() const { return static_cast<std::uint32_t>(records_.size()); }
    const Record& operator[](std::uint32_t row) const { return records_[row]; }
    const std::string& name(std::uint32_t number) const { return names_[number]; }

    void arrange(RowOrder& order, Column column, RowOrder::Direction direction, const FilterTerms& terms) const;

private:
    std::vector<std::uint32_t> urlRanks() const;

    std::vector<Record> records_;
    TextPool names_;
};

}  // namespace sealscope::desktop
