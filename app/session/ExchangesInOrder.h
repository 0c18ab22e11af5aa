// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/session/Exchanges.h"
#include "app/session/ExchangesAhead.h"
#include "app/session/InOrder.h"
#include "app/session/Session.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace sealscope {

/// Hands over the exchanges of some streams, which are given in ascending order, by their times. `make(stream, exchange)` runs on
/// several threads and gives what is kept of an exchange until its turn comes, `heldBytes(made)` bytes about; `take(made)` runs on one at
/// a time, and ends everything by giving false.
template <class Make, class HeldBytes, class Take>
void exchangesInOrder(const Session& session, const std::vector<std::int64_t>& streams, const Make& make, const HeldBytes& heldBytes,
                      const Take& take)
{
    using Made = decltype(make(std::declval<const TCPStream&>(), std::declval<const Exchange&>()));
    // Of a stream with more of them, those behind are made when their turn comes.
    constexpr std::size_t madeAtOnce = 1'000, bytesAtOnce = 4'000'000;
    struct OfStream {
        std::int64_t number = 0;
        TCPStream stream;
        std::vector<std::pair<double, Made>> made;  ///< the first, with their times
        std::size_t next = 0;
        std::unique_ptr<ExchangesAhead> ahead;  ///< gives those behind
        std::optional<double> time() const
        {
            if (next < made.size()) return made[next].first;
            return ahead ? ahead->nextTime() : std::nullopt;
        }
    };
    const auto find = [&](std::int64_t number) {
        auto found = std::make_unique<OfStream>();
        found->number = number;
        found->stream = session.stream(number);
        auto reader = applicationExchanges(session, found->stream);
        if (!reader) return found;
        Exchange exchange;
        std::size_t bytes = 0;
        while (const auto time = reader->nextTime()) {
            if (found->made.size() == madeAtOnce || bytes >= bytesAtOnce) {
                found->ahead = std::make_unique<ExchangesAhead>(std::move(reader));
                break;
            }
            reader->next(exchange);
            found->made.emplace_back(*time, make(found->stream, exchange));
            bytes += heldBytes(found->made.back().second);
        }
        return found;
    };

    const auto isLater = [](const std::unique_ptr<OfStream>& a, const std::unique_ptr<OfStream>& b) {
        return std::pair(a->time(), a->number) > std::pair(b->time(), b->number);
    };
    std::vector<std::unique_ptr<OfStream>> waiting;  // a heap, the one whose next exchange is the earliest on top
    bool isWanted = true;
    const auto handOutBefore = [&](double time) {
        while (isWanted && !waiting.empty() && *waiting.front()->time() < time) {
            std::ranges::pop_heap(waiting, isLater);
            OfStream& first = *waiting.back();
            if (first.next < first.made.size())
                isWanted = take(std::move(first.made[first.next++].second));
            else
                isWanted = take(make(first.stream, first.ahead->next()));
            if (first.time())
                std::ranges::push_heap(waiting, isLater);
            else
                waiting.pop_back();
        }
    };
    std::size_t taken = 0;
    const auto collect = [&](std::unique_ptr<OfStream> found) {
        if (found->time()) {
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
