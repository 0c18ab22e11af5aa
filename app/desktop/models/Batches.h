// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/desktop/Job.h"

#include <chrono>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

namespace sealscope::desktop {

/// Hands results of a job to the main thread some at a time: the first at once, later ones a few times a second, the rest at its end.
/// Used by one thread at a time.
template <class Item> class Batches {
public:
    Batches(const Job::Context& context, std::function<void(std::vector<Item>)> take) : context_(context), take_(std::move(take)) {}
    ~Batches() { flush(); }

    void add(Item item)
    {
        items_.push_back(std::move(item));
        const auto now = std::chrono::steady_clock::now();
        if (now < next_) return;
        next_ = now + std::chrono::milliseconds(100);
        flush();
    }
    void flush()
    {
        if (items_.empty() || context_.isCancelled()) return;
        context_.deliver([take = take_, items = std::make_shared<std::vector<Item>>(std::exchange(items_, {}))] { take(std::move(*items)); });
    }

    Batches(const Batches&) = delete;
    Batches& operator=(const Batches&) = delete;

private:
    const Job::Context& context_;
    std::function<void(std::vector<Item>)> take_;
    std::vector<Item> items_;
    std::chrono::steady_clock::time_point next_;
};

}  // namespace sealscope::desktop
