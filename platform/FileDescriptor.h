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

/// Why a file or a folder could not be made, opened or written.
struct FileError {
    enum class Problem : std::uint8_t {
        system,  ///< what the system says: `code`
        isDirectory,
        isNoDirectory,
        isNoRegularFile,
        isDanglingLink,
        existsAlready,
    };
    Problem problem = Problem::system;
    int code = 0;        ///< `errno`
    std::string folder;  ///< that is at fault, where it is one above what was asked for
    bool operator==(const FileError&) const = default;

    static FileError ofSystem(int code) { return {.problem = Problem::system, .code = code, .folder = {}}; }
    /// The end of a sentence that begins with the path that was asked for.
    std::string text() const;
};

/// The same, and the file that it is about.
struct FileProblem {
    std::string path;
    FileError error;
    /// "plain.pcap: No space left on device"
    std::string text() const { return path + ": " + error.text(); }
};

/// Makes a file that only its owner may read, and opens it for writing. It never opens one that is there: that is an error, or
/// it is removed before. Links are not followed.
std::expected<FileDescriptor, FileError> createFile(const std::string& path, ExistingFile existing);
/// A file without a name, for reading and writing, that is gone with its descriptor.
std::expected<FileDescriptor, FileError> createUnnamedFile(const std::string& folder);
/// Makes a folder for its owner alone, with those above it, where they are not there.
std::expected<void, FileError> createFolders(const std::string& path);

}  // namespace sealscope SEALSCOPE_API
