// SPDX-License-Identifier: Apache-2.0
// Packets for one decoder, one after another: position of the link type (1), seconds (1), captured length (2), bytes cut off (1),
// then the captured bytes.
#include "app/capture/PacketDecoder.h"
#include "fuzz/Require.h"

#include <vector>

using namespace sealscope;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static constexpr std::uint32_t linkTypes[] = {1, 113, 276, 101, 12, 14, 228, 229, 0, 108, 9, 50, 51, 104, 147};
    constexpr std::int64_t headerLength = 5;
    const DataView input(data, static_cast<std::int64_t>(size));
    PacketDecoder decoder;
    std::int64_t packets = 0, segments = 0;
    for (std::int64_t at = 0; input.holds(at, headerLength); ++packets) {
        const DataView header = input.sub(at, headerLength), bytes = input.sub(at + headerLength, header.u16(2));
        at += headerLength + bytes.size();
        // Memory of its own, so that a look behind its end is noticed.
        const std::vector<std::uint8_t> frame(bytes.begin(), bytes.end());
        const CapturedPacket packet{.number = packets + 1,
                                    .time = {.seconds = header[1]},
                                    .frame = frame,
                                    .address = 1 << 20,
                                    .originalLength = bytes.size() + header[4],
                                    .linkType = linkTypes[header[0] % std::size(linkTypes)]};
        TCPPacket segment;
        if (!decoder.decode(packet, segment)) continue;
        ++segments;
        require(segment.payload.size() <= segment.payloadLength, "no more is captured than there was");
        require(segment.payloadLength < 1 << 16 || segment.payloadLength <= bytes.size(), "a payload fits into its packet");
        unsigned sum = 0;
        for (const std::uint8_t byte : segment.payload) sum += byte;
        require(sum <= 255u * static_cast<unsigned>(segment.payload.size()), "a payload can be read");
        require(segment.source.isIPv6 == segment.destination.isIPv6, "both ends speak the same");
    }
    const DecoderNotes& notes = decoder.notes();
    require(notes.damagedPackets + segments <= packets, "a packet has a segment, or damage, or neither");
    require(notes.incompleteDatagrams <= packets, "a datagram needs a packet");
    return 0;
}
