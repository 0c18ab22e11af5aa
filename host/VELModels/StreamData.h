// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Data.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <vector>

namespace sealscope SEALSCOPE_API {

/// Where the bytes of one direction lie. Implementations are immutable and may be read from any thread.
class StreamByteSource {
public:
    virtual ~StreamByteSource() = default;
    /// The longest stretch of bytes in one place that begins at `offset`, for an offset inside the direction's data;
    /// never empty. The bytes live as long as the source, or as `lendsForLong` says.
    virtual DataView stretch(std::int64_t offset) const = 0;
    /// False: bytes are made when they are looked at, and live until the thread that looks has been lent some megabytes of others.
    /// Only interpreters that say that they read piece by piece meet such a source.
    virtual bool lendsForLong() const { return true; }
    /// Calls `visit` with one stretch after another until `count` bytes from `offset` on, all inside the direction's data, are
    /// through. A source that knows where its bytes lie does better than to look for each stretch anew.
    virtual void forEachStretch(std::int64_t offset, std::int64_t count, const std::function<void(DataView)>& visit) const;

    /// The hole that an offset inside the direction's data lies in: bytes that no packet of the capture carried, which read as
    /// zeros. It reaches as far as it can in both directions. Nothing where there are bytes; bytes that were never captured as
    /// packets have no holes.
    virtual std::optional<ByteRange> hole(std::int64_t offset) const;
    /// The length of all holes together.
    virtual std::int64_t holeBytes() const { return 0; }
};

/// One direction's reassembled bytes, in sequence order. They stay where the capture has them, packet by packet, and
/// are gathered only where somebody wants several bytes in one place: a stream larger than memory is a `StreamData` as
/// any other. Cheap to copy; any thread may read it.
class StreamData {
public:
    StreamData() = default;
    /// Bytes that already lie in one place.
    StreamData(Data bytes) : whole_(std::move(bytes)), size_(whole_.size()) {}
    StreamData(std::shared_ptr<const StreamByteSource> source, std::int64_t size) : source_(std::move(source)), size_(size) {}

    std::int64_t size() const { return size_; }
    bool isEmpty() const { return size_ == 0; }

    /// The bytes in one place that begin at `offset`, as many as there are without gathering; empty outside the data.
    DataView stretch(std::int64_t offset) const
    {
        if (offset < 0 || offset >= size_) return {};
        return source_ ? source_->stretch(offset) : whole_.view().from(offset);
    }
    /// The hole that an offset lies in, see `StreamByteSource`; nothing outside the data, and for bytes in one place. A hole may be
    /// longer than any memory: step over it rather than read it.
    std::optional<ByteRange> hole(std::int64_t offset) const
    {
        if (!source_ || offset < 0 || offset >= size_) return std::nullopt;
        return source_->hole(offset);
    }
    /// The length of all holes together.
    std::int64_t holeBytes() const { return source_ ? source_->holeBytes() : 0; }
    /// Whether the bytes of a stretch live as long as the data, see `StreamByteSource`.
    bool lendsForLong() const { return !source_ || source_->lendsForLong(); }
    /// The same with bytes that do, which may take as much memory as there are bytes.
    StreamData kept() const { return lendsForLong() ? *this : StreamData(whole()); }
    /// `count` bytes from `offset`, cut to the data: shared where they lie in one place, else gathered into new memory.
    Data slice(std::int64_t from, std::int64_t count) const;
    /// The same without the cost of sharing: a view of the bytes where they lie, or of `scratch`, into which they were gathered.
    DataView gather(std::int64_t from, std::int64_t count, std::vector<std::uint8_t>& scratch) const;
    /// The same without gathering: the stretches in which `count` bytes from `offset` lie, cut to the data, in place of what
    /// `stretches` held.
    void findStretches(std::int64_t from, std::int64_t count, std::vector<DataView>& stretches) const;
    /// Copies the bytes from `offset` that fit into `target`; returns how many there were.
    std::int64_t copy(std::int64_t offset, std::span<std::uint8_t> target) const;
    /// All bytes in one place. Costs a copy of captured data.
    Data whole() const { return slice(0, size_); }

private:
    Data whole_;
    std::shared_ptr<const StreamByteSource> source_;
    std::int64_t size_ = 0;
};

/// Reads a `StreamData` front to back: keeps the stretch it is in, so that neighbouring reads cost no search.
/// The readers give 0 for bytes outside the data, as those of `DataView` do. Not thread-safe; outlived by the data.
class StreamReader {
public:
    explicit StreamReader(const StreamData& data) : data_(&data) {}
    const StreamData& data() const { return *data_; }
    std::int64_t size() const { return data_->size(); }
    std::uint8_t u8(std::int64_t offset)
    {
        if (const std::int64_t inside = offset - start_; inside >= 0 && inside < stretch_.size()) return stretch_[inside];
        return reload(offset) ? stretch_[0] : std::uint8_t{0};
    }
    std::uint16_t u16(std::int64_t offset)
    {
        if (const std::int64_t inside = offset - start_; inside >= 0 && inside + 2 <= stretch_.size()) return stretch_.u16(inside);
        if (offset < 0 || offset + 2 > size()) return 0;
        const std::uint16_t high = u8(offset);
        return static_cast<std::uint16_t>(high << 8 | u8(offset + 1));
    }
    /// Three single bytes, most significant first; each counts as 0 where it is missing.
    std::int64_t u24(std::int64_t offset)
    {
        if (const std::int64_t inside = offset - start_; inside >= 0 && inside + 3 <= stretch_.size()) return stretch_.u24(inside);
        const std::int64_t high = u8(offset), middle = u8(offset + 1);
        return high << 16 | middle << 8 | u8(offset + 2);
    }

private:
    bool reload(std::int64_t offset);

    const StreamData* data_;
    DataView stretch_;
    std::int64_t start_ = 0;
};

}  // namespace sealscope SEALSCOPE_API
