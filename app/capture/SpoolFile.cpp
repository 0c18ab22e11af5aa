// SPDX-License-Identifier: Apache-2.0
#include "app/capture/SpoolFile.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace sealscope {
namespace {

constexpr std::int64_t smallestStep = 256 << 10, largestStep = 64 << 20;
// What a full disk would keep from others stays free: a twentieth of it, or so much.
constexpr std::int64_t mostLeftFree = 1 << 30, shareLeftFree = 20;
constexpr std::int64_t mostHandedOut = 16 << 20;  // before the pages go
constexpr std::int64_t largestReservation = std::int64_t{1} << 42, smallestReservation = std::int64_t{1} << 26;

std::int64_t wholeSteps(std::int64_t bytes) { return (bytes + smallestStep - 1) / smallestStep * smallestStep; }

}  // namespace

std::string SpoolError::text() const
{
    const auto cannot = [&](const char* what, const std::string& reason) {
        return fmt::format("cannot {} a temporary file in {} ({}){}", what, folder, reason,
                           choice == FolderChoice::caller ? "" : "; TMPDIR chooses another place");
    };
    switch (problem) {
    case Problem::cannotMake: return cannot("make", fileError.text());
    case Problem::cannotWrite: return cannot("write to", fileError.text());
    case Problem::cannotMap: return cannot("map", fileError.text());
    case Problem::noAddressSpace: return fmt::format("cannot set address space aside for a temporary file ({})", fileError.text());
    case Problem::tooLittleLeft: return cannot("write to", fmt::format("less than {} bytes would stay free", bytes));
    case Problem::tooLong: return fmt::format("more than {} bytes do not fit into a temporary file", bytes);
    }
    std::unreachable();
}

std::expected<std::unique_ptr<SpoolFile>, SpoolError> SpoolFile::create(const std::string& folder)
{
    const char* const chosen = std::getenv("TMPDIR");
    const std::string directory = !folder.empty() ? folder : chosen && *chosen ? chosen : "/tmp";
    auto file = createUnnamedFile(directory);
    const auto choice = folder.empty() ? FolderChoice::environment : FolderChoice::caller;
    if (!file) return std::unexpected(SpoolError{.fileError = file.error(), .folder = directory, .choice = choice});
    // Address space costs nothing until it is used, but a process may be allowed little of it.
    for (std::int64_t reserved = largestReservation; reserved >= smallestReservation; reserved /= 4) {
        void* const base = mmap(nullptr, static_cast<std::size_t>(reserved), PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (base != MAP_FAILED)
            return std::unique_ptr<SpoolFile>(
                new SpoolFile(std::move(*file), directory, choice, static_cast<std::uint8_t*>(base), reserved));
    }
    return std::unexpected(SpoolError{.problem = SpoolError::Problem::noAddressSpace, .fileError = FileError::ofSystem(errno)});
}

SpoolFile::~SpoolFile() { munmap(base_, static_cast<std::size_t>(reserved_)); }

std::expected<std::span<std::uint8_t>, SpoolError> SpoolFile::room(std::int64_t count)
{
    const std::int64_t size = size_.load(std::memory_order_relaxed);
    if (mapped_ - size < count) {
        const std::int64_t step = std::clamp(mapped_, smallestStep, largestStep);
        const std::int64_t before = mapped_, wanted = wholeSteps(size + std::max(count, step));
        if (auto grown = grow(before, wanted); !grown) return std::unexpected(std::move(grown.error()));
    }
    return std::span(base_ + size, static_cast<std::size_t>(mapped_ - size));
}

std::expected<std::int64_t, SpoolError> SpoolFile::append(DataView bytes)
{
    const std::int64_t place = size_.load(std::memory_order_relaxed);
    if (const auto there = room(bytes.size()); !there) return std::unexpected(there.error());
    // Through the file: writing into the mapping would fault once for every page.
    for (std::int64_t done = 0; done < bytes.size();) {
        const DataView rest = bytes.from(done);
        const ssize_t count = pwrite(descriptor_.number(), rest.data(), static_cast<std::size_t>(rest.size()), place + done);
        if (count > 0)
            done += count;
        else if (errno != EINTR)
            return std::unexpected(failure(SpoolError::Problem::cannotWrite, FileError::ofSystem(errno)));
    }
    commit(bytes.size());
    return place;
}

std::expected<void, SpoolError> SpoolFile::leaveOut(std::int64_t count)
{
    const std::int64_t size = size_.load(std::memory_order_relaxed) + count;
    if (const std::int64_t wanted = wholeSteps(size); wanted > mapped_) {
        // The step in which the hole ends is written to next.
        if (ftruncate(descriptor_.number(), wanted) != 0)
            return std::unexpected(failure(SpoolError::Problem::cannotWrite, FileError::ofSystem(errno)));
        if (auto grown = grow(wanted - smallestStep, wanted); !grown) return grown;
    }
    commit(count);
    return {};
}

SpoolError SpoolFile::failure(SpoolError::Problem problem, FileError error) const
{
    return {.problem = problem, .fileError = std::move(error), .folder = folder_, .choice = choice_};
}

std::expected<void, SpoolError> SpoolFile::grow(std::int64_t offset, std::int64_t end)
{
    const std::int64_t count = end - offset;
    using Problem = SpoolError::Problem;
    if (end > reserved_) return std::unexpected(SpoolError{.problem = Problem::tooLong, .bytes = reserved_});
    if (struct statvfs disk{}; fstatvfs(descriptor_.number(), &disk) == 0) {
        const auto bytes = [&](fsblkcnt_t blocks) { return static_cast<std::int64_t>(blocks * disk.f_frsize); };
        const std::int64_t leftFree = std::min(bytes(disk.f_blocks) / shareLeftFree, mostLeftFree);
        if (disk.f_blocks > 0 && bytes(disk.f_bavail) - count < leftFree)
            return std::unexpected(SpoolError{.problem = Problem::tooLittleLeft, .bytes = leftFree, .folder = folder_, .choice = choice_});
    }
    // Blocks are allocated here, since a full disk met while writing into the mapping would be a signal, not an error.
    if (const int error = posix_fallocate(descriptor_.number(), offset, count); error != 0)
        return std::unexpected(failure(Problem::cannotWrite, FileError::ofSystem(error)));

    const auto added = static_cast<std::size_t>(end - mapped_);
    if (mmap(base_ + mapped_, added, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, descriptor_.number(), mapped_) == MAP_FAILED)
        return std::unexpected(failure(Problem::cannotMap, FileError::ofSystem(errno)));
    // A core takes the pages of files without a name, and a capture may carry secrets.
    madvise(base_ + mapped_, added, MADV_DONTDUMP);
    mapped_ = end;
    return {};
}

DataView SpoolFile::bytes(std::int64_t offset, std::int64_t count) const
{
    const DataView view = bytes().sub(offset, count);
    const std::uint64_t turn = turn_.load(std::memory_order_relaxed);
    std::int64_t brought = 0;
    for (std::int64_t at = view.begin() - base_, end = at + view.size(); at < end; at = (at / neighbourhood + 1) * neighbourhood) {
        const auto number = static_cast<std::uint64_t>(at / neighbourhood), mark = turn << 32 | number;
        auto& place = handedOutOf_[number % handedOutOf_.size()];
        if (place.load(std::memory_order_relaxed) == mark) continue;
        place.store(mark, std::memory_order_relaxed);
        brought += neighbourhood;
    }
    if (brought > 0 && handedOut_.fetch_add(brought, std::memory_order_relaxed) + brought > mostHandedOut) {
        handedOut_.store(0, std::memory_order_relaxed);
        turn_.fetch_add(1, std::memory_order_relaxed);
        release(0, bytes().size());
    }
    return view;
}

bool SpoolFile::read(std::int64_t offset, std::span<std::uint8_t> bytes) const
{
    for (std::size_t done = 0; done < bytes.size();) {
        const ssize_t count = pread(descriptor_.number(), bytes.data() + done, bytes.size() - done, offset + static_cast<off_t>(done));
        if (count > 0)
            done += static_cast<std::size_t>(count);
        else if (count == 0 || errno != EINTR)
            return false;
    }
    return true;
}

void SpoolFile::release(std::int64_t offset, std::int64_t count) const
{
    const std::int64_t pageSize = sysconf(_SC_PAGESIZE);
    const std::int64_t first = (offset + pageSize - 1) / pageSize * pageSize, last = (offset + count) / pageSize * pageSize;
    if (first < last) madvise(base_ + first, static_cast<std::size_t>(last - first), MADV_DONTNEED);
}

}  // namespace sealscope
