// SPDX-License-Identifier: Apache-2.0
#include "app/streams/SegmentList.h"

#include <algorithm>
#include <bit>
#include <new>
#include <sys/mman.h>

namespace sealscope {

namespace {

// Chunk sizes come in pairs: 4 4 8 8 16 16 … 256 256, then 512 for ever. The pair of size 4 << p begins at 8 * (2^p - 1).
constexpr std::uint32_t fullSize = 512;
constexpr std::uint32_t growingRecords = 8 * (fullSize / 4 - 1);
constexpr std::uint32_t growingChunks = 2 * (std::bit_width(fullSize / 4) - 1);

struct Slot {
    std::uint32_t chunk = 0;
    std::uint32_t position = 0;  ///< within the chunk
    std::uint32_t capacity = 0;  ///< of the chunk
};

Slot slotOf(std::uint32_t record)
{
    if (record >= growingRecords) {
        const std::uint32_t after = record - growingRecords;
        return {growingChunks + after / fullSize, after % fullSize, fullSize};
    }
    const auto pair = static_cast<std::uint32_t>(std::bit_width(record / 8 + 1) - 1);
    const std::uint32_t capacity = 4U << pair;
    const std::uint32_t inPair = record - 8 * ((1U << pair) - 1);
    return {2 * pair + inPair / capacity, inPair % capacity, capacity};
}

}  // namespace

struct SegmentList::Chunk {
    Chunk* next = nullptr;
    SegmentRecord* records() { return reinterpret_cast<SegmentRecord*>(this + 1); }
};

void* SegmentArena::allocate(std::size_t size)
{
    size = (size + alignof(std::max_align_t) - 1) / alignof(std::max_align_t) * alignof(std::max_align_t);
    if (size > left_) {
        const bool isFirst = slabs_.empty();
        left_ = isFirst ? firstSlab : slabSize;
        auto* const slab = static_cast<std::byte*>(std::aligned_alloc(isFirst ? alignof(std::max_align_t) : slabSize, left_));
        if (!slab) throw std::bad_alloc();
        slabs_.emplace_back(slab);
        if (!isFirst) madvise(slab, left_, MADV_HUGEPAGE);
        next_ = slab;
    }
    void* const memory = next_;
    next_ += size;
    left_ -= size;
    return memory;
}

void SegmentList::append(const SegmentRecord& record, SegmentArena& arena)
{
    const Slot slot = slotOf(size_);
    if (slot.position == 0) {
        auto* const chunk = new (arena.allocate(sizeof(Chunk) + slot.capacity * sizeof(SegmentRecord))) Chunk;
        (last_ ? last_->next : first_) = chunk;
        last_ = chunk;
    }
    new (last_->records() + slot.position) SegmentRecord(record);
    ++size_;
}

SegmentTable::SegmentTable(const SegmentList& list) : size_(list.size_)
{
    if (size_ == 0) return;
    chunks_.reserve(slotOf(size_ - 1).chunk + 1);
    for (SegmentList::Chunk* chunk = list.first_; chunk; chunk = chunk->next) chunks_.push_back(chunk->records());
}

const SegmentRecord& SegmentTable::operator[](std::uint32_t position) const
{
    const Slot slot = slotOf(position);
    return chunks_[slot.chunk][slot.position];
}

std::span<const SegmentRecord> SegmentTable::chunkFrom(std::uint32_t position) const
{
    const Slot slot = slotOf(position);
    return {chunks_[slot.chunk] + slot.position, std::min(slot.capacity - slot.position, size_ - position)};
}

}  // namespace sealscope
