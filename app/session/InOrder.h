// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/WorkerThreads.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <oneapi/tbb/parallel_pipeline.h>
#include <oneapi/tbb/task_arena.h>
#include <utility>
#include <vector>

namespace sealscope {

/// Bytes that a packet carries in most captures of bulk data; for weights.
inline constexpr std::int64_t usualPayload = 1'000;

/// Works on items side by side and hands the results over in the order of the items, each as soon as it and all before it
/// are ready. `work(item)` runs on several threads; `take(result)` on one at a time, and ends everything by giving false.
/// `weight(item)` is about how many bytes an item makes: light ones go in packs, so that handing them over costs little,
/// and only one pack more than there are threads is ever held. A result should own little: what one thread allocates and
/// another frees makes them wait for each other.
template <class Item, class Weight, class Work, class Take>
void inOrder(const std::vector<Item>& items, const Weight& weight, const Work& work, const Take& take)
{
    using Result = decltype(work(items.front()));
    struct Pack {
        std::size_t first = 0;
        std::size_t last = 0;
        std::vector<Result> results;
    };
    constexpr std::size_t fewItems = 64;
    if (items.size() > fewItems) spreadWorkers();
    constexpr std::int64_t packWeight = 1'000'000;
    constexpr std::size_t packSize = 256;
    std::size_t next = 0;
    std::atomic<bool> isWanted = true;
    const auto begin = [&](oneapi::tbb::flow_control& control) -> Pack {
        if (next == items.size() || !isWanted) {
            control.stop();
            return {};
        }
        Pack pack{next, next, {}};
        // The first items go singly, so that they come at once; later packs grow.
        const std::size_t most = std::clamp<std::size_t>(next / 8, 1, packSize);
        for (std::int64_t held = 0; next < items.size() && next - pack.first < most && held < packWeight; ++next)
            held += weight(items[next]);
        pack.last = next;
        return pack;
    };
    const auto make = [&](Pack pack) {
        for (std::size_t i = pack.first; i < pack.last && isWanted; ++i) pack.results.push_back(work(items[i]));
        return pack;
    };
    const auto end = [&](Pack pack) {
        for (Result& result : pack.results) isWanted = isWanted && take(std::move(result));
    };
    using oneapi::tbb::filter_mode;
    const auto threads = static_cast<std::size_t>(oneapi::tbb::this_task_arena::max_concurrency());
    oneapi::tbb::parallel_pipeline(threads + 1, oneapi::tbb::make_filter<void, Pack>(filter_mode::serial_in_order, begin) &
                                                    oneapi::tbb::make_filter<Pack, Pack>(filter_mode::parallel, make) &
                                                    oneapi::tbb::make_filter<Pack, void>(filter_mode::serial_in_order, end));
}

}  // namespace sealscope
