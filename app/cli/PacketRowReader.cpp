// SPDX-License-Identifier: Apache-2.0
#include "app/cli/PacketRowReader.h"

#include "app/cli/Interrupt.h"

#include <utility>

namespace sealscope::cli {

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
    while (!isInterrupted() && capture_.next(packet_)) {
        ++packets_;
        progress_.update(capture_.bytesRead(), capture_.bytesTotal());
        if (maker_.make(packet_, row)) return true;
    }
    return false;
}

}  // namespace sealscope::cli
