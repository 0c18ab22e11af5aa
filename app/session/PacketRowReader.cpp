// SPDX-License-Identifier: Apache-2.0
#include "app/session/PacketRowReader.h"

#include <utility>

namespace sealscope {

bool PacketRowMaker::make(const CapturedPacket& packet, PacketRow& row)
{
    if (!decoder_.decode(packet, segment_) || segment_.payload.isEmpty()) return false;
    auto match = analyzers_.match(segment_.payload);
    if (!match) return false;
    row = {.number = packet.number,
           .time = packet.time.value(),
           .source = segment_.source,
           .destination = segment_.destination,
           .payload = segment_.payload,
           .match = std::move(match)};
    return true;
}

bool PacketRowReader::next(PacketRow& row)
{
    constexpr std::int64_t packetsPerProgress = 256;
    while (!stop_.stop_requested() && capture_.next(packet_)) {
        if (++packets_ % packetsPerProgress == 0) progress_(capture_.bytesRead(), capture_.bytesTotal());
        if (maker_.make(packet_, row)) return true;
    }
    return false;
}

}  // namespace sealscope
