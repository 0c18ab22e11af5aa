// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "harness/PacketPath.h"

#include <bit>
#include <string>
#include <string_view>
#include <vector>

namespace sealscope {

/// The variants of the classic format (draft-ietf-opsawg-pcap).
struct PcapFormat {
    std::endian order = std::endian::little;
    bool hasNanoseconds = false;
    bool isModified = false;  ///< magic number a1b2cd34, eight more bytes a packet
    std::uint32_t snapLength = 262'144;
};

/// Writes a capture in the classic format packet by packet.
class PcapBuilder {
public:
    explicit PcapBuilder(std::uint32_t linkType, PcapFormat format = {});
    PcapBuilder& packet(const CapturePacket& packet);
    const std::vector<std::uint8_t>& bytes() const { return bytes_; }
    /// Forgets what was written so far, so that a large file can be written piece by piece.
    void clear() { bytes_.clear(); }

private:
    PcapFormat format_;
    std::vector<std::uint8_t> bytes_;
};
/// A capture in the classic format; its link type is that of the first packet.
Data pcapFile(const std::vector<CapturePacket>& packets, PcapFormat format = {});

/// Writes blocks of a pcapng capture one after another (draft-ietf-opsawg-pcapng). Interfaces count from 0 in each section.
class PcapngBuilder {
public:
    struct Interface {
        std::uint32_t linkType = 1;
        std::uint32_t snapLength = 0;  ///< 0: no limit
        /// Option if_tsresol: units a second are 10^n, or 2^n with the highest bit set. 6 is written by leaving it out.
        std::uint8_t resolution = 6;
        std::int64_t offset = 0;  ///< option if_tsoffset: seconds to be added to each time
    };

    explicit PcapngBuilder(std::endian order = std::endian::little) { section(order); }

    PcapngBuilder& section(std::endian order);
    PcapngBuilder& interface(Interface description);
    PcapngBuilder& packet(const CapturePacket& packet, std::uint32_t interface = 0);
    /// Without time and interface; the first interface's snapshot length bounds it.
    PcapngBuilder& simplePacket(const CapturePacket& packet);
    PcapngBuilder& obsoletePacket(const CapturePacket& packet, std::uint16_t interface = 0);
    /// A Decryption Secrets Block with a TLS key log.
    PcapngBuilder& secrets(std::string_view keyLog);
    /// Any block; the body is padded to a multiple of 4 bytes.
    PcapngBuilder& block(std::uint32_t type, DataView body);

    const std::vector<std::uint8_t>& bytes() const { return bytes_; }
    Data data() const { return Data(DataView(bytes_)); }
    void clear() { bytes_.clear(); }

private:
    template <class Integer> void put(Integer value);
    std::size_t begin(std::uint32_t type);
    void end(std::size_t start);
    /// What packet blocks that know the time share, from the time on.
    PcapngBuilder& endPacket(std::size_t start, std::uint64_t time, const CapturePacket& packet);
    void pad();
    std::uint64_t units(std::int64_t time, std::size_t interface) const;

    std::vector<std::uint8_t> bytes_;
    std::vector<Interface> interfaces_;
    std::endian order_ = std::endian::little;
};

/// A capture of one section with an interface for each link type, and secrets before or after the packets.
struct PcapngContents {
    std::string secretsBefore;
    std::string secretsAfter;
    std::endian order = std::endian::little;
    std::uint8_t resolution = 9;
};
Data pcapngFile(const std::vector<CapturePacket>& packets, const PcapngContents& contents = {});

}  // namespace sealscope
