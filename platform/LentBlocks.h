// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

namespace sealscope {

/// Blocks of bytes that are made when a thread looks at them, and live until it has been lent some others. Any thread may ask.
/// `State`: what a thread keeps from one making to the next.
template <class State> class LentBlocks {
public:
    using Bytes = std::shared_ptr<std::uint8_t[]>;

    /// The bytes of a block as this thread has them, made by `make` where it has none.
    template <std::invocable<State&> Make> const std::uint8_t* lend(std::uint32_t number, const Make& make)
    {
        const std::scoped_lock lock(mutex_);
        auto& [blocks, state] = threads_[std::this_thread::get_id()];
        const auto found = std::ranges::find(blocks, number, &std::pair<std::uint32_t, Bytes>::first);
        if (found != blocks.end()) {
            // What was looked at last goes last.
            auto again = std::move(*found);
            blocks.erase(found);
            blocks.push_back(std::move(again));
        } else {
            blocks.emplace_back(number, make(state));
            if (blocks.size() > mostBlocks) blocks.pop_front();
        }
        return blocks.back().second.get();
    }

private:
    static constexpr std::size_t mostBlocks = 16;  ///< to a thread at the same time

    struct Thread {
        std::deque<std::pair<std::uint32_t, Bytes>> blocks;
        State state;
    };
    std::mutex mutex_;
    std::map<std::thread::id, Thread> threads_;
};

}  // namespace sealscope
