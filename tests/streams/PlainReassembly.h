// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/ScatteredView.h"
#include "tests/streams/ScriptedCapture.h"

#include <algorithm>
#include <cstdint>
#include <fmt/format.h>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace sealscope {

/// One step of a made-up direction: a segment whose numbers count from the direction's first byte.
struct SegmentStep {
    std::int32_t offset = 0;
    std::vector<std::uint8_t> payload;
    std::int64_t captured = 0;  ///< payload bytes that the capture holds
    bool isReset = false;
};

/// The plain twin of the reassembler: a map from each byte to its first copy. Right for segments that lie so close together
/// that no jump between them is too large for disorder.
class PlainReassembly {
public:
    explicit PlainReassembly(bool hasSYN) : begin_(hasSYN ? 0 : farAway), hasSYN_(hasSYN) {}

    void add(const SegmentStep& step, std::int64_t packetId)
    {
        if (step.isReset || step.payload.empty()) return;
        if (!hasSYN_) begin_ = std::min<std::int64_t>(begin_, step.offset);
        if (step.captured > 0) end_ = std::max(end_, step.offset + step.captured);
        for (std::int64_t i = 0; i < step.captured; ++i) {
            if (hasSYN_ && step.offset + i < 0) continue;
            const auto [first, isFirst] = bytes_.try_emplace(step.offset + i, Byte{step.payload[static_cast<std::size_t>(i)], packetId});
            if (!isFirst) contradicting_ += first->second.value != step.payload[static_cast<std::size_t>(i)];
        }
    }

    /// What the reassembler got wrong, in words; nothing when it agrees. `time` gives a packet's time.
    std::optional<std::string> difference(const TCPStream& stream, const StreamMeasures& measures, auto&& time) const
    {
        const StreamData& data = stream.clientToServerData;
        const std::int64_t size = std::max<std::int64_t>(end_ - begin_, 0);
        if (data.size() != size || measures.clientBytes != size)
            return fmt::format("size {}, measured {}, expected {}", data.size(), measures.clientBytes, size);
        std::vector<std::uint8_t> gathered(static_cast<std::size_t>(size));
        data.copy(0, gathered);
        std::int64_t missing = 0;
        ByteLocation all;
        PacketIdCollector packets(all.packetIds);
        for (std::int64_t offset = 0; offset < size; ++offset) {
            const auto byte = bytes_.find(begin_ + offset);
            const bool isLost = byte == bytes_.end();
            missing += isLost;
            if (gathered[static_cast<std::size_t>(offset)] != (isLost ? 0 : byte->second.value)) return fmt::format("byte {}", offset);
            const ByteLocation location = stream.locate({offset, offset + 1}, TCPSegment::Direction::clientToServer);
            if (isLost != location.packetIds.empty()) return fmt::format("byte {} lost or not", offset);
            if (isLost) continue;
            if (location.packetIds != std::vector{byte->second.packetId}) return fmt::format("packet of byte {}", offset);
            if (location.timestamp != time(byte->second.packetId)) return fmt::format("time of byte {}", offset);
            packets.add(byte->second.packetId);
            all.timestamp = std::min(all.timestamp.value_or(*location.timestamp), *location.timestamp);
        }
        std::vector<DataView> stretches;
        for (std::int64_t offset = 0; offset < size; offset += 1 + size / 64) {
            data.findStretches(offset, 100, stretches);
            const ScatteredView found(stretches);
            if (found.size() != std::min<std::int64_t>(100, size - offset)) return fmt::format("size of the stretches at {}", offset);
            std::vector<std::uint8_t> bytes(static_cast<std::size_t>(found.size()));
            found.copy(bytes);
            if (DataView(bytes) != DataView(gathered).sub(offset, 100)) return fmt::format("stretches at {}", offset);
            if (data.stretch(offset).u8(0) != gathered[static_cast<std::size_t>(offset)]) return fmt::format("stretch at {}", offset);
        }
        if (!(stream.locate({0, size}, TCPSegment::Direction::clientToServer) == all)) return "packets of all bytes";
        if (measures.missingBytes != missing) return fmt::format("missing {}, expected {}", measures.missingBytes, missing);
        if (measures.contradictingBytes != contradicting_)
            return fmt::format("contradicting {}, expected {}", measures.contradictingBytes, contradicting_);
        if (measures.restarts != 0) return fmt::format("restarts {}", measures.restarts);
        return std::nullopt;
    }

private:
    struct Byte {
        std::uint8_t value = 0;
        std::int64_t packetId = 0;
    };
    static constexpr std::int64_t farAway = std::int64_t{1} << 60;

    std::map<std::int64_t, Byte> bytes_;
    std::int64_t begin_;
    std::int64_t end_ = -farAway;
    std::int64_t contradicting_ = 0;
    bool hasSYN_;
};

/// Gives the steps to the reassembler and to its twin, and says where they differ.
inline std::optional<std::string> differenceFromPlain(std::span<const SegmentStep> steps, bool hasSYN, std::uint32_t initialSequenceNumber)
{
    const auto time = [](std::int64_t packetId) { return 1'000.0 + static_cast<double>(packetId); };
    ScriptedCapture capture;
    PlainReassembly plain(hasSYN);
    std::int64_t packetId = 0;
    TCPPacket packet{.source = testEndpoint(1, 50'000), .destination = testEndpoint(2, 443)};
    if (hasSYN) {
        packet.sequenceNumber = initialSequenceNumber;
        packet.flags = TCPFlag::syn;
        packetId = capture.add(packet, {}, time(1));
    }
    for (const SegmentStep& step : steps) {
        packet.sequenceNumber = initialSequenceNumber + 1 + static_cast<std::uint32_t>(step.offset);
        // Pushed, so that a lone byte with other content contradicts.
        packet.flags = step.isReset ? TCPFlag::rst : TCPFlag::ack | TCPFlag::psh;
        packetId = capture.add(packet, step.payload, time(packetId + 1), step.captured);
        plain.add(step, packetId);
    }
    if (capture.index().size() == 0) return std::nullopt;
    return plain.difference(capture.stream(), capture.measures(), time);
}

}  // namespace sealscope
