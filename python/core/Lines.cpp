// SPDX-License-Identifier: Apache-2.0
#include "python/core/Lines.h"

#include <utility>

namespace sealscope::python {

Lines::Lines(Make make)
    : maker_([this, make = std::move(make)](const std::stop_token& stop) {
          std::exception_ptr problem;
          try {
              make([this](std::string lines) { return take(std::move(lines)); }, stop);
          } catch (...) {
              problem = std::current_exception();
          }
          const std::lock_guard lock(mutex_);
          problem_ = std::move(problem);
          hasEnded_ = true;
          hasLines_.notify_all();
      })
{}

bool Lines::take(std::string lines)
{
    const std::stop_token stop = maker_.get_stop_token();
    std::unique_lock lock(mutex_);
    if (!hasRoom_.wait(lock, stop, [&] { return held_ < mostHeld; })) return false;
    held_ += lines.size();
    if (!batches_.empty() && batches_.back().size() + lines.size() <= batch)
        batches_.back() += lines;
    else
        batches_.push_back(std::move(lines));
    hasLines_.notify_one();
    return !stop.stop_requested();
}

Lines::Next Lines::next(std::string& lines, std::chrono::milliseconds patience)
{
    std::unique_lock lock(mutex_);
    hasLines_.wait_for(lock, patience, [&] { return !batches_.empty() || hasEnded_; });
    if (batches_.empty()) {
        if (!hasEnded_) return Next::none;
        if (problem_) std::rethrow_exception(std::exchange(problem_, nullptr));
        return Next::end;
    }
    lines = std::move(batches_.front());
    batches_.pop_front();
    held_ -= lines.size();
    hasRoom_.notify_one();
    return Next::lines;
}

void Lines::close()
{
    maker_.request_stop();
    if (maker_.joinable()) maker_.join();
    const std::lock_guard lock(mutex_);
    batches_.clear();
    held_ = 0;
    hasEnded_ = true;
}

}  // namespace sealscope::python
