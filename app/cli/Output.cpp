// SPDX-License-Identifier: Apache-2.0
#include "app/cli/Output.h"

#include "app/cli/Interrupt.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <poll.h>
#include <unistd.h>
#include <utility>

namespace sealscope::cli {

namespace {

constexpr std::chrono::milliseconds longestWait{300};

/// Whether so much as PIPE_BUF can be written without waiting for longer.
bool isReadyWithin(int descriptor, std::chrono::milliseconds wait)
{
    pollfd output{.fd = descriptor, .events = POLLOUT, .revents = 0};
    return poll(&output, 1, static_cast<int>(wait.count())) != 0;
}

}  // namespace

Output::~Output()
{
    if (flusher_.joinable()) {
        flusher_.request_stop();
        flusher_.join();
    }
    flush();
}

void Output::write(std::string_view text)
{
    std::unique_lock lock(mutex_, std::defer_lock);
    if (flusher_.joinable()) lock.lock();
    if (!isOpen_) return;
    buffer_ += text;
    if (flushesEachWrite_ || buffer_.size() >= capacity) flushLocked();
}

void Output::flush()
{
    const std::lock_guard lock(mutex_);
    flushLocked();
}

void Output::flushEvery(std::chrono::milliseconds interval)
{
    flusher_ = std::jthread([this, interval](std::stop_token stop) {
        std::unique_lock lock(mutex_);
        while (!wake_.wait_for(lock, stop, interval, [] { return false; }) && !stop.stop_requested()) flushLocked();
    });
}

void Output::flushLocked()
{
    if (buffer_.empty() || !isOpen_) return;
    if (prepare_) std::exchange(prepare_, nullptr)();
    std::string_view rest = buffer_;
    while (!rest.empty()) {
        if (isInterrupted() && !isReadyWithin(descriptor_, longestWait)) {
            // A reader that has stopped reading keeps nobody who was asked to end.
            isOpen_ = false;
            break;
        }
        const ssize_t written = ::write(descriptor_, rest.data(), isInterrupted() ? std::min<std::size_t>(rest.size(), PIPE_BUF) : rest.size());
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) {
            isOpen_ = false;
            error_ = errno == EPIPE ? 0 : errno;
            break;
        }
        rest.remove_prefix(static_cast<std::size_t>(written));
    }
    buffer_.clear();
}

}  // namespace sealscope::cli
