// SPDX-License-Identifier: Apache-2.0
#include "platform/OutputFile.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace sealscope {

namespace {

namespace fs = std::filesystem;

// A record at a time costs the file system a third more, and so do pieces that begin and end within its pages.
constexpr std::int64_t alignment = 16 * 1'024;
constexpr std::int64_t largePiece = 16 * alignment;

}  // namespace

std::expected<OutputFile, FileError> OutputFile::create(const std::string& path, ExistingFile existing, Kind kind)
{
    OutputFile file;
    file.path_ = path;
    if (path == "-" && kind == Kind::anything) {
        file.descriptor_ = FileDescriptor(dup(STDOUT_FILENO));
        if (!file.descriptor_) return std::unexpected(FileError::ofSystem(errno));
        return file;
    }
    struct stat status = {};
    const bool exists = lstat(path.c_str(), &status) == 0;
    if (exists && S_ISLNK(status.st_mode) && stat(path.c_str(), &status) != 0)
        return std::unexpected(FileError{FileError::Problem::isDanglingLink});
    if (exists && S_ISDIR(status.st_mode)) return std::unexpected(FileError{FileError::Problem::isDirectory});
    if (exists && !S_ISREG(status.st_mode) && kind == Kind::anything) {
        file.descriptor_ = FileDescriptor(open(path.c_str(), O_WRONLY | O_CLOEXEC));
    } else if (exists && S_ISREG(status.st_mode) && existing == ExistingFile::isReplaced) {
        file.unfinishedPath_ = (fs::path(path).parent_path() / ".sealscope.XXXXXX").string();
        file.descriptor_ = FileDescriptor(mkostemp(file.unfinishedPath_.data(), O_CLOEXEC));  // mode 0600
    } else {
        auto created = createFile(path, ExistingFile::stays);
        if (!created) return std::unexpected(std::move(created.error()));
        file.unfinishedPath_ = path;
        file.descriptor_ = std::move(*created);
    }
    if (file.descriptor_) return file;
    file.unfinishedPath_.clear();
    return std::unexpected(FileError::ofSystem(errno));
}

OutputFile::OutputFile(OutputFile&& other) noexcept
    : path_(std::move(other.path_)), unfinishedPath_(std::exchange(other.unfinishedPath_, {})), descriptor_(std::move(other.descriptor_)),
      error_(other.error_), written_(other.written_), reserved_(other.reserved_), held_(std::move(other.held_)),
      heldBytes_(std::exchange(other.heldBytes_, 0))
{}

OutputFile::~OutputFile()
{
    if (!unfinishedPath_.empty()) unlink(unfinishedPath_.c_str());
}

void OutputFile::reserve(std::int64_t bytes)
{
    if (unfinishedPath_.empty() || bytes < largePiece) return;
    if (fallocate(descriptor_.number(), FALLOC_FL_KEEP_SIZE, 0, bytes) == 0)
        reserved_ = bytes;
    else
        // Where there is too little room, all of it may have been taken; others want some too.
        (void)!ftruncate(descriptor_.number(), written_);
}

void OutputFile::write(DataView bytes)
{
    written_ += bytes.size();
    if (const std::int64_t all = heldBytes_ + bytes.size(); all >= largePiece) {
        const std::int64_t now = all / alignment * alignment - heldBytes_;
        if (error_ == 0) error_ = descriptor_.write(viewOf(held_).sub(0, heldBytes_), bytes.sub(0, now));
        heldBytes_ = 0;
        bytes = bytes.from(now);
    }
    if (bytes.isEmpty()) return;
    // A vector with an allocator of its own inserts and copies byte by byte, and fills what it grows by.
    const std::int64_t needed = heldBytes_ + bytes.size();
    if (std::ssize(held_) < needed) held_.resize(static_cast<std::size_t>(std::clamp(2 * std::ssize(held_), needed, largePiece)));
    std::memcpy(held_.data() + heldBytes_, bytes.data(), static_cast<std::size_t>(bytes.size()));
    heldBytes_ = needed;
}

std::expected<void, FileError> OutputFile::finish()
{
    if (error_ == 0) error_ = descriptor_.write(viewOf(held_).sub(0, heldBytes_));
    heldBytes_ = 0;
    // What was set aside and not needed is given back.
    if (reserved_ > written_ && ftruncate(descriptor_.number(), written_) != 0 && error_ == 0) error_ = errno;
    // Some file systems only say here that there was no room.
    if (const int error = descriptor_.close(); error_ == 0) error_ = error;
    if (error_ != 0) return std::unexpected(FileError::ofSystem(error_));
    if (!unfinishedPath_.empty() && unfinishedPath_ != path_ && std::rename(unfinishedPath_.c_str(), path_.c_str()) != 0)
        return std::unexpected(FileError::ofSystem(errno));
    unfinishedPath_.clear();
    return {};
}

}  // namespace sealscope
