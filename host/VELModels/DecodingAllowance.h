// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Export.h"

#include <algorithm>
#include <atomic>
#include <cstdint>

namespace sealscope SEALSCOPE_API {

/// How many bytes the compressed bodies of a capture may decode to, all together: a few bytes decode to as many as who sent them likes.
/// Any thread may take of it.
class DecodingAllowance {
public:
    explicit DecodingAllowance(std::int64_t bytes) : left_(bytes) {}

    void add(std::int64_t bytes) { left_ += bytes; }
    /// Takes so many bytes, or what is left where that is less.
    std::int64_t take(std::int64_t wanted)
    {
        std::int64_t left = left_, taken = 0;
        do taken = std::min(left, wanted);
        while (!left_.compare_exchange_weak(left, left - taken));
        return taken;
    }

private:
    std::atomic<std::int64_t> left_;
};

/// What one body has taken of it. It is decoded as often as somebody looks at it, and ends at the same place each time. Used by one thread
/// at a time.
class DecodingShare {
public:
    /// How many of the `count` bytes that decoding makes behind the first `made` are allowed; all of them where there is no allowance.
    std::int64_t allow(DecodingAllowance* allowance, std::int64_t made, std::int64_t count)
    {
        if (!allowance) return count;
        if (const std::int64_t more = made + count - taken_; more > 0 && !isUsedUp_) {
            const std::int64_t taken = allowance->take(more);
            taken_ += taken;
            isUsedUp_ = taken < more;
        }
        return std::clamp<std::int64_t>(taken_ - made, 0, count);
    }

private:
    std::int64_t taken_ = 0;
    bool isUsedUp_ = false;
};

}  // namespace sealscope SEALSCOPE_API
