// SPDX-License-Identifier: Apache-2.0
#include "app/capture/FragmentAssembler.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace sealscope {
namespace {

/// Time stamps may be any numbers; their difference wraps.
std::int64_t secondsBetween(std::int64_t from, std::int64_t to)
{
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(to) - static_cast<std::uint64_t>(from));
}

}  // namespace

std::optional<Datagram> FragmentAssembler::add(const DatagramKey& key, const Fragment& fragment, std::int64_t seconds, bool countsWhenLost)
{
    while (!pending_.empty() && secondsBetween(pending_.front().seconds, seconds) > patience) giveUp(pending_.begin());

    auto known = known_.find(key);
    if (known == known_.end()) {
        if (pending_.size() == mostDatagrams) giveUp(pending_.begin());
        pending_.emplace_back();
        pending_.back().key = key;
        pending_.back().seconds = seconds;
        pending_.back().countsWhenLost = countsWhenLost;
        known = known_.emplace(key, std::prev(pending_.end())).first;
    }
    const Position position = known->second;
    const auto heldBefore = static_cast<std::int64_t>(position->bytes.capacity());
    take(*position, fragment);
    bytesHeld_ += static_cast<std::int64_t>(position->bytes.capacity()) - heldBefore;

    const bool isComplete = position->length >= 0 && position->unitsArrived == (position->length + unit - 1) / unit;
    if (isComplete) {
        Datagram datagram{std::move(position->bytes), position->length, position->protocol};
        datagram.bytes.resize(static_cast<std::size_t>(std::min(position->length, position->cutAt)));
        bytesHeld_ -= static_cast<std::int64_t>(datagram.bytes.capacity());
        forget(position);
        return datagram;
    }
    while (bytesHeld_ > mostBytes) giveUp(pending_.begin());
    return std::nullopt;
}

void FragmentAssembler::take(Pending& pending, const Fragment& fragment)
{
    const std::int64_t end = fragment.offset + fragment.length;
    if (fragment.isLast && pending.length < 0) {
        pending.length = end;
        // What lies behind the end does not belong to the datagram.
        pending.unitsArrived = 0;
        for (std::int64_t at = 0; at < static_cast<std::int64_t>(words) * 64 * unit; at += unit) {
            std::uint64_t& word = pending.arrived[static_cast<std::size_t>(at / unit / 64)];
            const std::uint64_t bit = std::uint64_t{1} << (at / unit % 64);
            if (at >= end) word &= ~bit;
            if (word & bit) ++pending.unitsArrived;
        }
    }
    if (fragment.offset == 0) pending.protocol = fragment.protocol;
    if (static_cast<std::int64_t>(pending.bytes.size()) < end) pending.bytes.resize(static_cast<std::size_t>(end));
    for (std::int64_t at = fragment.offset; at < end; at += unit) {
        const auto index = static_cast<std::size_t>(at / unit);
        const std::uint64_t bit = std::uint64_t{1} << (index % 64);
        if (pending.length >= 0 && at >= pending.length) break;
        if (pending.arrived[index / 64] & bit) continue;
        pending.arrived[index / 64] |= bit;
        ++pending.unitsArrived;
        const DataView part = fragment.bytes.sub(at - fragment.offset, unit);
        std::copy(part.begin(), part.end(), pending.bytes.begin() + at);
        if (part.size() < std::min(unit, end - at)) pending.cutAt = std::min(pending.cutAt, at + part.size());
    }
}

std::int64_t FragmentAssembler::incompleteCount() const { return givenUp_ + std::ranges::count_if(pending_, &Pending::countsWhenLost); }

void FragmentAssembler::giveUp(Position position)
{
    if (position->countsWhenLost) ++givenUp_;
    bytesHeld_ -= static_cast<std::int64_t>(position->bytes.capacity());
    forget(position);
}

void FragmentAssembler::forget(Position position)
{
    known_.erase(position->key);
    pending_.erase(position);
}

std::size_t FragmentAssembler::Hash::operator()(const DatagramKey& key) const
{
    std::uint8_t bytes[37];
    std::copy(key.source.begin(), key.source.end(), bytes);
    std::copy(key.destination.begin(), key.destination.end(), bytes + 16);
    std::memcpy(bytes + 32, &key.identification, 4);
    bytes[36] = key.protocol;
    return std::hash<std::string_view>{}({reinterpret_cast<const char*>(bytes), sizeof bytes});
}

}  // namespace sealscope
