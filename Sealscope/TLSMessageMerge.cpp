// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSMessageMerge.h"

#include "Sealscope/TLSNames.h"

#include <algorithm>
#include <tuple>
#include <utility>

namespace sealscope {

TLSEntryMerge::TLSEntryMerge(const TCPStream& stream) : stream_(stream)
{
    sides_[1].direction = TCPSegment::Direction::serverToClient;
    for (std::uint32_t side = 0; side < sides_.size(); ++side) {
        findRuns(sides_[side]);
        for (std::uint32_t run = 0; run < sides_[side].runs.size(); ++run) heads_.push_back({side, run});
    }
    std::ranges::make_heap(heads_, [this](Head a, Head b) { return isLater(a, b); });
}

void TLSEntryMerge::findRuns(Side& side)
{
    double latest = 0;
    TLSEntryReader::Place before;
    for (TLSEntryReader reader(side.direction, stream_); reader.next(); before = reader.place()) {
        if (side.runs.empty() || reader.timestamp() < latest) side.runs.push_back({before, reader.timestamp()});
        latest = reader.timestamp();
        const auto type = reader.handshakeType();
        if (type != std::to_underlying(TLSHandshakeType::clientHello) && type != std::to_underlying(TLSHandshakeType::serverHello))
            continue;
        std::optional<Item>& first = type == std::to_underlying(TLSHandshakeType::clientHello) ? clientHello_ : serverHello_;
        if (const Item item = itemAt(reader); !first || item < *first) first = item;
    }
}

// A direction's items follow each other by their first bytes, so that at one time an earlier run goes before a later one.
bool TLSEntryMerge::isLater(Head a, Head b) const
{
    const auto key = [this](Head head) { return std::tuple(sides_[head.side].runs[head.run].timestamp, head.side, head.run); };
    return key(a) > key(b);
}

bool TLSEntryMerge::passItem(Head head)
{
    TLSEntryReader& reader = *sides_[head.side].reader;
    const auto place = reader.place();
    const double timestamp = reader.timestamp();
    if (!reader.next() || reader.timestamp() < timestamp) {
        sides_[head.side].reader.reset();
        return false;
    }
    sides_[head.side].runs[head.run] = {place, reader.timestamp()};
    return true;
}

TLSEntryReader* TLSEntryMerge::next()
{
    const auto isLaterHead = [this](Head a, Head b) { return isLater(a, b); };
    if (isOnItem_) {
        const Head head = heads_.front();
        std::ranges::pop_heap(heads_, isLaterHead);
        heads_.pop_back();
        if (passItem(head)) {
            heads_.push_back(head);
            std::ranges::push_heap(heads_, isLaterHead);
        }
        isOnItem_ = false;
    }
    if (heads_.empty()) return nullptr;
    isOnItem_ = true;
    const Head head = heads_.front();
    Side& side = sides_[head.side];
    if (!side.reader || side.readRun != head.run) {
        side.reader.emplace(side.direction, stream_, side.runs[head.run].place);
        side.reader->next();
        side.readRun = head.run;
    }
    return &*side.reader;
}

}  // namespace sealscope
