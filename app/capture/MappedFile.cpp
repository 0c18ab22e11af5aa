// SPDX-License-Identifier: Apache-2.0
//
// Touching a mapped page that lies behind the end of its file raises SIGBUS, and a file can lose its end at any moment. The
// handler here looks for the page among the ranges that this file guards. In one of them it maps zeros from that page to the
// range's end, marks the range as damaged, and lets the reading thread go on. Every other SIGBUS goes to the handler before ours.
#include "app/capture/MappedFile.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <mutex>
#include <oneapi/tbb/parallel_for.h>
#include <sys/mman.h>
#include <unistd.h>

namespace sealscope {

/// A node of the list that the signal handler walks. Nodes are used again, never freed, so that the walk needs no lock.
struct GuardedRange {
    std::atomic<std::uintptr_t> begin{0};  ///< 0 while the node is free
    std::atomic<std::uintptr_t> end{0};
    std::atomic<bool> isDamaged{false};
    GuardedRange* next = nullptr;
};

namespace {

std::atomic<GuardedRange*> ranges{nullptr};
std::mutex rangesMutex;  // held to take and to give back nodes; the handler takes none
struct sigaction previousAction;

const std::uintptr_t pageSize = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));

void zeroMissingPages(int signal, siginfo_t* info, void* context)
{
    const int savedError = errno;
    const auto address = reinterpret_cast<std::uintptr_t>(info->si_addr);
    for (GuardedRange* range = ranges.load(std::memory_order_acquire); range; range = range->next) {
        const std::uintptr_t begin = range->begin.load(std::memory_order_acquire), end = range->end.load(std::memory_order_relaxed);
        if (begin == 0 || address < begin || address >= end) continue;
        const std::uintptr_t page = address & ~(pageSize - 1);
        if (mmap(reinterpret_cast<void*>(page), end - page, PROT_READ, MAP_FIXED | MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0) ==
            MAP_FAILED)
            break;
        range->isDamaged.store(true, std::memory_order_release);
        errno = savedError;
        return;
    }
    if (previousAction.sa_flags & SA_SIGINFO) {
        previousAction.sa_sigaction(signal, info, context);
    } else if (previousAction.sa_handler != SIG_DFL && previousAction.sa_handler != SIG_IGN) {
        previousAction.sa_handler(signal);
    } else {
        sigaction(SIGBUS, &previousAction, nullptr);  // the access is tried again and ends the program as it would have
    }
    errno = savedError;
}

GuardedRange* guard(std::uintptr_t begin, std::uintptr_t end)
{
    const std::lock_guard lock(rangesMutex);
    GuardedRange* range = ranges.load();
    if (!range) {
        struct sigaction action = {};
        action.sa_sigaction = zeroMissingPages;
        action.sa_flags = SA_SIGINFO | SA_ONSTACK;
        sigemptyset(&action.sa_mask);
        sigaction(SIGBUS, &action, &previousAction);
    }
    while (range && range->begin.load() != 0) range = range->next;
    const bool isNew = !range;
    if (isNew) range = new GuardedRange;
    range->isDamaged.store(false);
    range->end.store(end);
    range->begin.store(begin, std::memory_order_release);
    if (isNew) {
        range->next = ranges.load();
        ranges.store(range, std::memory_order_release);
    }
    return range;
}

}  // namespace

std::expected<std::unique_ptr<MappedFile>, FileError> MappedFile::map(int descriptor, std::int64_t size)
{
    void* const bytes = mmap(nullptr, static_cast<std::size_t>(size), PROT_READ, MAP_SHARED, descriptor, 0);
    if (bytes == MAP_FAILED) return std::unexpected(FileError::ofSystem(errno));
    madvise(bytes, static_cast<std::size_t>(size), MADV_DONTDUMP);  // a capture may carry secrets
    // Whole pages: the handler must also answer for the part of the last page behind the last byte.
    const auto begin = reinterpret_cast<std::uintptr_t>(bytes);
    const std::uintptr_t end = (begin + static_cast<std::uintptr_t>(size) + pageSize - 1) & ~(pageSize - 1);
    return std::unique_ptr<MappedFile>(new MappedFile({static_cast<const std::uint8_t*>(bytes), size}, guard(begin, end)));
}

MappedFile::~MappedFile()
{
    // To give the pages of a large file back takes long enough to be shared by processors that have nothing else left to do.
    constexpr std::int64_t share = 32 << 20;
    if (const std::int64_t size = bytes_.size(); size > 4 * share)
        oneapi::tbb::parallel_for(std::int64_t{0}, (size + share - 1) / share,
                                  [&](std::int64_t i) { release(i * share, std::min(share, size - i * share)); });
    const std::lock_guard lock(rangesMutex);
    guard_->begin.store(0);
    munmap(const_cast<std::uint8_t*>(bytes_.data()), static_cast<std::size_t>(bytes_.size()));
}

const std::atomic<bool>& MappedFile::isDamaged() const { return guard_->isDamaged; }

void MappedFile::prefetch(std::int64_t offset, std::int64_t count) const
{
    const auto from = reinterpret_cast<std::uintptr_t>(bytes_.data()) + static_cast<std::uintptr_t>(offset);
    const std::uintptr_t page = from & ~(pageSize - 1);
    const std::size_t length = from - page + static_cast<std::size_t>(count);
    // Older kernels know no populating; their faults bring the pages in by themselves.
    if (madvise(reinterpret_cast<void*>(page), length, MADV_POPULATE_READ) != 0 && errno == EINVAL)
        madvise(reinterpret_cast<void*>(page), length, MADV_WILLNEED);
}

void MappedFile::release(std::int64_t offset, std::int64_t count) const
{
    const auto from = reinterpret_cast<std::uintptr_t>(bytes_.data()) + static_cast<std::uintptr_t>(offset);
    const std::uintptr_t first = (from + pageSize - 1) & ~(pageSize - 1);
    const std::uintptr_t last = (from + static_cast<std::uintptr_t>(count)) & ~(pageSize - 1);
    if (first < last) madvise(reinterpret_cast<void*>(first), last - first, MADV_DONTNEED);
}

}  // namespace sealscope
