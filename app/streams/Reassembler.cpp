// SPDX-License-Identifier: Apache-2.0
#include "app/streams/Reassembler.h"

#include "app/streams/SequenceSpace.h"

#include <algorithm>
#include <limits>
#include <utility>

// Three steps. First, in capture order, segments that follow each other become runs; a stream without disorder is one run, a
// stream with some has a few for each disturbance. Second, the runs are sorted by where they begin. Third, where runs overlap,
// a sweep from the left gives each byte to the earliest run that has it:
//
//     run 0   [0 ........ 100)                     capture order counts, so with    run 0  [0, 100)
//     run 1            [80 .............. 200)     80 ..< 100 carried twice and     run 1  [100, 200)
//     run 2      [60 ...................... 240)   200 ..< 240 only by run 2        run 2  [200, 240)
//
// Runs may be treated as one in the third step because their segments are neighbours in the list: all of an earlier run
// were captured before any of a later one.

namespace sealscope {

namespace {

/// Longer runs are cut, so that 32 bits hold their length and sequence numbers compare within them.
constexpr std::int64_t maximumRunLength = std::int64_t{1} << 30;

/// Segments in a row that add nothing end a run: whoever walks its segments would have to pass them all.
constexpr std::uint32_t maximumIdleSegments = 16;

/// Up to so many runs, or one for each so many segments, are made as they are found. Of a stream in greater disorder they are
/// counted first: a vector that grows would take more memory than there is to spend on a packet.
constexpr std::size_t fewRuns = 1 << 12;
constexpr std::uint32_t segmentsPerRun = 16;

/// Makes runs of segments that are given in capture order.
class RunBuilder {
public:
    /// Appends the first `most` runs to `runs`; the rest are only counted.
    RunBuilder(std::vector<SegmentRun>& runs, std::size_t most) : runs_(runs), most_(most) {}

    void add(std::uint32_t position, const SegmentRecord& segment, const std::optional<SequenceSpace::Placed>& placed)
    {
        if (!placed || placed->capturedEnd == placed->begin) return pass(segment);
        if (isKnown(placed->begin, placed->capturedEnd)) return pass(segment);
        widenKnown(placed->begin, placed->capturedEnd);
        if (!extends(position, *placed)) {
            close();
            run_ = {.offset = placed->begin, .number = placed->number, .first = position};
            isOpen_ = true;
        }
        run_.length = static_cast<std::uint32_t>(placed->capturedEnd - run_.offset);
        run_.count = position - run_.first + 1;
    }

    /// Ends the run at hand.
    void close()
    {
        if (run_.length == 0) return;
        if (++count_ <= most_) runs_.push_back(run_);
        run_ = {};
        isOpen_ = false;
    }

    std::size_t count() const { return count_; }

private:
    /// A segment that adds nothing. The run can go on after it when it ends where the run does; most acknowledgments do.
    void pass(const SegmentRecord& segment)
    {
        const std::uint32_t end = segment.dataNumber() + static_cast<std::uint32_t>(segment.capturedData());
        isOpen_ = isOpen_ && end == run_.number + run_.length;
    }

    bool extends(std::uint32_t position, const SequenceSpace::Placed& placed) const
    {
        return isOpen_ && placed.begin >= run_.offset && placed.begin <= run_.end() && placed.capturedEnd > run_.end() &&
               placed.capturedEnd - run_.offset <= maximumRunLength && position - (run_.first + run_.count) <= maximumIdleSegments;
    }

    // One stretch without a hole is kept in mind, the one around the latest data. What lies inside it, such as every other
    // packet of a capture that has each twice, needs no run.
    bool isKnown(std::int64_t begin, std::int64_t end) const { return begin >= knownBegin_ && end <= knownEnd_; }
    void widenKnown(std::int64_t begin, std::int64_t end)
    {
        if (begin > knownEnd_) {
            knownBegin_ = begin;
            knownEnd_ = end;
        } else if (end >= knownBegin_) {
            knownBegin_ = std::min(knownBegin_, begin);
            knownEnd_ = std::max(knownEnd_, end);
        }
    }

    SegmentRun run_;
    bool isOpen_ = false;  ///< the run can go on
    std::size_t count_ = 0;
    std::vector<SegmentRun>& runs_;
    std::size_t most_;
    std::int64_t knownBegin_ = std::numeric_limits<std::int64_t>::max();
    std::int64_t knownEnd_ = std::numeric_limits<std::int64_t>::min();
};

/// The part begin ..< end of a run.
SegmentRun part(const SegmentRun& run, std::int64_t begin, std::int64_t end)
{
    return {
        .offset = begin,
        .length = static_cast<std::uint32_t>(end - begin),
        .number = run.number + static_cast<std::uint32_t>(begin - run.offset),
        .first = run.first,
        .count = run.count,
    };
}

/// Gives each byte to the earliest of the runs that have it. The runs are sorted by offset.
std::vector<SegmentRun> withoutOverlaps(const std::vector<SegmentRun>& runs)
{
    std::vector<SegmentRun> parts;
    parts.reserve(runs.size());
    // Runs that have begun, the earliest in capture order on top.
    std::vector<std::uint32_t> begun;
    const auto isLater = [&](std::uint32_t a, std::uint32_t b) { return runs[a].first > runs[b].first; };
    std::uint32_t next = 0;
    const auto begin = [&] {
        begun.push_back(next++);
        std::ranges::push_heap(begun, isLater);
    };

    std::int64_t at = 0;
    while (next < runs.size() || !begun.empty()) {
        if (begun.empty()) {
            at = runs[next].offset;
            begin();
        }
        const SegmentRun& run = runs[begun.front()];
        if (run.end() <= at) {
            std::ranges::pop_heap(begun, isLater);
            begun.pop_back();
            continue;
        }
        while (next < runs.size() && runs[next].offset < run.end() && runs[next].first > run.first) begin();
        const bool isInterrupted = next < runs.size() && runs[next].offset < run.end();
        const std::int64_t until = isInterrupted ? runs[next].offset : run.end();
        if (until > at) parts.push_back(part(run, at, until));
        at = until;
        if (isInterrupted) begin();
    }
    return parts;
}

/// What one pass over a direction's segments finds.
struct Collected {
    std::vector<SegmentRun> runs;  ///< in capture order; their offsets are positions in the sequence space
    SequenceSpace::Eras eras;
    bool hasOverlaps = false;
};

void collect(const SegmentTable& segments, std::optional<Acknowledged> acknowledged, RunBuilder& builder, Collected& collected)
{
    SequenceSpace space(acknowledged);
    for (std::uint32_t position = 0; position < segments.size();) {
        for (const SegmentRecord& segment : segments.chunkFrom(position)) {
            const auto placed = space.place(segment);
            builder.add(position, segment, placed);
            if (placed) collected.hasOverlaps |= !placed->isNew;
            ++position;
        }
    }
    builder.close();
    collected.eras = space.eras();
}

Collected collect(const SegmentTable& segments, std::optional<Acknowledged> acknowledged)
{
    const std::size_t most = std::max<std::size_t>(fewRuns, segments.size() / segmentsPerRun);
    Collected collected;
    RunBuilder builder(collected.runs, most);
    collect(segments, acknowledged, builder, collected);
    if (builder.count() <= most) return collected;

    collected = {};
    collected.runs.reserve(builder.count());
    RunBuilder again(collected.runs, builder.count());
    collect(segments, acknowledged, again, collected);
    return collected;
}

/// Sorts runs by position and gives each byte to one of them.
void putInOrder(std::vector<SegmentRun>& runs)
{
    const auto isBefore = [](const SegmentRun& a, const SegmentRun& b) {
        return a.offset != b.offset ? a.offset < b.offset : a.first < b.first;
    };
    if (!std::ranges::is_sorted(runs, isBefore)) std::ranges::sort(runs, isBefore);
    const auto overlap = [](const SegmentRun& a, const SegmentRun& b) { return b.offset < a.end(); };
    if (std::ranges::adjacent_find(runs, overlap) != runs.end()) runs = withoutOverlaps(runs);
}

}  // namespace

std::int64_t Reassembly::offsetOf(std::int64_t position) const
{
    const Era& era = eras[SequenceSpace::eraOf(position)];
    return era.offset + std::max<std::int64_t>(position - era.position, 0);
}

Reassembly reassemble(const SegmentTable& segments, std::optional<Acknowledged> acknowledged)
{
    Collected collected = collect(segments, acknowledged);
    putInOrder(collected.runs);

    // A byte counts as lost when the capture has a later one: what the snapshot length cut off the end of the data does not.
    for (SequenceSpace::Era& era : collected.eras) era.end = era.begin;
    for (const SegmentRun& run : collected.runs) {
        SequenceSpace::Era& era = collected.eras[SequenceSpace::eraOf(run.offset)];
        era.end = std::max(era.end, run.end());
    }

    Reassembly result{.hasOverlaps = collected.hasOverlaps};
    // The eras follow each other; of each counts what lies after its SYN.
    for (const SequenceSpace::Era& era : collected.eras) {
        result.eras.push_back({.position = era.begin, .offset = result.size});
        result.size += era.end - era.begin;
    }
    if (!collected.eras.empty()) {
        result.restarts = std::ssize(collected.eras) - 1;
        result.firstNumber = collected.eras.front().numberAt(collected.eras.front().begin);
    }

    result.missingBytes = result.size;
    std::erase_if(collected.runs, [&](SegmentRun& run) {
        const std::int64_t begin = std::max(run.offset, result.eras[SequenceSpace::eraOf(run.offset)].position);
        if (run.end() <= begin) return true;
        run = part(run, begin, run.end());
        run.offset = result.offsetOf(begin);
        result.missingBytes -= run.length;
        return false;
    });
    result.runs = std::move(collected.runs);
    return result;
}

}  // namespace sealscope
