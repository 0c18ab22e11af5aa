// SPDX-License-Identifier: Apache-2.0
#include "fuzz/Require.h"
#include "tests/streams/PlainReassembly.h"
#include "tests/streams/ScriptedCapture.h"

// The first byte says what the rest is: segments of one direction that lie close together, which a plain byte map puts together
// as well; or packets of any connection with any header, of which only what must always hold is asked.

using namespace sealscope;

namespace {

/// Five bytes a segment: offset (2), length (1), content (1), and what is special about it (1).
enum class Beginning { withSYN, without };
void compareWithPlain(DataView input, Beginning beginning)
{
    constexpr std::int64_t stepSize = 5;
    std::vector<SegmentStep> steps;
    const std::uint32_t initialSequenceNumber = input.u16(0) << 16 | input.u16(2);
    for (std::int64_t at = 4; at + stepSize <= input.size() && steps.size() < 2'000; at += stepSize) {
        SegmentStep& step = steps.emplace_back();
        step.offset = static_cast<std::int16_t>(input.u16(at)) / 16;
        const std::uint8_t special = input[at + 4];
        // Mostly a place has one content; `special` can give it another.
        const std::uint8_t salt = special & 1 ? input[at + 3] : 0;
        for (std::int64_t i = 0; i < input[at + 2]; ++i) step.payload.push_back(static_cast<std::uint8_t>((step.offset + i) * 7 + salt));
        step.captured = special & 2 ? input[at + 2] / 2 : input[at + 2];
        step.isReset = (special & 0x1C) == 0x1C;
    }
    const auto difference = differenceFromPlain(steps, beginning == Beginning::withSYN, initialSequenceNumber);
    require(!difference, difference ? difference->c_str() : "");
}

/// Twelve bytes a packet: who and which flags (1), sequence and acknowledgment number (4 each), length (2), cut (1).
void checkInvariants(DataView input)
{
    constexpr std::int64_t packetSize = 12;
    ScriptedCapture capture;
    std::int64_t packets = 0;
    std::vector<std::uint8_t> payload;
    for (std::int64_t at = 0; at + packetSize <= input.size() && packets < 2'000; at += packetSize, ++packets) {
        const std::uint8_t who = input[at];
        TCPPacket packet{.source = testEndpoint(1, 50'000), .destination = testEndpoint(2, who & 0x40 ? 443 : 444)};
        if (who & 0x80) std::swap(packet.source, packet.destination);
        packet.flags = who & 0x3F;
        packet.sequenceNumber = input.u32(at + 1);
        packet.acknowledgmentNumber = input.u32(at + 5);
        payload.assign(input.u16(at + 9) % 2'048, static_cast<std::uint8_t>(packets | 1));
        capture.add(packet, payload, static_cast<double>(packets), input[at + 11] & 1 ? static_cast<std::int64_t>(payload.size()) / 2 : -1);
    }

    std::int64_t indexed = 0;
    for (std::int64_t number = 0; number < capture.index().size(); ++number) {
        const TCPStream stream = capture.stream(number);
        const StreamMeasures measures = capture.measures(number);
        require(measures.clientBytes == stream.clientToServerData.size(), "client bytes");
        require(measures.serverBytes == stream.serverToClientData.size(), "server bytes");
        require(measures.contradictingBytes >= 0 && measures.restarts >= 0, "counts");
        std::int64_t missing = 0;
        for (const auto direction : {TCPSegment::Direction::clientToServer, TCPSegment::Direction::serverToClient}) {
            const StreamData& data = stream.data(direction);
            // Losses of up to 1 GiB each are read at their beginning and end.
            for (std::int64_t offset = 0; offset < data.size();) {
                const DataView here = data.stretch(offset);
                require(!here.isEmpty() && here.size() <= data.size() - offset, "stretches lie inside the data");
                const ByteLocation location = stream.locate({offset, offset + here.size()}, direction);
                require(location.packetIds.size() <= 1, "a stretch is of one packet");
                if (location.packetIds.empty()) {
                    require(here[0] == 0 && here[here.size() - 1] == 0, "lost bytes are zeros");
                    missing += here.size();
                } else {
                    require(here[0] == static_cast<std::uint8_t>((location.packetIds[0] - 1) | 1), "bytes are of their packet");
                }
                offset += here.size();
                if (measures.missingBytes > 1 << 22) break;
            }
        }
        require(measures.missingBytes > 1 << 22 || missing == measures.missingBytes, "missing bytes");
        std::int64_t before = 0;
        for (std::int64_t i = 0; i < stream.segments.size(); ++i, ++indexed) {
            const TCPSegment segment = stream.segments[i];
            require(segment.packetId > before, "segments in capture order");
            before = segment.packetId;
        }
    }
    require(indexed == packets, "every packet is of one connection");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const DataView input(data, static_cast<std::int64_t>(size));
    switch (input.u8(0) % 3) {
    case 0: compareWithPlain(input.from(1), Beginning::withSYN); break;
    case 1: compareWithPlain(input.from(1), Beginning::without); break;
    default: checkInvariants(input.from(1)); break;
    }
    return 0;
}
