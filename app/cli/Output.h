// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/FileDescriptor.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

namespace sealscope::cli {

/// A descriptor that text is written to in large blocks. One thread at a time writes; `flushEvery` adds one of its own.
class Output {
public:
    /// To be made before the process confines itself.
    explicit Output(int descriptor);
    ~Output();

    /// Takes whole lines: a flush in between never parts what one call brought.
    void write(std::string_view text);
    void flush();

    /// Every `write` goes out at once: somebody is watching.
    void flushEachWrite() { flushesEachWrite_ = true; }
    /// What was written goes out after at most this long, also while the writer waits for input.
    void flushEvery(std::chrono::milliseconds interval);
    /// Called once, before the first byte goes out; the descriptor may become another one in it.
    void beforeFirstByte(std::function<void()> prepare) { prepare_ = std::move(prepare); }

    /// False when nobody reads any more, or nothing more can be written: the rest of the work is for nothing.
    bool isOpen() const { return isOpen_; }
    /// The `errno` of the write that failed; 0 when none did, or only because the reader went away.
    int error() const { return error_; }

    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

private:
    static constexpr std::size_t capacity = 64 * 1'024;

    void flushLocked();

    int descriptor_;
    FileDescriptor pipe_;  ///< the same, where it is a pipe
    std::string buffer_;
    bool flushesEachWrite_ = false;
    std::atomic<bool> isOpen_ = true;
    int error_ = 0;
    std::function<void()> prepare_;
    std::mutex mutex_;  ///< guards the buffer, once a second thread flushes it
    std::condition_variable_any wake_;
    std::jthread flusher_;
};

}  // namespace sealscope::cli
