// SPDX-License-Identifier: Apache-2.0
#include "app/capture/SpoolFile.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <system_error>
#include <unistd.h>

namespace sealscope {
namespace {

constexpr std::int64_t smallestStep = 256 << 10, largestStep = 64 << 20;
constexpr std::int64_t largestReservation = std::int64_t{1} << 42, smallestReservation = std::int64_t{1} << 26;

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
        const std::int64_t wanted = (size + std::max(count, step) + smallestStep - 1) / smallestStep * smallestStep;
        if (wanted > reserved_) return std::unexpected(fmt::format("more than {} bytes do not fit into a temporary file", reserved_));
        // Blocks are allocated here, since a full disk met while writing into the mapping would be a signal, not an error.
        if (const int error = posix_fallocate(descriptor_, mapped_, wanted - mapped_); error != 0)
            return std::unexpected(
                fmt::format("cannot write to a temporary file in {} ({}); TMPDIR chooses another place", directory_, systemReason(error)));
        if (mmap(base_ + mapped_, static_cast<std::size_t>(wanted - mapped_), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, descriptor_,
                 mapped_) == MAP_FAILED)
            return std::unexpected(fmt::format("cannot map a temporary file in {} ({})", directory_, systemReason(errno)));
        mapped_ = wanted;
    }
    return std::span(base_ + size, static_cast<std::size_t>(mapped_ - size));
}

void SpoolFile::release(std::int64_t offset, std::int64_t count) const
{
    const std::int64_t pageSize = sysconf(_SC_PAGESIZE);
    const std::int64_t first = (offset + pageSize - 1) / pageSize * pageSize, last = (offset + count) / pageSize * pageSize;
    if (first < last) madvise(base_ + first, static_cast<std::size_t>(last - first), MADV_DONTNEED);
}

}  // namespace sealscope
