// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/capture/ByteOrder.h"
#include "app/capture/CaptureInput.h"
#include "app/capture/CapturedPacket.h"

#include <optional>

namespace sealscope {

/// More captured bytes than any packet has. A packet that announces more is damage.
inline constexpr std::int64_t longestPacket = 32 << 20;

/// Reads a file in the classic pcap format (draft-ietf-opsawg-pcap), in either byte order: microseconds, nanoseconds, and the
/// modified variant whose packet headers name an interface.
class PcapReader {
public:
    /// A reader for a file that begins with `head` (4 bytes); nothing when that is another format.
    static std::optional<PcapReader> recognise(DataView head);

    /// Reads the file header. False with the reason in `damage()`.
    bool begin(CaptureInput& input);
    /// The next packet. False at the end, and at damage with its place and reason in `damage()`.
    bool next(CaptureInput& input, CapturedPacket& packet);

    // As those of `PcapngReader`. Nothing in a file changes how what follows is read.
    PcapReader ahead() const { return *this; }
    std::int64_t findPacket(DataView file, std::int64_t from, std::int64_t to) const;
    std::int64_t generation() const { return 0; }
    void addPackets(std::int64_t) {}

    const std::optional<ReadError>& damage() const { return damage_; }
    ByteOrder byteOrder() const { return order_; }
    // Of the file header, once it was read.
    std::uint32_t linkType() const { return linkType_; }
    std::uint32_t snapLength() const { return snapLength_; }
    std::uint8_t decimals() const { return resolution_ == 1'000'000 ? 6 : 9; }  ///< digits of a second that times have

private:
    /// Notes what is wrong with the packet at the input's position, or with the file; always false.
    bool fail(CaptureInput& input, const ReadError& error);
    bool refuse(CaptureInput& input, const ReadError& error);

    ByteOrder order_;
    std::int64_t packetHeaderLength_ = 16;
    std::uint64_t resolution_ = 1'000'000;
    std::uint32_t linkType_ = 0;
    std::uint32_t snapLength_ = 0;
    bool mayHaveLengthsSwapped_ = false;
    std::optional<ReadError> damage_;
};

}  // namespace sealscope
