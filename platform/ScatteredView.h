// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Data.h"

#include <algorithm>
#include <cstdint>
#include <span>

namespace sealscope SEALSCOPE_API {

/// Bytes that somebody else keeps alive in one place or in several: `size` of them, from `offset` on in the pieces. A list of
/// pieces is lent as well.
class ScatteredView {
public:
    ScatteredView() = default;
    ScatteredView(DataView bytes) : only_(bytes), size_(bytes.size()) {}
    /// Everything that lies in the pieces.
    explicit ScatteredView(std::span<const DataView> pieces) : pieces_(pieces)
    {
        for (const DataView& piece : pieces) size_ += piece.size();
    }

    std::int64_t size() const { return size_; }
    bool isInOnePlace() const { return pieces_.size() < 2; }
    /// `count` bytes from `offset`, cut to what the view holds.
    ScatteredView sub(std::int64_t offset, std::int64_t count) const
    {
        ScatteredView part = *this;
        const std::int64_t from = std::clamp<std::int64_t>(offset, 0, size_);
        part.offset_ = offset_ + from;
        part.size_ = std::clamp<std::int64_t>(count, 0, size_ - from);
        return part;
    }
    ScatteredView from(std::int64_t offset) const { return sub(offset, size_); }

    /// Calls `visit` with each stretch that lies in one place, in order and none of them empty, until it gives false.
    template <class Visit> bool forEach(const Visit& visit) const
    {
        std::int64_t offset = offset_, left = size_;
        for (const DataView& piece : pieces_.empty() ? std::span(&only_, 1) : pieces_) {
            const DataView part = piece.sub(offset, left);
            offset = std::max<std::int64_t>(offset - piece.size(), 0);
            left -= part.size();
            if (!part.isEmpty() && !visit(part)) return false;
            if (left == 0) break;
        }
        return true;
    }
    /// The first bytes that fit into `target`.
    void copy(std::span<std::uint8_t> target) const
    {
        std::uint8_t* next = target.data();
        sub(0, std::ssize(target)).forEach([&](DataView part) {
            next = std::copy(part.begin(), part.end(), next);
            return true;
        });
    }

private:
    DataView only_;  ///< where there are no pieces
    std::span<const DataView> pieces_;
    std::int64_t offset_ = 0;
    std::int64_t size_ = 0;
};

}  // namespace sealscope SEALSCOPE_API
