// SPDX-License-Identifier: Apache-2.0
#include "app/cli/Progress.h"

#include <fmt/format.h>
#include <string>
#include <unistd.h>

namespace sealscope::cli {

namespace {

bool isOnScreen = false;

void writeToTerminal(std::string_view text) { [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, text.data(), text.size()); }

}  // namespace

Progress::Progress(std::string_view activity, Showing showing)
    : activity_(activity), isShown_(showing == Showing::onTerminal && isatty(STDERR_FILENO) == 1),
      next_(std::chrono::steady_clock::now() + std::chrono::milliseconds(500))
{}

void Progress::show(std::int64_t done, std::int64_t total)
{
    if (!isShown_) return;
    const auto now = std::chrono::steady_clock::now();
    if (now < next_) return;
    next_ = now + std::chrono::milliseconds(100);
    isOnScreen = true;
    // Written over the line before it and cleared behind it, never cleared first: that would flicker.
    if (total > 0)
        writeToTerminal(fmt::format("\r{} … {} %\x1B[K", activity_, done * 100 / total));
    else
        writeToTerminal(fmt::format("\r{} … {} MB\x1B[K", activity_, done / 1'000'000));
}

void Progress::eraseLine()
{
    if (!isOnScreen) return;
    isOnScreen = false;
    writeToTerminal("\r\x1B[K");
}

}  // namespace sealscope::cli
