// SPDX-License-Identifier: Apache-2.0
#include "app/capture/FragmentAssembler.h"

#include <algorithm>
#include <bit>
#include <utility>

namespace sealscope {
namespace {

/// Time stamps may be any numbers; their difference wraps.
std::int64_t secondsBetween(std::int64_t from, std::int64_t to)
{
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(to) - static_cast<std::uint64_t>(from));
}

}  // namespace

std::optional<Datagram> FragmentAssembler::add(const DatagramKey& key, const Fragment& fragment, std::int64_t seconds, WhenLost whenLost)
{
    while (!pending_.empty() && secondsBetween(pending_.front().seconds, seconds) > patience) giveUp(pending_.begin());

    auto known = known_.find(key);
    if (known == known_.end()) {
        if (pending_.size() == mostDatagrams) giveUp(pending_.begin());
        pending_.emplace_back();
        pending_.back().key = key;
        pending_.back().seconds = seconds;
        pending_.back().countsWhenLost = whenLost == WhenLost::isCounted;
        known = known_.emplace(key, std::prev(pending_.end())).first;
    }
    const Position position = known->second;
    bytesHeld_ -= position->held();
    take(*position, fragment);
    bytesHeld_ += position->held();

    const bool isComplete = position->length >= 0 && position->unitsArrived == (position->length + unit - 1) / unit;
    if (isComplete) {
        Datagram datagram = joined(*position);
        forget(position);
        return datagram;
    }
    while (bytesHeld_ > mostBytes) giveUp(pending_.begin());
    return std::nullopt;
}

void FragmentAssembler::take(Pending& pending, const Fragment& fragment)
{
    static constexpr std::int64_t bits = 64;
    const std::int64_t end = fragment.offset + fragment.length;
    // The units of a word that lie before a position.
    const auto before = [](std::int64_t word, std::int64_t position) {
        const std::int64_t units = std::clamp<std::int64_t>((position + unit - 1) / unit - word * bits, 0, bits);
        return units == bits ? ~std::uint64_t{0} : (std::uint64_t{1} << units) - 1;
    };
    if (fragment.isLast && pending.length < 0) {
        pending.length = end;
        // What lies behind the end does not belong to the datagram.
        const bool hasSome = std::exchange(pending.unitsArrived, 0) > 0;
        for (std::size_t word = 0; hasSome && word < words; ++word)
            pending.unitsArrived += std::popcount(pending.arrived[word] &= before(static_cast<std::int64_t>(word), end));
    }
    if (fragment.offset == 0) pending.protocol = fragment.protocol;

    // Runs of units that nobody brought before.
    const auto keep = [&](std::int64_t firstUnit, std::int64_t lastUnit) {
        const std::int64_t at = firstUnit * unit, size = std::min(lastUnit * unit, end) - at;
        const DataView part = fragment.bytes.sub(at - fragment.offset, size);
        if (part.size() < size) pending.cutAt = std::min(pending.cutAt, at + part.size());
        if (part.isEmpty()) return;
        pending.pieces.push_back({.offset = at, .place = std::ssize(pending.bytes), .size = part.size()});
        pending.bytes.insert(pending.bytes.end(), part.begin(), part.end());
    };
    const std::int64_t limit = pending.length >= 0 ? std::min(end, pending.length) : end;
    std::int64_t runStart = 0, runEnd = 0;
    for (std::int64_t word = fragment.offset / unit / bits; word * bits * unit < limit; ++word) {
        std::uint64_t& arrived = pending.arrived[static_cast<std::size_t>(word)];
        std::uint64_t fresh = before(word, limit) & ~before(word, fragment.offset) & ~arrived;
        arrived |= fresh;
        pending.unitsArrived += std::popcount(fresh);
        while (fresh != 0) {
            const int first = std::countr_zero(fresh), count = std::countr_one(fresh >> first);
            fresh &= ~before(0, (first + count) * unit);
            const std::int64_t at = word * bits + first;
            if (at != runEnd) {
                if (runEnd > runStart) keep(runStart, runEnd);
                runStart = at;
            }
            runEnd = at + count;
        }
    }
    if (runEnd > runStart) keep(runStart, runEnd);
}

Datagram FragmentAssembler::joined(const Pending& pending)
{
    Datagram datagram{{}, pending.length, pending.protocol};
    datagram.bytes.resize(static_cast<std::size_t>(std::min(pending.length, pending.cutAt)));
    for (const auto& [offset, place, size] : pending.pieces) {
        const std::int64_t count = std::min(size, std::ssize(datagram.bytes) - offset);
        if (count > 0) std::copy_n(pending.bytes.begin() + place, count, datagram.bytes.begin() + offset);
    }
    return datagram;
}

std::int64_t FragmentAssembler::incompleteCount() const { return givenUp_ + std::ranges::count_if(pending_, &Pending::countsWhenLost); }

void FragmentAssembler::giveUp(Position position)
{
    if (position->countsWhenLost) ++givenUp_;
    forget(position);
}

void FragmentAssembler::forget(Position position)
{
    bytesHeld_ -= position->held();
    known_.erase(position->key);
    pending_.erase(position);
}

}  // namespace sealscope
