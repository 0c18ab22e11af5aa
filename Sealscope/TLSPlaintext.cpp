// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSPlaintext.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace sealscope {

void TLSPlaintext::open(const std::function<void(ByteRange body, std::int64_t end)>& took)
{
    auto walk = begin_(captured_);
    if (!walk) return;
    while (true) {
        const TLSDirectionWalk::Position position = walk->position();
        const auto step = walk->next([&](std::int64_t count) { return room(count, position); });
        if (step == TLSDirectionWalk::Step::end) break;
        if (step != TLSDirectionWalk::Step::opened || !walk->isApplicationData()) continue;
        size_ = blocks_.back().end = size_ + walk->plaintext().size();
        took({walk->record().bodyOffset, walk->record().endOffset()}, size_);
    }
    endBlock();
    spare_.reset();
    blocks_.shrink_to_fit();
}

std::uint8_t* TLSPlaintext::room(std::int64_t count, const TLSDirectionWalk::Position& position)
{
    if (blocks_.empty() || size_ - blocks_.back().begin + count > blockSize) {
        endBlock();
        Bytes bytes = std::exchange(spare_, nullptr);
        if (!bytes) bytes = std::make_shared_for_overwrite<std::uint8_t[]>(static_cast<std::size_t>(blockSize));
        blocks_.push_back({.begin = size_, .end = size_, .first = position, .bytes = std::move(bytes)});
    }
    return blocks_.back().bytes.get() + (size_ - blocks_.back().begin);
}

void TLSPlaintext::endBlock()
{
    if (blocks_.empty()) return;
    Block& last = blocks_.back();
    if (last.begin == last.end) {
        spare_ = std::move(last.bytes);
        blocks_.pop_back();
    } else if (last.end > keptBytes) {
        spare_ = std::move(last.bytes);
        isKept_ = false;
    }
}

DataView TLSPlaintext::stretch(std::int64_t offset) const
{
    const auto block = std::prev(std::ranges::upper_bound(blocks_, offset, {}, &Block::begin));
    const std::uint8_t* const bytes =
        block->bytes ? block->bytes.get()
                     : lent_.lend(static_cast<std::uint32_t>(block - blocks_.begin()), [&](std::monostate&) { return opened(*block); });
    return {bytes + (offset - block->begin), block->end - offset};
}

TLSPlaintext::Bytes TLSPlaintext::opened(const Block& block) const
{
    // An opener may use as much room as a record's body has.
    constexpr std::int64_t longestBody = 1 << 16;
    const std::int64_t size = block.end - block.begin;
    Bytes bytes = std::make_shared_for_overwrite<std::uint8_t[]>(static_cast<std::size_t>(size + longestBody));
    std::int64_t at = 0;
    auto walk = begin_(captured_);
    if (walk) walk->goTo(block.first);
    while (walk && at < size) {
        const auto step = walk->next(bytes.get() + at);
        if (step == TLSDirectionWalk::Step::end) break;
        if (step == TLSDirectionWalk::Step::opened && walk->isApplicationData()) at += walk->plaintext().size();
    }
    std::fill(bytes.get() + at, bytes.get() + size, std::uint8_t{0});  // never: all of it has opened before
    return bytes;
}

}  // namespace sealscope
