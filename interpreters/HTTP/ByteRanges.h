// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Data.h"

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace sealscope {

/// Ranges of bytes in ascending order that do not overlap, such as where the chunks of a body lie. Ranges that touch become
/// one, and each further one takes as many bytes as it takes to write down a gap and a length: less than the frame header that
/// it stands for.
class ByteRanges {
public:
    ByteRanges() = default;
    ByteRanges(ByteRange range) { append(range); }

    /// Adds a range at the end; an empty one changes nothing.
    void append(ByteRange range)
    {
        if (range.isEmpty()) return;
        if (total_ == 0) {
            lower_ = last_.lower = range.lower;
        } else if (range.lower != last_.upper) {
            write(last_.size());
            write(range.lower - last_.upper);
            last_.lower = range.lower;
        }
        last_.upper = range.upper;
        total_ += range.size();
    }

    /// The same without what it takes to know where the bytes in front of a place lie, which nobody looks at any more: these stand in one
    /// piece right before the range that has the place.
    ByteRanges forgotten(std::int64_t place) const
    {
        ByteRanges kept;
        std::int64_t passed = 0;
        forEach([&](ByteRange range) {
            const bool isBefore = passed + range.size() <= place && range.upper != last_.upper;
            if (!isBefore && kept.isEmpty()) range.lower -= passed;
            passed += range.size();
            if (!isBefore) kept.append(range);
            return true;
        });
        return kept;
    }
    /// Where a place in them lies, or what would follow the last.
    std::int64_t positionOf(std::int64_t place) const
    {
        std::int64_t found = last_.upper;
        forEach([&](ByteRange range) {
            if (place < range.size()) found = range.lower + place;
            place -= range.size();
            return place >= 0;
        });
        return found;
    }

    /// Bytes in all.
    std::int64_t size() const { return total_; }
    bool isEmpty() const { return total_ == 0; }
    /// From the first byte to the last.
    ByteRange bounds() const { return {lower_, last_.upper}; }
    bool isInOnePlace() const { return packed_.empty(); }

    /// A range from which they can be gone through.
    struct Mark {
        std::int64_t passed = 0;  ///< bytes of those in front of it
        std::int64_t lower = 0;
        std::size_t packed = 0;  ///< where it stands among those that are packed
    };
    /// Every so many-th of them, the first included.
    std::vector<Mark> marks(std::int64_t every) const
    {
        std::vector<Mark> marks;
        Mark mark{.lower = lower_};
        std::int64_t count = 0;
        for (auto next = packed_.begin();; ++count) {
            if (count % every == 0) marks.push_back(mark);
            if (next == packed_.end()) return marks;
            const std::int64_t size = read(next);
            mark.passed += size;
            mark.lower += size + read(next);
            mark.packed = static_cast<std::size_t>(next - packed_.begin());
        }
    }

    /// Calls `visit` with each range until it gives false.
    template <class Visit> bool forEach(const Visit& visit) const { return forEachFrom({.lower = lower_}, visit); }
    /// The same from one of them on.
    template <class Visit> bool forEachFrom(const Mark& mark, const Visit& visit) const
    {
        std::int64_t lower = mark.lower;
        for (auto next = packed_.begin() + static_cast<std::ptrdiff_t>(mark.packed); next != packed_.end();) {
            const std::int64_t upper = lower + read(next);
            if (!visit(ByteRange{lower, upper})) return false;
            lower = upper + read(next);
        }
        return total_ == 0 || visit(last_);
    }

private:
    void write(std::int64_t number)
    {
        for (; number >= 0x80; number >>= 7) packed_.push_back(static_cast<std::uint8_t>(number | 0x80));
        packed_.push_back(static_cast<std::uint8_t>(number));
    }
    static std::int64_t read(std::vector<std::uint8_t>::const_iterator& next)
    {
        std::int64_t number = 0;
        for (int shift = 0;; shift += 7) {
            const std::uint8_t byte = *next++;
            number |= std::int64_t{byte & 0x7F} << shift;
            if (byte < 0x80) return number;
        }
    }

    std::int64_t lower_ = 0;
    ByteRange last_;
    std::int64_t total_ = 0;
    std::vector<std::uint8_t> packed_;  ///< length and the gap behind it, of each range but the last
};

}  // namespace sealscope
