// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/capture/ByteOrder.h"
#include "app/capture/CaptureInput.h"
#include "app/capture/CapturedPacket.h"

#include <optional>
#include <string>
#include <vector>

namespace sealscope {

/// Numbers of the pcapng format (draft-ietf-opsawg-pcapng) that reading and writing share.
namespace Pcapng {
inline constexpr std::uint32_t sectionHeader = 0x0a0d'0d0a, interfaceDescription = 1, packetBlock = 2, simplePacket = 3, enhancedPacket = 6,
                               decryptionSecrets = 10;
inline constexpr std::uint32_t byteOrderMagic = 0x1a2b'3c4d;
inline constexpr std::uint32_t tlsKeyLog = 0x544c'534b;  ///< secrets type of key log text
inline constexpr std::uint16_t endOfOptions = 0, timeResolution = 9, timeOffset = 14;
inline constexpr std::size_t mostInterfaces = 1 << 16;  ///< of a section; more than any machine has
/// Longest block whose bytes are looked at as a whole, and most key log text of a file: key logs can be long.
inline constexpr std::int64_t longestBlock = 256 << 20;
}  // namespace Pcapng

/// Reads a file in the pcapng format: several sections, each in a byte order of its own, with several interfaces.
class PcapngReader {
public:
    /// True for a file that begins with `head` (4 bytes).
    static bool recognises(DataView head);

    /// The next packet. False at the end, and at damage that leaves no way to go on, with its place and reason in `damage()`.
    bool next(CaptureInput& input, CapturedPacket& packet);

    const std::string& damage() const { return damage_; }
    /// Blocks that contradict themselves and were passed over: how many, and of the first its place and reason.
    struct PassedOver {
        std::int64_t count = 0;
        std::string reason;
        std::int64_t packetsBefore = 0;
    };
    const PassedOver& passedOver() const { return passedOver_; }
    ByteOrder byteOrder() const { return order_; }
    /// Key log text of the decryption secrets blocks so far, in order.
    const std::string& keyLog() const { return keyLog_; }

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

    bool readSection(CaptureInput& input);
    bool skipBlock(CaptureInput& input, std::int64_t length);
    void readInterface(const CaptureInput& input, DataView body);
    void readSecrets(const CaptureInput& input, DataView body);
    bool readPacket(CaptureInput& input, std::uint32_t type, std::int64_t length, CapturedPacket& packet);
    bool passOver(const CaptureInput& input, const std::string& reason);
    /// Notes what is wrong with the block at a position (of the input, when none is given); always false.
    bool fail(CaptureInput& input, const std::string& reason, std::optional<std::int64_t> at = {});

    ByteOrder order_;
    bool isInSection_ = false;
    std::vector<Interface> interfaces_;
    std::string keyLog_;
    std::string damage_;
    PassedOver passedOver_;
    std::int64_t packets_ = 0;
};

}  // namespace sealscope
