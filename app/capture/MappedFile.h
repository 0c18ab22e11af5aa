// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Data.h"
#include "platform/FileDescriptor.h"

#include <atomic>
#include <expected>
#include <memory>

namespace sealscope {

struct GuardedRange;

/// A regular file mapped for reading. A file that becomes shorter underneath, or a page that the disk refuses, does not end
/// the program: the missing bytes read as zeros from then on and `isDamaged` says so. Any thread may read.
class MappedFile {
public:
    /// Maps the first `size` bytes; `size` > 0. The descriptor is not needed afterwards.
    static std::expected<std::unique_ptr<MappedFile>, FileError> map(int descriptor, std::int64_t size);
    ~MappedFile();

    DataView bytes() const { return bytes_; }
    /// True once somebody touched a byte that was no longer there.
    const std::atomic<bool>& isDamaged() const;

    /// Brings the pages of a range into memory in one go, in place of a fault for every few of them.
    void prefetch(std::int64_t offset, std::int64_t count) const;
    /// Takes whole pages of the range out of this process; they stay in the kernel's cache and come back when touched.
    void release(std::int64_t offset, std::int64_t count) const;

    MappedFile(const MappedFile&) = delete;
    MappedFile& operator=(const MappedFile&) = delete;

private:
    MappedFile(DataView bytes, GuardedRange* guard) : bytes_(bytes), guard_(guard) {}

    DataView bytes_;
    GuardedRange* guard_;
};

}  // namespace sealscope
