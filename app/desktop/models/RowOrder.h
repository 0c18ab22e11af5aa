// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <bit>
#include <cstdint>
#include <oneapi/tbb/parallel_sort.h>
#include <utility>
#include <vector>

namespace sealscope::desktop {

/// A number whose order is that of a time or a duration.
inline std::uint64_t sortKey(double value)
{
    const auto bits = std::bit_cast<std::uint64_t>(value);
    return bits >> 63 ? ~bits : bits | std::uint64_t{1} << 63;
}

/// Which rows of a table are shown, and in which order: a permutation of row numbers over plain keys, so that a million rows are
/// sorted while a user waits.
class RowOrder {
public:
    enum class Direction : std::uint8_t { ascending, descending };

    std::int64_t size() const { return static_cast<std::int64_t>(rows_.size()); }
    std::uint32_t operator[](std::int64_t position) const { return rows_[static_cast<std::size_t>(position)]; }

    /// Orders those of the first `count` rows that are wanted by their keys, numbers; of equal keys the lower row is first.
    template <class Key, class IsWanted>
    void arrange(std::uint32_t count, Direction direction, const Key& key, const IsWanted& isWanted)
    {
        struct Item {
            std::uint64_t key;
            std::uint32_t row;
            bool operator<(const Item& other) const { return key != other.key ? key < other.key : row < other.row; }
        };
        std::vector<Item> items;
        items.reserve(count);
        for (std::uint32_t row = 0; row < count; ++row) {
            if (!isWanted(row)) continue;
            const std::uint64_t value = key(row);
            items.push_back({direction == Direction::ascending ? value : ~value, row});
        }
        oneapi::tbb::parallel_sort(items.begin(), items.end());
        rows_.resize(items.size());
        for (std::size_t position = 0; position < items.size(); ++position) rows_[position] = items[position].row;
        places_.clear();
    }

    void clear()
    {
        rows_.clear();
        places_.clear();
    }

    /// Where a row is shown; -1 when it is not.
    std::int64_t position(std::uint32_t row) const
    {
        if (places_.empty()) {
            std::uint32_t count = 0;
            for (const std::uint32_t each : rows_) count = std::max(count, each + 1);
            places_.assign(count, -1);
            for (std::size_t place = 0; place < rows_.size(); ++place) places_[rows_[place]] = static_cast<std::int32_t>(place);
        }
        return row < places_.size() ? places_[row] : -1;
    }

private:
    std::vector<std::uint32_t> rows_;
    mutable std::vector<std::int32_t> places_;  ///< of each row; made when it is asked for
};

}  // namespace sealscope::desktop
