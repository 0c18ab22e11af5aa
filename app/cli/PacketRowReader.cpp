// SPDX-License-Identifier: Apache-2.0
#include "app/cli/PacketRowReader.h"

#include "app/cli/Interrupt.h"

namespace sealscope::cli {

bool PacketRowReader::next(PacketRow& row)
{
    while (!isInterrupted() && capture_.next(packet_)) {
        ++packets_;
        progress_.update(capture_.bytesRead(), capture_.bytesTotal());
        if (!decoder_.decode(packet_, segment_) || segment_.payload.isEmpty()) continue;
        auto match = analyzers_.match(segment_.payload);
        if (!match) continue;
        row = {.number = packet_.number,
               .time = packet_.time.value(),
               .source = segment_.source,
               .destination = segment_.destination,
               .payload = segment_.payload,
               .match = std::move(match)};
        return true;
    }
    return false;
}

}  // namespace sealscope::cli
