// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <mutex>
#include <stop_token>
#include <string>
#include <thread>

namespace sealscope::python {

/// Lines of NDJSON that a thread makes while somebody takes them; it waits where it is too far ahead. One thread at a time takes.
class Lines {
public:
    /// Takes whole lines; false when no more are wanted.
    using Take = std::function<bool(std::string)>;
    using Make = std::function<void(const Take&, std::stop_token)>;

    explicit Lines(Make make);
    ~Lines() { close(); }

    enum class Next : std::uint8_t { lines, none, end };
    /// What is there by now; waits a while for it, and says none when nothing came. Throws what the maker threw, at the end.
    Next next(std::string& lines, std::chrono::milliseconds patience);
    /// Ends the making; what was made and not taken is gone.
    void close();

    Lines(const Lines&) = delete;
    Lines& operator=(const Lines&) = delete;

private:
    // Enough to take in one go, and to be ahead by.
    static constexpr std::size_t batch = 128 * 1'024, mostHeld = 4 * 1'024 * 1'024;

    bool take(std::string lines);

    std::mutex mutex_;
    std::condition_variable_any hasLines_;
    std::condition_variable_any hasRoom_;
    std::deque<std::string> batches_;
    std::size_t held_ = 0;
    bool hasEnded_ = false;
    std::exception_ptr problem_;
    std::jthread maker_;
};

}  // namespace sealscope::python
