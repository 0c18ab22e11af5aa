// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Data.h"

#include <cstdint>
#include <expected>
#include <span>
#include <string>
#include <utility>

namespace sealscope SEALSCOPE_API {

/// A file descriptor that is closed with its owner.
class FileDescriptor {
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int number) : number_(number) {}
    /// One that belongs to somebody else and is not closed, as that of standard input.
    static FileDescriptor lent(int number);
    FileDescriptor(FileDescriptor&& other) noexcept
        : number_(std::exchange(other.number_, -1)), isOwned_(std::exchange(other.isOwned_, true))
    {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept;
    ~FileDescriptor() { close(); }

    int number() const { return number_; }
    explicit operator bool() const { return number_ >= 0; }
    /// Gives it to somebody else, who closes it.
    int release() { return std::exchange(number_, -1); }
    /// `errno`, or 0: some file systems only say here that there was no room.
    int close();

    /// Bytes read, at most as many as `target` has: 0 at the end, negative with `errno` on failure.
    std::int64_t read(std::span<std::uint8_t> target) const;
    /// Writes all bytes of both views, one after the other. `errno`, or 0.
    int write(DataView first, DataView second = {}) const;

private:
    int number_ = -1;
    bool isOwned_ = true;
};

/// What is to become of a file that is there already.
enum class ExistingFile : std::uint8_t { stays, isReplaced };

/// The system's sentence for an `errno`.
std::string errorText(int error);

/// Makes a file that only its owner may read, and opens it for writing. It never opens one that is there: that is an error, or
/// it is removed before. Links are not followed. Fails with the end of a sentence that begins with the path.
std::expected<FileDescriptor, std::string> createFile(const std::string& path, ExistingFile existing);
/// A file without a name, for reading and writing, that is gone with its descriptor. Fails with the reason.
std::expected<FileDescriptor, std::string> createUnnamedFile(const std::string& folder);
/// Makes a folder for its owner alone, with those above it, where they are not there. Fails with a reason that names the folder.
std::expected<void, std::string> createFolders(const std::string& path);

}  // namespace sealscope SEALSCOPE_API
