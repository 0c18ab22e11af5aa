// SPDX-License-Identifier: Apache-2.0
#include "app/session/PacketRowReader.h"

#include <utility>

namespace sealscope {

bool makeRow(const PacketAnalyzers& analyzers, const CapturedSegment& segment, PacketRow& row)
{
    const TCPPacket& tcp = segment.tcp;
    if (tcp.payload.isEmpty()) return false;
    auto match = analyzers.match(tcp.payload);
    if (!match) return false;
    row = {.number = segment.packetNumber,
           .time = segment.time.value(),
           .source = tcp.source,
           .destination = tcp.destination,
           .payload = tcp.payload,
           .match = std::move(match)};
    return true;
}

bool PacketRowMaker::make(const CapturedPacket& packet, PacketRow& row)
{
    if (!decoder_.decode(packet, segment_.tcp)) return false;
    segment_.packetNumber = packet.number;
    segment_.time = packet.time;
    return makeRow(analyzers_, segment_, row);
}

bool PacketRowReader::next(PacketRow& row)
{
    while (!stop_.stop_requested() && scan_.next(segment_)) {
        tellProgress();
        if (makeRow(analyzers_, segment_, row)) return true;
    }
    return false;
}

}  // namespace sealscope
