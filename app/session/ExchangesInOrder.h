// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/session/Exchanges.h"
#include "app/session/InOrder.h"
#include "app/session/Session.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <memory>
#include <utility>
#include <vector>

namespace sealscope {

/// Hands over the exchanges of some streams, which are given in ascending order, by their times. `make(stream, exchange)` runs on
/// several threads and gives what is kept of an exchange until its turn comes; `take(made)` runs on one at a time, and ends everything
/// by giving false.
template <class Make, class Take>
void exchangesInOrder(const Session& session, const std::vector<std::int64_t>& streams, const Make& make, const Take& take)
{
    using Made = decltype(make(std::declval<const TCPStream&>(), std::declval<const Exchange&>()));
    // Of a stream with more of them, what is made at once would be more than the exchanges themselves.
    constexpr std::size_t madeAtOnce = 1'000;
    struct OfStream {
        std::int64_t number = 0;
        TCPStream stream;
        std::vector<Exchange> exchanges;  ///< by time
        std::vector<Made> made;           ///< of all of them, or none yet
        std::vector<double> times;
        std::size_t next = 0;
        double time() const { return times[next]; }
    };
    const auto find = [&](std::int64_t number) {
        auto found = std::make_unique<OfStream>();
        found->number = number;
        found->stream = session.stream(number);
        if (auto interpretation = applicationInterpretation(session, found->stream)) found->exchanges = exchangesOf(*std::move(interpretation));
        found->times.reserve(found->exchanges.size());
        for (const Exchange& exchange : found->exchanges) found->times.push_back(exchange.time());
        if (found->exchanges.size() > madeAtOnce) return found;
        for (const Exchange& exchange : found->exchanges) found->made.push_back(make(found->stream, exchange));
        found->exchanges.clear();
        return found;
    };

    const auto isLater = [](const std::unique_ptr<OfStream>& a, const std::unique_ptr<OfStream>& b) {
        return std::pair(a->time(), a->number) > std::pair(b->time(), b->number);
    };
    std::vector<std::unique_ptr<OfStream>> waiting;  // a heap, the one whose next exchange is the earliest on top
    bool isWanted = true;
    const auto handOutBefore = [&](double time) {
        while (isWanted && !waiting.empty() && waiting.front()->time() < time) {
            std::ranges::pop_heap(waiting, isLater);
            OfStream& first = *waiting.back();
            if (first.made.empty())
                isWanted = take(make(first.stream, std::exchange(first.exchanges[first.next], {})));
            else
                isWanted = take(std::move(first.made[first.next]));
            if (++first.next == first.times.size())
                waiting.pop_back();
            else
                std::ranges::push_heap(waiting, isLater);
        }
    };
    std::size_t taken = 0;
    const auto collect = [&](std::unique_ptr<OfStream> found) {
        if (!found->times.empty()) {
            waiting.push_back(std::move(found));
            std::ranges::push_heap(waiting, isLater);
        }
        // Nothing of a later stream can be earlier than its first packet.
        ++taken;
        handOutBefore(taken < streams.size() ? session.startTime(streams[taken]) : std::numeric_limits<double>::infinity());
        return isWanted;
    };
    const auto weight = [&](std::int64_t number) { return session.packets(number) * usualPayload; };
    inOrder(streams, weight, find, collect);
    handOutBefore(std::numeric_limits<double>::infinity());
}

}  // namespace sealscope
