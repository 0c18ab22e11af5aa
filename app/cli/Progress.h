// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <string_view>

namespace sealscope::cli {

/// How far a long piece of work has come, as one line on standard error when that is a terminal: it appears after half a
/// second and is gone when the work is. One at a time, used by one thread.
class Progress {
public:
    enum class Showing : std::uint8_t { never, onTerminal };
    /// `activity` as in "reading".
    Progress(std::string_view activity, Showing showing);
    ~Progress() { eraseLine(); }

    /// Cheap enough for every packet. A negative total is an unknown one.
    void update(std::int64_t done, std::int64_t total)
    {
        if (isShown_ && ++calls_ % 256 == 0) show(done, total);
    }
    /// The same for rare calls.
    void show(std::int64_t done, std::int64_t total);

    /// Takes the line away, before something else is written to the terminal.
    static void eraseLine();

    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

private:
    std::string_view activity_;
    bool isShown_;
    std::uint32_t calls_ = 0;
    std::chrono::steady_clock::time_point next_;
};

}  // namespace sealscope::cli
