// SPDX-License-Identifier: Apache-2.0
#include "host/VELModels/ByteToSegmentIndex.h"

#include <algorithm>

namespace sealscope {

namespace {

/// Spans sorted by where they begin. Spans may overlap, so each knows how far any span up to it reaches: a search from
/// the left may start at the first whose reach passes the wanted range.
class SpanList final : public ByteLocator {
public:
    explicit SpanList(std::vector<ByteSpan> spans) : spans_(std::move(spans))
    {
        std::ranges::stable_sort(spans_, {}, [](const ByteSpan& span) { return span.range.lower; });
        reach_.reserve(spans_.size());
        std::int64_t reach = 0;
        for (const ByteSpan& span : spans_) reach_.push_back(reach = std::max(reach, span.range.upper));
    }

    ByteLocation locate(ByteRange range) const override
    {
        ByteLocation location;
        PacketIdCollector packets(location.packetIds);
        auto span = spans_.begin() + (std::ranges::upper_bound(reach_, range.lower) - reach_.begin());
        for (; span != spans_.end() && span->range.lower < range.upper; ++span) {
            // A span of no packet says nothing of a time either.
            if (span->range.isEmpty() || span->range.upper <= range.lower || span->packetIds.empty()) continue;
            for (const std::int64_t packetId : span->packetIds) packets.add(packetId);
            location.timestamp = std::min(location.timestamp.value_or(span->timestamp), span->timestamp);
        }
        return location;
    }

private:
    std::vector<ByteSpan> spans_;
    std::vector<std::int64_t> reach_;
};

}  // namespace

const ByteToSegmentIndex ByteToSegmentIndex::empty;

ByteToSegmentIndex::ByteToSegmentIndex(std::vector<ByteSpan> spans)
{
    if (!spans.empty()) locator_ = std::make_shared<SpanList>(std::move(spans));
}

void PacketIdCollector::add(std::int64_t packetId)
{
    if (!seen_) {
        // Packets mostly come in order; then nothing needs to be searched.
        if (packetIds_.empty() || packetId > packetIds_.back()) return packetIds_.push_back(packetId);
        if (packetId == packetIds_.back()) return;
        seen_ = std::make_unique<std::unordered_set<std::int64_t>>(packetIds_.begin(), packetIds_.end());
    }
    if (seen_->insert(packetId).second) packetIds_.push_back(packetId);
}

}  // namespace sealscope
