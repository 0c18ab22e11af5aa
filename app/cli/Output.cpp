// SPDX-License-Identifier: Apache-2.0
#include "app/cli/Output.h"

#include "app/cli/Interrupt.h"

#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace sealscope::cli {

namespace {

constexpr std::chrono::milliseconds betweenLooks{100};
constexpr int mostLooksAtTheEnd = 3;

/// The same pipe, but a write to it waits for nobody; nothing for what is none. Whoever else has the pipe goes on as before.
FileDescriptor withoutWaiting(int descriptor)
{
    struct stat status = {};
    if (fstat(descriptor, &status) != 0 || !S_ISFIFO(status.st_mode)) return {};
    return FileDescriptor(open(("/proc/self/fd/" + std::to_string(descriptor)).c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
}

}  // namespace

Output::Output(int descriptor) : descriptor_(descriptor), pipe_(withoutWaiting(descriptor)) { buffer_.reserve(capacity + capacity / 4); }

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
    if (prepare_) {
        std::exchange(prepare_, nullptr)();
        pipe_ = {};  // a pager's, perhaps, which ends when its user wants
    }
    std::string_view rest = buffer_;
    int looks = 0;
    while (!rest.empty()) {
        const ssize_t written = ::write(pipe_ ? pipe_.number() : descriptor_, rest.data(), rest.size());
        if (written < 0 && errno == EINTR) continue;
        if (written < 0 && errno == EAGAIN) {
            // A reader that has stopped reading keeps nobody who was asked to end.
            if (wasInterrupted() && ++looks > mostLooksAtTheEnd) {
                isOpen_ = false;
                break;
            }
            pollfd output{.fd = pipe_ ? pipe_.number() : descriptor_, .events = POLLOUT, .revents = 0};
            poll(&output, 1, static_cast<int>(betweenLooks.count()));
            continue;
        }
        if (written < 0) {
            isOpen_ = false;
            error_ = errno == EPIPE ? 0 : errno;
            break;
        }
        looks = 0;
        rest.remove_prefix(static_cast<std::size_t>(written));
    }
    buffer_.clear();
}

}  // namespace sealscope::cli
