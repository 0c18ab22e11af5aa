// SPDX-License-Identifier: Apache-2.0
#include "platform/FileDescriptor.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <sys/uio.h>
#include <system_error>
#include <unistd.h>

namespace sealscope {

FileDescriptor FileDescriptor::lent(int number)
{
    FileDescriptor descriptor(number);
    descriptor.isOwned_ = false;
    return descriptor;
}

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept
{
    std::swap(number_, other.number_);
    std::swap(isOwned_, other.isOwned_);
    return *this;
}

int FileDescriptor::close()
{
    const int number = std::exchange(number_, -1);
    return number >= 0 && isOwned_ && ::close(number) != 0 ? errno : 0;
}

std::int64_t FileDescriptor::read(std::span<std::uint8_t> target) const
{
    for (;;) {
        const ssize_t count = ::read(number_, target.data(), target.size());
        if (count >= 0 || errno != EINTR) return count;
    }
}

int FileDescriptor::write(DataView first, DataView second) const
{
    while (!(first.isEmpty() && second.isEmpty())) {
        const auto part = [](DataView bytes) {
            return iovec{.iov_base = const_cast<std::uint8_t*>(bytes.data()), .iov_len = static_cast<std::size_t>(bytes.size())};
        };
        const std::array parts{part(first), part(second)};
        const ssize_t count = writev(number_, parts.data(), static_cast<int>(parts.size()));
        if (count >= 0) {
            const std::int64_t ofFirst = std::min(std::int64_t{count}, first.size());
            first = first.from(ofFirst);
            second = second.from(count - ofFirst);
        } else if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

std::string errorText(int error) { return std::generic_category().message(error); }

std::string FileError::text() const
{
    switch (problem) {
    case Problem::system: return folder.empty() ? errorText(code) : folder + ": " + errorText(code);
    case Problem::isDirectory: return "is a directory";
    case Problem::isNoDirectory: return "is not a directory";
    case Problem::isNoRegularFile: return "is no regular file";
    case Problem::isDanglingLink: return "is a link to nothing";
    case Problem::existsAlready: return "exists already";
    }
    std::unreachable();
}

std::expected<FileDescriptor, FileError> createFile(const std::string& path, ExistingFile existing)
{
    for (;;) {
        if (FileDescriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600)); file) return file;
        if (errno != EEXIST) return std::unexpected(FileError::ofSystem(errno));
        struct stat status{};
        if (lstat(path.c_str(), &status) != 0) {
            if (errno == ENOENT) continue;
            return std::unexpected(FileError::ofSystem(errno));
        }
        if (S_ISDIR(status.st_mode)) return std::unexpected(FileError{FileError::Problem::isDirectory});
        if (!S_ISREG(status.st_mode) && !S_ISLNK(status.st_mode)) return std::unexpected(FileError{FileError::Problem::isNoRegularFile});
        if (existing == ExistingFile::stays) return std::unexpected(FileError{FileError::Problem::existsAlready});
        if (unlink(path.c_str()) != 0 && errno != ENOENT) return std::unexpected(FileError::ofSystem(errno));
    }
}

std::expected<FileDescriptor, FileError> createUnnamedFile(const std::string& folder)
{
    FileDescriptor file(::open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
    if (!file) {
        // Not every file system makes files without a name.
        std::string name = folder + "/.sealscope-XXXXXX";
        file = FileDescriptor(mkostemp(name.data(), O_CLOEXEC));
        if (!file) return std::unexpected(FileError::ofSystem(errno));
        unlink(name.c_str());
    }
    return file;
}

std::expected<void, FileError> createFolders(const std::string& path)
{
    if (path.empty() || mkdir(path.c_str(), 0700) == 0 || errno == EEXIST) return {};
    const auto failed = [&](int error) { return std::unexpected(FileError{.code = error, .folder = path}); };
    const std::filesystem::path folder = path;
    if (errno != ENOENT || !folder.has_relative_path()) return failed(errno);
    if (auto above = createFolders(folder.parent_path().string()); !above) return above;
    if (mkdir(path.c_str(), 0700) == 0 || errno == EEXIST) return {};
    return failed(errno);
}

}  // namespace sealscope
