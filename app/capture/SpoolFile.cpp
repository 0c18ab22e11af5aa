// SPDX-License-Identifier: Apache-2.0
#include "app/capture/SpoolFile.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/statvfs.h>
#include <system_error>
#include <unistd.h>

namespace sealscope {
namespace {

constexpr std::int64_t smallestStep = 256 << 10, largestStep = 64 << 20;
// What a full disk would keep from others stays free: a twentieth of it, or so much.
constexpr std::int64_t mostLeftFree = 1 << 30, shareLeftFree = 20;
constexpr std::int64_t largestReservation = std::int64_t{1} << 42, smallestReservation = std::int64_t{1} << 26;

std::int64_t wholeSteps(std::int64_t bytes) { return (bytes + smallestStep - 1) / smallestStep * smallestStep; }

std::string systemReason(int error) { return std::generic_category().message(error); }

int openUnlinked(const std::string& directory)
{
    if (const int descriptor = ::open(directory.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600); descriptor >= 0) return descriptor;
    // Not every file system makes files without a name.
    std::string name = directory + "/sealscope-XXXXXX";
    const int descriptor = mkostemp(name.data(), O_CLOEXEC);
    if (descriptor >= 0) unlink(name.c_str());
    return descriptor;
}

}  // namespace

std::expected<std::unique_ptr<SpoolFile>, std::string> SpoolFile::create()
{
    const char* const chosen = std::getenv("TMPDIR");
    const std::string directory = chosen && *chosen ? chosen : "/tmp";
    const int descriptor = openUnlinked(directory);
    if (descriptor < 0)
        return std::unexpected(
            fmt::format("cannot make a temporary file in {} ({}); TMPDIR chooses another place", directory, systemReason(errno)));
    // Address space costs nothing until it is used, but a process may be allowed little of it.
    for (std::int64_t reserved = largestReservation; reserved >= smallestReservation; reserved /= 4) {
        void* const base = mmap(nullptr, static_cast<std::size_t>(reserved), PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (base != MAP_FAILED)
            return std::unique_ptr<SpoolFile>(new SpoolFile(descriptor, directory, static_cast<std::uint8_t*>(base), reserved));
    }
    const int error = errno;
    close(descriptor);
    return std::unexpected(fmt::format("cannot set address space aside for a temporary file ({})", systemReason(error)));
}

SpoolFile::~SpoolFile()
{
    munmap(base_, static_cast<std::size_t>(reserved_));
    close(descriptor_);
}

std::expected<std::span<std::uint8_t>, std::string> SpoolFile::room(std::int64_t count)
{
    const std::int64_t size = size_.load(std::memory_order_relaxed);
    if (mapped_ - size < count) {
        const std::int64_t step = std::clamp(mapped_, smallestStep, largestStep);
        const std::int64_t before = mapped_, wanted = wholeSteps(size + std::max(count, step));
        if (auto grown = grow(before, wanted); !grown) return std::unexpected(std::move(grown.error()));
    }
    return std::span(base_ + size, static_cast<std::size_t>(mapped_ - size));
}

std::expected<void, std::string> SpoolFile::leaveOut(std::int64_t count)
{
    const std::int64_t size = size_.load(std::memory_order_relaxed) + count;
    if (const std::int64_t wanted = wholeSteps(size); wanted > mapped_) {
        // The step in which the hole ends is written to next.
        if (ftruncate(descriptor_, wanted) != 0) return std::unexpected(systemReason(errno));
        if (auto grown = grow(wanted - smallestStep, wanted); !grown) return grown;
    }
    commit(count);
    return {};
}

std::expected<void, std::string> SpoolFile::grow(std::int64_t offset, std::int64_t end)
{
    const std::int64_t count = end - offset;
    const auto failed = [&](const std::string& reason) {
        return std::unexpected(
            fmt::format("cannot write to a temporary file in {} ({}); TMPDIR chooses another place", directory_, reason));
    };
    if (end > reserved_) return std::unexpected(fmt::format("more than {} bytes do not fit into a temporary file", reserved_));
    if (struct statvfs disk{}; fstatvfs(descriptor_, &disk) == 0) {
        const auto bytes = [&](fsblkcnt_t blocks) { return static_cast<std::int64_t>(blocks * disk.f_frsize); };
        const std::int64_t leftFree = std::min(bytes(disk.f_blocks) / shareLeftFree, mostLeftFree);
        if (disk.f_blocks > 0 && bytes(disk.f_bavail) - count < leftFree)
            return failed(fmt::format("less than {} bytes would stay free", leftFree));
    }
    // Blocks are allocated here, since a full disk met while writing into the mapping would be a signal, not an error.
    if (const int error = posix_fallocate(descriptor_, offset, count); error != 0) return failed(systemReason(error));

    const auto added = static_cast<std::size_t>(end - mapped_);
    if (mmap(base_ + mapped_, added, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, descriptor_, mapped_) == MAP_FAILED)
        return std::unexpected(fmt::format("cannot map a temporary file in {} ({})", directory_, systemReason(errno)));
    // A core takes the pages of files without a name, and a capture may carry secrets.
    madvise(base_ + mapped_, added, MADV_DONTDUMP);
    mapped_ = end;
    return {};
}

void SpoolFile::release(std::int64_t offset, std::int64_t count) const
{
    const std::int64_t pageSize = sysconf(_SC_PAGESIZE);
    const std::int64_t first = (offset + pageSize - 1) / pageSize * pageSize, last = (offset + count) / pageSize * pageSize;
    if (first < last) madvise(base_ + first, static_cast<std::size_t>(last - first), MADV_DONTNEED);
}

}  // namespace sealscope
