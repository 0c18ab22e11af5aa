// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/capture/CaptureInput.h"
#include "app/capture/CapturedPacket.h"
#include "app/capture/PcapngBlocks.h"
#include "platform/SecretMemory.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace sealscope {

/// Reads the packets and secrets of a file in the pcapng format.
class PcapngReader {
public:
    /// True for a file that begins with `head` (4 bytes).
    static bool recognises(DataView head);

    /// The next packet. False at the end, and at damage that leaves no way to go on, with its place and reason in `damage()`.
    bool next(CaptureInput& input, CapturedPacket& packet);

    /// A reader that goes on like this one, for pieces of the file ahead. It ends before any block that changes how those behind it
    /// are read, brings secrets, or contradicts itself.
    PcapngReader ahead() const;
    /// The offset from `from` on, before `to`, at which a packet's block seems to begin; negative when there is none. Another packet
    /// may look like one inside.
    std::int64_t findPacket(DataView file, std::int64_t from, std::int64_t to) const;
    /// Changes whenever readers made by `ahead` before would read differently.
    std::int64_t generation() const { return generation_; }
    /// Counts packets that were read ahead.
    void addPackets(std::int64_t packets) { packets_ += packets; }

    const std::optional<ReadError>& damage() const { return blocks_.damage(); }
    /// Blocks that contradict themselves and were passed over: how many, and what is wrong with the first.
    struct PassedOver {
        std::int64_t count = 0;
        ReadError first = {};
        std::int64_t packetsBefore = 0;
    };
    const PassedOver& passedOver() const { return passedOver_; }
    ByteOrder byteOrder() const { return blocks_.order(); }
    /// Key log text of the decryption secrets blocks since it was taken last, in order.
    SecretText takeKeyLog() { return std::exchange(keyLog_, {}); }

private:
    struct Interface {
        bool isDescribed = false;
        std::uint32_t linkType = 0;
        std::uint32_t snapLength = 0;  ///< 0 for none
        std::int64_t timeOffset = 0;   ///< seconds
        std::uint64_t resolution = 1'000'000;
        /// A unit too fine for 64 bits is made coarser: time stamps are divided by this (0: shifted out altogether).
        std::uint64_t coarsening = 1;
        CaptureTime time(std::uint64_t stamp) const;
    };

    bool readOther(CaptureInput& input);
    void readInterface(DataView body);
    bool readSecrets(CaptureInput& input);
    bool readPacket(const CaptureInput& input, CapturedPacket& packet);
    /// Notes what is wrong with the block that was found; always false.
    bool passOver(const ReadError& error);

    PcapngBlocks blocks_;
    std::vector<Interface> interfaces_;
    SecretText keyLog_;
    std::int64_t keyLogSize_ = 0;  ///< taken text included
    PassedOver passedOver_;
    std::int64_t packets_ = 0;
    std::int64_t generation_ = 0;
    bool isAhead_ = false;
};

}  // namespace sealscope
