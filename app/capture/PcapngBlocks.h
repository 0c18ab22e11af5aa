// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/capture/ByteOrder.h"
#include "app/capture/CaptureInput.h"
#include "app/capture/PcapReader.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace sealscope {

/// Numbers of the pcapng format (draft-ietf-opsawg-pcapng) that reading and writing share.
namespace Pcapng {
inline constexpr std::uint32_t sectionHeader = 0x0a0d'0d0a, interfaceDescription = 1, packetBlock = 2, simplePacket = 3, enhancedPacket = 6,
                               decryptionSecrets = 10;
inline constexpr std::uint32_t byteOrderMagic = 0x1a2b'3c4d;
inline constexpr std::uint32_t tlsKeyLog = 0x544c'534b;  ///< secrets type of key log text
inline constexpr std::uint16_t endOfOptions = 0, timeResolution = 9, timeOffset = 14;
inline constexpr std::int64_t blockHeaderLength = 8;  ///< type (4), total length (4)
inline constexpr std::int64_t shortestBlock = 12;     ///< with the total length once more at the end
inline constexpr bool isPacket(std::uint32_t type) { return type == enhancedPacket || type == simplePacket || type == packetBlock; }
}  // namespace Pcapng

/// Reads the blocks of a file in the pcapng format: several sections, each in a byte order of its own.
class PcapngBlocks {
public:
    /// Finds the block at the input's position, with its header at `input.data()`. False at the end, and at damage that leaves no
    /// way to go on, with its place and reason in `damage()`.
    bool find(CaptureInput& input)
    {
        position_ = input.position();
        if (!input.require(Pcapng::shortestBlock)) [[unlikely]]
            return failAtEnd(input);
        type_ = order_.u32(input.data());
        if (!isInSection_ || type_ == Pcapng::sectionHeader) [[unlikely]]
            if (!findSection(input)) return false;
        length_ = order_.u32(input.data() + 4);
        return length_ >= Pcapng::shortestBlock || failTooShort(input);
    }
    // Of the block that was found.
    std::uint32_t type() const { return type_; }
    std::int64_t length() const { return length_; }
    std::int64_t position() const { return position_; }
    ByteOrder order() const { return order_; }
    /// Fewest bytes that a block of its type has.
    std::int64_t shortestLength() const
    {
        switch (type_) {
        case Pcapng::packetBlock:
        case Pcapng::enhancedPacket: return shortestEnhanced;
        case Pcapng::simplePacket: return shortestSimple;
        case Pcapng::sectionHeader: return shortestSection;
        case Pcapng::interfaceDescription: return shortestInterface;
        default: return Pcapng::shortestBlock;
        }
    }

    /// Has the whole block at `input.data()`. False at damage.
    bool gather(CaptureInput& input)
    {
        const std::int64_t most = Pcapng::isPacket(type_) ? longestPacket + mostOptions : mostOptions;
        if (length_ > most || !input.require(length_) || input.isSuspicious()) [[unlikely]]
            if (!gatherWithCare(input, most)) return false;
        const std::int64_t again = order_.u32(input.data() + length_ - 4);
        return again == length_ || failDiffering(input, again);
    }
    /// Goes on behind the block, of which any part may have been consumed; it is never needed in one place. False at damage.
    bool leave(CaptureInput& input);

    const std::optional<ReadError>& damage() const { return damage_; }

private:
    static constexpr std::int64_t shortestSection = 28;    // magic (4), version (4), section length (8)
    static constexpr std::int64_t shortestInterface = 20;  // link type (2), reserved (2), snapshot length (4)
    static constexpr std::int64_t shortestEnhanced = 32;   // interface (4), time (8), captured length (4), original length (4)
    static constexpr std::int64_t shortestSimple = 16;     // original length (4)
    /// Options are short texts and numbers; so many bytes of them are more than any program writes. Secrets and what is not
    /// known are never needed in one place, so they may have any length.
    static constexpr std::int64_t mostOptions = 16 << 20;

    bool findSection(CaptureInput& input);
    bool gatherWithCare(CaptureInput& input, std::int64_t most);
    // Each notes what is wrong; always false.
    bool fail(CaptureInput& input, const ReadError& error);
    bool failAtEnd(CaptureInput& input);
    bool failTooShort(CaptureInput& input);
    bool failCut(CaptureInput& input);
    bool failDiffering(CaptureInput& input, std::int64_t again);

    ByteOrder order_;
    bool isInSection_ = false;
    std::uint32_t type_ = 0;
    std::int64_t length_ = 0;
    std::int64_t position_ = 0;
    std::optional<ReadError> damage_;
};

}  // namespace sealscope
