// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/FileDescriptor.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <expected>
#include <memory>
#include <span>
#include <string>
#include <utility>

namespace sealscope {

/// Who chose the folder of a temporary file.
enum class FolderChoice : std::uint8_t { caller, environment };

/// Why a temporary file cannot be made, or takes no more bytes.
struct SpoolError {
    enum class Problem : std::uint8_t {
        cannotMake,  ///< for what `fileError` says, as of the next three
        cannotWrite,
        cannotMap,
        noAddressSpace,
        tooLittleLeft,  ///< on the disk: `bytes` stay free for others
        tooLong,        ///< `bytes` are the most
    };
    Problem problem = Problem::cannotMake;
    FileError fileError = {};
    std::int64_t bytes = 0;
    std::string folder = {};
    FolderChoice choice = FolderChoice::caller;
    bool operator==(const SpoolError&) const = default;

    /// "cannot write to a temporary file in /tmp (No space left on device); TMPDIR chooses another place"
    std::string text() const;
};

/// Bytes that grow at their end and never move: an unlinked temporary file, mapped. One thread writes; any thread reads what was
/// committed.
class SpoolFile {
public:
    /// Makes the file in a folder, or in $TMPDIR (or /tmp) when none is named.
    static std::expected<std::unique_ptr<SpoolFile>, SpoolError> create(const std::string& folder = {});
    ~SpoolFile();

    /// At least `count` writable bytes behind the committed ones. Fails where the disk is full, for one.
    std::expected<std::span<std::uint8_t>, SpoolError> room(std::int64_t count);
    /// Adds bytes; gives their offset. Fails as `room` does.
    std::expected<std::int64_t, SpoolError> append(DataView bytes);
    /// Leaves out `count` bytes, which read as zeros and take no room. Fails as `room` does.
    std::expected<void, SpoolError> leaveOut(std::int64_t count);
    /// Counts the first `count` bytes of that room as written.
    void commit(std::int64_t count) { size_.fetch_add(count, std::memory_order_release); }

    DataView bytes() const { return {base_, size_.load(std::memory_order_acquire)}; }
    /// `count` committed bytes at an offset, cut to what is there. Now and then the whole file leaves this process's memory, so
    /// that who looks at all of it piece by piece needs little.
    DataView bytes(std::int64_t offset, std::int64_t count) const;
    /// Copies committed bytes from an offset on, without a page of the file in this process. False where they cannot be read.
    bool read(std::int64_t offset, std::span<std::uint8_t> bytes) const;
    /// Takes whole pages of the range out of this process; they stay in the file and come back when touched.
    void release(std::int64_t offset, std::int64_t count) const;

    SpoolFile(const SpoolFile&) = delete;
    SpoolFile& operator=(const SpoolFile&) = delete;

private:
    SpoolError failure(SpoolError::Problem problem, FileError error) const;
    /// Maps up to `end`, with blocks of the file system's from `offset` on.
    std::expected<void, SpoolError> grow(std::int64_t offset, std::int64_t end);

    SpoolFile(FileDescriptor descriptor, std::string folder, FolderChoice choice, std::uint8_t* base, std::int64_t reserved)
        : descriptor_(std::move(descriptor)), folder_(std::move(folder)), choice_(choice), base_(base), reserved_(reserved)
    {}

    FileDescriptor descriptor_;
    std::string folder_;
    FolderChoice choice_;
    std::uint8_t* base_;
    std::int64_t reserved_;  ///< address space set aside, so that growing never moves a byte
    std::int64_t mapped_ = 0;
    std::atomic<std::int64_t> size_{0};

    // What was handed out since the file left memory. A fault brings a neighbourhood of pages back, and who looks at a packet again
    // and again brings none.
    static constexpr std::int64_t neighbourhood = 1 << 16;
    mutable std::atomic<std::int64_t> handedOut_{0};                       ///< bytes
    mutable std::atomic<std::uint64_t> turn_{1};                           ///< how often it left
    mutable std::array<std::atomic<std::uint64_t>, 1'024> handedOutOf_{};  ///< by their last digits: the turn, and which one
};

}  // namespace sealscope
