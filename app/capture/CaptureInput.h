// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/capture/ReadError.h"
#include "platform/Data.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <expected>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <utility>

namespace sealscope {

struct CaptureInputOptions {
    /// Every byte stays reachable through `bytes`; what cannot be mapped is then spooled to a temporary file.
    bool keepsAll = false;
    /// Also what `skip` passes over, which else reads as zeros where it is long and not mapped.
    bool keepsSkipped = false;
    /// Ends the bytes early once it is asked to stop: no wait for a pipe and no unpacking goes on after that.
    std::stop_token stop;
};

/// The bytes of one capture file from front to back, uncompressed: mapped where the file allows it, else read piece by piece.
/// One thread reads forward; `bytes` may be called from any thread.
class CaptureInput {
public:
    /// Opens a file ("-" is standard input). Fails with a reason.
    static std::expected<std::unique_ptr<CaptureInput>, ReadError> open(const std::string& name, CaptureInputOptions options);
    /// Bytes that are in memory already, and outlive the input.
    static std::unique_ptr<CaptureInput> over(DataView bytes);
    virtual ~CaptureInput() = default;

    /// True when all bytes are in one place as long as this is.
    virtual bool isMapped() const { return false; }
    /// The same bytes from an offset on, for a thread of its own that reads ahead; null where the file is not mapped. Outlived by
    /// this one.
    virtual std::unique_ptr<CaptureInput> ahead(std::int64_t /*offset*/) const { return nullptr; }
    /// Says that others read ahead: pages need not be brought near here, and those not far behind are still in use.
    virtual void expectReadersAhead() {}

    /// True when `count` bytes lie in one place at `data()`. False where the bytes end, or cannot be had: see `failure()`.
    bool require(std::int64_t count) { return end_ - at_ >= count || fill(count); }
    /// The bytes that `require` made sure of; lent until the next call of `require` or `skip`.
    const std::uint8_t* data() const { return at_; }
    /// Bytes that lie at `data()` already; after `require` has failed, all that are left.
    std::int64_t available() const { return end_ - at_; }
    /// Goes on behind `count` bytes that `require` made sure of.
    void consume(std::int64_t count) { at_ += count; }
    /// Starts to bring near what lies at `data()`, where a packet begins, and what will be looked at a few packets later: their
    /// headers are far from each other, and a processor that meanwhile looks at this one need not wait for them. Packets of a
    /// transfer follow a pattern, so as many bytes lie ahead of it as the packets before it had.
    void announce()
    {
        const std::uint8_t* const before = std::exchange(recent_[recentAt_++ % recent_.size()], at_);
        const std::int64_t ahead = std::clamp<std::int64_t>(at_ - before, 0, end_ - at_);
        for (const std::uint8_t* packet : {at_, at_ + ahead}) {
            __builtin_prefetch(packet);
            __builtin_prefetch(packet + 64);
        }
    }
    /// Goes on behind `count` bytes without having them in one place; false when there are fewer.
    bool skip(std::int64_t count)
    {
        if (count > available()) return skipFar(count);
        consume(count);
        return true;
    }
    /// Offset of `data()` in the uncompressed file.
    std::int64_t position() const { return startPosition_ + (at_ - start_); }

    /// Why the bytes ended before the end of the file; nothing when they did not.
    const std::optional<ReadError>& failure() const { return failure_; }
    /// Finds out whether bytes that looked fine were there at all; false when not, with the reason in `failure()`.
    virtual bool verify() { return true; }
    /// True when `verify` has something to find.
    bool isSuspicious() const { return damage_ && damage_->load(std::memory_order_relaxed); }

    /// True when bytes that `bytes` gave, or would give, are no longer in the file.
    virtual bool isLost() const { return isSuspicious(); }

    /// Ends the reading forward and lets go of what only that needs.
    virtual void finish() {}

    /// `count` bytes at an offset in the uncompressed file, cut to what was read. Needs `keepsAll`.
    virtual DataView bytes(std::int64_t offset, std::int64_t count) const = 0;
    /// Says that nobody will look at these bytes soon.
    virtual void letGo(std::int64_t /*offset*/, std::int64_t /*count*/) const {}
    /// Offset behind the last byte that `bytes` can give.
    virtual std::int64_t size() const = 0;
    /// Bytes of the file, as stored, that were read.
    virtual std::int64_t storedBytesRead() const = 0;
    /// True when all of the file is there, and its end need not be waited for.
    virtual bool isRegularFile() const { return true; }

protected:
    /// Tries to have `count` bytes at `at_`.
    virtual bool fill(std::int64_t count) = 0;
    /// Goes on behind `count` bytes, more than `available()`; false when there are fewer.
    virtual bool skipFar(std::int64_t count);

    const std::uint8_t* start_ = nullptr;  ///< byte `startPosition_` of the file
    const std::uint8_t* at_ = nullptr;
    const std::uint8_t* end_ = nullptr;
    std::int64_t startPosition_ = 0;
    std::array<const std::uint8_t*, 6> recent_{};  ///< where the last packets began
    std::size_t recentAt_ = 0;
    const std::atomic<bool>* damage_ = nullptr;  ///< set while somebody reads bytes that are not there
    std::optional<ReadError> failure_;
};

/// Size of a regular file in bytes, as stored; negative for anything else, or nothing.
std::int64_t storedSize(const std::string& name);

}  // namespace sealscope
