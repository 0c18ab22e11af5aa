// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>

namespace sealscope {

/// What all connections of a session together may spend, beside what their own bytes pay for. Any thread may use it.
class SharedAllowance {
public:
    explicit SharedAllowance(std::int64_t most) : most_(most), left_(most) {}

    /// False, and nothing taken, where there is not so much left.
    bool take(std::int64_t cost)
    {
        std::int64_t left = left_.load(std::memory_order_relaxed);
        while (left >= cost)
            if (left_.compare_exchange_weak(left, left - cost, std::memory_order_relaxed)) return true;
        return false;
    }
    /// Takes what was spent already.
    void charge(std::int64_t cost) { left_.fetch_sub(cost, std::memory_order_relaxed); }
    bool isSpent() const { return left_.load(std::memory_order_relaxed) <= 0; }
    /// Bytes that were walked through win some of it back, so that a live capture does not run out for good.
    void giveBack(std::int64_t bytes)
    {
        std::int64_t left = left_.load(std::memory_order_relaxed);
        while (!left_.compare_exchange_weak(left, std::min(left + bytes, most_), std::memory_order_relaxed)) {}
    }

private:
    const std::int64_t most_;
    std::atomic<std::int64_t> left_;
};

}  // namespace sealscope
