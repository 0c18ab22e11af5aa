// SPDX-License-Identifier: Apache-2.0
#include "app/export/OutputFile.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>
#include <utility>

namespace sealscope {

namespace {

namespace fs = std::filesystem;

// A record at a time costs the file system a third more, and so do pieces that begin and end within its pages.
constexpr std::int64_t alignment = 16 * 1'024;
constexpr std::int64_t largePiece = 16 * alignment;

std::string errorText(int error) { return std::strerror(error); }

}  // namespace

std::expected<OutputFile, std::string> OutputFile::create(const std::string& path, bool replace)
{
    OutputFile file;
    file.path_ = path;
    if (path == "-") {
        file.descriptor_ = dup(STDOUT_FILENO);
        if (file.descriptor_ < 0) return std::unexpected(errorText(errno));
        return file;
    }
    struct stat status = {};
    const bool exists = lstat(path.c_str(), &status) == 0;
    if (exists && S_ISLNK(status.st_mode) && stat(path.c_str(), &status) != 0) return std::unexpected("is a link to nothing");
    if (exists && S_ISDIR(status.st_mode)) return std::unexpected("is a directory");
    if (exists && !S_ISREG(status.st_mode)) {
        file.descriptor_ = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    } else if (exists) {
        if (!replace) return std::unexpected("exists already; --force replaces it");
        file.unfinishedPath_ = (fs::path(path).parent_path() / ".sealscope.XXXXXX").string();
        file.descriptor_ = mkostemp(file.unfinishedPath_.data(), O_CLOEXEC);  // mode 0600
    } else {
        file.unfinishedPath_ = path;
        file.descriptor_ = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    }
    if (file.descriptor_ >= 0) return file;
    file.unfinishedPath_.clear();
    return std::unexpected(errorText(errno));
}

OutputFile::OutputFile(OutputFile&& other) noexcept
    : path_(std::move(other.path_)), unfinishedPath_(std::exchange(other.unfinishedPath_, {})),
      descriptor_(std::exchange(other.descriptor_, -1)), error_(other.error_), written_(other.written_), reserved_(other.reserved_),
      held_(std::move(other.held_))
{}

OutputFile::~OutputFile()
{
    if (descriptor_ >= 0) close(descriptor_);
    if (!unfinishedPath_.empty()) unlink(unfinishedPath_.c_str());
}

void OutputFile::reserve(std::int64_t bytes)
{
    if (unfinishedPath_.empty() || bytes < largePiece) return;
    if (fallocate(descriptor_, FALLOC_FL_KEEP_SIZE, 0, bytes) == 0)
        reserved_ = bytes;
    else
        // Where there is too little room, all of it may have been taken; others want some too.
        (void)!ftruncate(descriptor_, written_);
}

void OutputFile::write(DataView bytes)
{
    written_ += bytes.size();
    if (const std::int64_t all = std::ssize(held_) + bytes.size(); all >= largePiece) {
        const std::int64_t now = all / alignment * alignment - std::ssize(held_);
        writeOut(held_, bytes.sub(0, now));
        held_.clear();
        bytes = bytes.from(now);
    }
    held_.insert(held_.end(), bytes.begin(), bytes.end());
}

void OutputFile::writeOut(DataView first, DataView second)
{
    while (error_ == 0 && !(first.isEmpty() && second.isEmpty())) {
        const auto part = [](DataView bytes) {
            return iovec{.iov_base = const_cast<std::uint8_t*>(bytes.data()), .iov_len = static_cast<std::size_t>(bytes.size())};
        };
        const iovec parts[] = {part(first), part(second)};
        const ssize_t count = writev(descriptor_, parts, 2);
        if (count >= 0) {
            const std::int64_t ofFirst = std::min(std::int64_t{count}, first.size());
            first = first.from(ofFirst);
            second = second.from(count - ofFirst);
        } else if (errno != EINTR) {
            error_ = errno;
        }
    }
}

std::string OutputFile::finish()
{
    writeOut(held_, {});
    held_.clear();
    // What was set aside and not needed is given back.
    if (reserved_ > written_ && ftruncate(descriptor_, written_) != 0 && error_ == 0) error_ = errno;
    // Some file systems only say here that there was no room.
    if (close(std::exchange(descriptor_, -1)) != 0 && error_ == 0) error_ = errno;
    if (error_ != 0) return errorText(error_);
    if (!unfinishedPath_.empty() && unfinishedPath_ != path_ && std::rename(unfinishedPath_.c_str(), path_.c_str()) != 0)
        return errorText(errno);
    unfinishedPath_.clear();
    return {};
}

}  // namespace sealscope
