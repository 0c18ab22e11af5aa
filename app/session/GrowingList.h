// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace sealscope {

/// A list that one thread appends to while any thread reads what was appended before. Items never move.
template <class Item> class GrowingList {
public:
    /// Pointers to the chunks take half a mebibyte; a list that is made for each capture can afford it.
    static constexpr std::int64_t chunkSize = 1 << 16, capacity = chunkSize << 16;

    GrowingList() : chunks_(std::make_unique<Chunks>()) {}

    std::int64_t size() const { return size_.load(std::memory_order_acquire); }
    /// An item below `size()`.
    const Item& operator[](std::int64_t position) const
    {
        return (*(*chunks_)[static_cast<std::size_t>(position / chunkSize)])[static_cast<std::size_t>(position % chunkSize)];
    }
    /// False when there is no room left.
    bool append(const Item& item)
    {
        const std::int64_t size = size_.load(std::memory_order_relaxed);
        if (size == capacity) return false;
        auto& chunk = (*chunks_)[static_cast<std::size_t>(size / chunkSize)];
        if (!chunk) chunk = std::make_unique<Chunk>();
        (*chunk)[static_cast<std::size_t>(size % chunkSize)] = item;
        size_.store(size + 1, std::memory_order_release);
        return true;
    }

private:
    using Chunk = std::array<Item, chunkSize>;
    using Chunks = std::array<std::unique_ptr<Chunk>, capacity / chunkSize>;
    std::unique_ptr<Chunks> chunks_;
    std::atomic<std::int64_t> size_ = 0;
};

}  // namespace sealscope
