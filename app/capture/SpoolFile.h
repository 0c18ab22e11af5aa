// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/FileDescriptor.h"

#include <atomic>
#include <expected>
#include <memory>
#include <span>
#include <string>
#include <utility>

namespace sealscope {

/// Bytes that grow at their end and never move: an unlinked temporary file, mapped. One thread writes; any thread reads what was
/// committed.
class SpoolFile {
public:
    /// Makes the file in a folder, or in $TMPDIR (or /tmp) when none is named. Fails with a reason that names the folder.
    static std::expected<std::unique_ptr<SpoolFile>, std::string> create(const std::string& folder = {});
    ~SpoolFile();

    /// At least `count` writable bytes behind the committed ones. Fails with a reason, such as a full disk.
    std::expected<std::span<std::uint8_t>, std::string> room(std::int64_t count);
    /// Adds bytes; gives their offset. Fails as `room` does.
    std::expected<std::int64_t, std::string> append(DataView bytes);
    /// Leaves out `count` bytes, which read as zeros and take no room. Fails as `room` does.
    std::expected<void, std::string> leaveOut(std::int64_t count);
    /// Counts the first `count` bytes of that room as written.
    void commit(std::int64_t count) { size_.fetch_add(count, std::memory_order_release); }

    DataView bytes() const { return {base_, size_.load(std::memory_order_acquire)}; }
    /// `count` committed bytes at an offset, cut to what is there. Now and then the whole file leaves this process's memory, so
    /// that who looks at all of it piece by piece needs little.
    DataView bytes(std::int64_t offset, std::int64_t count) const;
    /// Takes whole pages of the range out of this process; they stay in the file and come back when touched.
    void release(std::int64_t offset, std::int64_t count) const;

    SpoolFile(const SpoolFile&) = delete;
    SpoolFile& operator=(const SpoolFile&) = delete;

private:
    /// Maps up to `end`, with blocks of the file system's from `offset` on.
    std::expected<void, std::string> grow(std::int64_t offset, std::int64_t end);

    SpoolFile(FileDescriptor descriptor, std::string folder, bool isNamed, std::uint8_t* base, std::int64_t reserved)
        : descriptor_(std::move(descriptor)), folder_(std::move(folder)), isNamed_(isNamed), base_(base), reserved_(reserved)
    {}

    FileDescriptor descriptor_;
    std::string folder_;
    bool isNamed_;  ///< the folder; else the environment chooses it
    std::uint8_t* base_;
    std::int64_t reserved_;  ///< address space set aside, so that growing never moves a byte
    std::int64_t mapped_ = 0;
    std::atomic<std::int64_t> size_{0};
    mutable std::atomic<std::int64_t> handedOut_{0};  ///< bytes, since the file left memory
};

}  // namespace sealscope
