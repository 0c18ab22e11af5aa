// SPDX-License-Identifier: Apache-2.0
#include "app/streams/SequenceSpace.h"

#include <algorithm>

namespace sealscope {

SequenceSpace::Era& SequenceSpace::open(std::uint32_t originNumber)
{
    const std::int64_t origin = static_cast<std::int64_t>(eras_.size()) * eraLength + eraLength / 2;
    current_ = eras_.size();
    return eras_.emplace_back(Era{.origin = origin, .originNumber = originNumber, .begin = origin, .end = origin});
}

void SequenceSpace::takeSYN(std::uint32_t dataNumber)
{
    if (eras_.empty()) {
        open(dataNumber).hasSYN = true;
        return;
    }
    Era& era = eras_[current_];
    if (!era.hasData) {
        // Another attempt, with a new number or the same.
        era.originNumber = dataNumber;
        era.begin = era.end = era.origin;
        era.hasSYN = true;
    } else if (const std::int64_t position = era.positionOf(dataNumber); !era.hasSYN && position <= era.begin) {
        // Captured after data that it was sent before.
        era.begin = position;
        era.hasSYN = true;
    }
}

bool SequenceSpace::fits(std::size_t index, std::uint32_t number, std::int64_t length) const
{
    const Era& era = eras_[index];
    const std::int64_t position = era.positionOf(number);
    if (!era.isWithin(position)) return false;
    const std::int64_t lost = position - era.end;
    if (lost > largestLoss) return false;
    if (lost > plausibleFlight && acknowledged_ && index == 0) {
        // Lost bytes reached the receiver, which acknowledged them; up to a flight of them, it may not have come to that.
        const std::int64_t reference = era.origin + sequenceDistance(era.originNumber, acknowledged_->reference);
        return position <= reference + acknowledged_->highest;
    }
    return position >= era.begin - plausibleFlight || position + length >= era.begin;
}

std::optional<std::size_t> SequenceSpace::eraFor(std::uint32_t number, std::int64_t length)
{
    constexpr std::size_t remembered = 8;
    if (!eras_.empty() && fits(current_, number, length)) return current_;
    const std::size_t oldest = eras_.size() - std::min(eras_.size(), remembered);
    for (std::size_t era = eras_.size(); era-- > oldest;)
        if (fits(era, number, length)) return era;
    if (eras_.size() == maximumEras) return std::nullopt;
    open(number);
    return current_;
}

std::optional<SequenceSpace::Placed> SequenceSpace::place(const SegmentRecord& segment)
{
    if (segment.isSYN()) takeSYN(segment.dataNumber());
    if (!segment.carriesData()) return std::nullopt;
    const std::uint32_t number = segment.dataNumber();
    const auto length = static_cast<std::int64_t>(segment.length);
    if (!eras_.empty() && eras_[current_].hasData && number == eras_[current_].numberAt(eras_[current_].end) &&
        eras_[current_].isWithin(eras_[current_].end)) {
        // What most segments do: they go on where the data ends.
        const std::int64_t begin = eras_[current_].end;
        eras_[current_].end += length;
        return Placed{begin, begin + static_cast<std::int64_t>(segment.captured), begin + length, number, true};
    }
    const auto index = eraFor(number, length);
    if (!index) return std::nullopt;
    current_ = *index;
    Era& era = eras_[*index];

    const std::int64_t position = era.positionOf(number);
    const std::int64_t end = position + length;
    // Without a SYN the data begins with the lowest byte that is seen in time: before more than a flight has followed, or
    // right before what begins the data so far.
    if (!era.hasSYN && position < era.begin && (end >= era.begin || era.end - position <= plausibleFlight)) era.begin = position;
    const std::int64_t begin = std::max(position, era.begin);
    if (end <= begin) return std::nullopt;
    const bool isNew = !era.hasData || begin >= era.end;
    era.hasData = true;
    era.end = std::max(era.end, end);
    return Placed{
        .begin = begin,
        .capturedEnd = std::max(begin, position + static_cast<std::int64_t>(segment.captured)),
        .end = end,
        .number = era.numberAt(begin),
        .isNew = isNew,
    };
}

}  // namespace sealscope
