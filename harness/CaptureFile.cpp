// SPDX-License-Identifier: Apache-2.0
#include "harness/CaptureFile.h"

#include <algorithm>
#include <bit>
#include <stdexcept>

namespace sealscope {

namespace {

constexpr std::int64_t nanosecondsASecond = 1'000'000'000;
__extension__ using Wide = unsigned __int128;  // nanoseconds times 2^63 units a second fit

template <class Integer> void append(std::vector<std::uint8_t>& bytes, Integer value, std::endian order)
{
    if (order != std::endian::native) value = std::byteswap(value);
    const auto* raw = reinterpret_cast<const std::uint8_t*>(&value);
    bytes.insert(bytes.end(), raw, raw + sizeof value);
}

}  // namespace

PcapBuilder::PcapBuilder(std::uint32_t linkType, PcapFormat format) : format_(format)
{
    const auto put = [&](auto value) { append(bytes_, value, format_.order); };
    put(std::uint32_t{format_.isModified ? 0xA1B2CD34 : format_.hasNanoseconds ? 0xA1B23C4D : 0xA1B2C3D4});
    put(std::uint16_t{2});
    put(std::uint16_t{4});
    put(std::uint64_t{0});
    put(format_.snapLength);
    put(linkType);
}

PcapBuilder& PcapBuilder::packet(const CapturePacket& packet)
{
    const auto put = [&](auto value) { append(bytes_, value, format_.order); };
    const std::int64_t units = packet.time % nanosecondsASecond;
    put(static_cast<std::uint32_t>(packet.time / nanosecondsASecond));
    put(static_cast<std::uint32_t>(format_.hasNanoseconds && !format_.isModified ? units : units / 1'000));
    put(static_cast<std::uint32_t>(packet.frame.size()));
    put(static_cast<std::uint32_t>(packet.originalLength));
    if (format_.isModified) {
        put(std::uint32_t{1});       // interface
        put(std::uint16_t{0x0008});  // protocol
        put(std::uint16_t{0});       // packet type, padding
    }
    bytes_.insert(bytes_.end(), packet.frame.view().begin(), packet.frame.view().end());
    return *this;
}

Data pcapFile(const std::vector<CapturePacket>& packets, PcapFormat format)
{
    PcapBuilder builder(packets.empty() ? 1 : packets.front().linkType, format);
    for (const CapturePacket& packet : packets) builder.packet(packet);
    return Data(DataView(builder.bytes()));
}

template <class Integer> void PcapngBuilder::put(Integer value) { append(bytes_, value, order_); }

/// A block has its length in front and behind; both are filled in at its end.
std::size_t PcapngBuilder::begin(std::uint32_t type)
{
    const std::size_t start = bytes_.size();
    put(type);
    put(std::uint32_t{0});
    return start;
}

void PcapngBuilder::end(std::size_t start)
{
    pad();
    put(static_cast<std::uint32_t>(bytes_.size() - start + 4));
    std::copy(bytes_.end() - 4, bytes_.end(), bytes_.begin() + static_cast<std::ptrdiff_t>(start + 4));
}

// Blocks begin at multiples of 4, also when earlier ones have been written out and forgotten.
void PcapngBuilder::pad() { bytes_.resize((bytes_.size() + 3) / 4 * 4); }

PcapngBuilder& PcapngBuilder::section(std::endian order)
{
    order_ = order;
    interfaces_.clear();
    const std::size_t start = begin(0x0A0D0D0A);
    put(std::uint32_t{0x1A2B3C4D});
    put(std::uint16_t{1});
    put(std::uint16_t{0});
    put(std::int64_t{-1});  // length not given
    end(start);
    return *this;
}

PcapngBuilder& PcapngBuilder::interface(Interface description)
{
    interfaces_.push_back(description);
    const std::size_t start = begin(1);
    put(static_cast<std::uint16_t>(description.linkType));
    put(std::uint16_t{0});
    put(description.snapLength);
    if (description.resolution != 6) {
        put(std::uint16_t{9});
        put(std::uint16_t{1});
        bytes_.push_back(description.resolution);
        pad();
    }
    if (description.offset != 0) {
        put(std::uint16_t{14});
        put(std::uint16_t{8});
        put(description.offset);
    }
    if (description.resolution != 6 || description.offset != 0) put(std::uint32_t{0});  // end of options
    end(start);
    return *this;
}

std::uint64_t PcapngBuilder::units(std::int64_t time, std::size_t interface) const
{
    if (interface >= interfaces_.size()) throw std::runtime_error("the section has no interface " + std::to_string(interface));
    const Interface& description = interfaces_[interface];
    const std::int64_t seconds = time / nanosecondsASecond - description.offset;
    const auto nanoseconds = static_cast<Wide>(time % nanosecondsASecond);
    std::uint64_t resolution = 1;
    if ((description.resolution & 0x80) != 0)
        resolution <<= description.resolution & 0x7F;
    else
        for (int digit = 0; digit < description.resolution; ++digit) resolution *= 10;
    return static_cast<std::uint64_t>(seconds) * resolution + static_cast<std::uint64_t>(nanoseconds * resolution / nanosecondsASecond);
}

PcapngBuilder& PcapngBuilder::endPacket(std::size_t start, std::uint64_t time, const CapturePacket& packet)
{
    put(static_cast<std::uint32_t>(time >> 32));
    put(static_cast<std::uint32_t>(time));
    put(static_cast<std::uint32_t>(packet.frame.size()));
    put(static_cast<std::uint32_t>(packet.originalLength));
    bytes_.insert(bytes_.end(), packet.frame.view().begin(), packet.frame.view().end());
    end(start);
    return *this;
}

PcapngBuilder& PcapngBuilder::packet(const CapturePacket& packet, std::uint32_t interface)
{
    const std::uint64_t time = units(packet.time, interface);
    const std::size_t start = begin(6);
    put(interface);
    return endPacket(start, time, packet);
}

PcapngBuilder& PcapngBuilder::simplePacket(const CapturePacket& packet)
{
    const std::size_t start = begin(3);
    put(static_cast<std::uint32_t>(packet.originalLength));
    bytes_.insert(bytes_.end(), packet.frame.view().begin(), packet.frame.view().end());
    end(start);
    return *this;
}

PcapngBuilder& PcapngBuilder::obsoletePacket(const CapturePacket& packet, std::uint16_t interface)
{
    const std::uint64_t time = units(packet.time, interface);
    const std::size_t start = begin(2);
    put(interface);
    put(std::uint16_t{0xFFFF});  // drops are not known
    return endPacket(start, time, packet);
}

PcapngBuilder& PcapngBuilder::secrets(std::string_view keyLog)
{
    constexpr std::uint32_t tlsKeyLog = 0x544C534B;
    const std::size_t start = begin(10);
    put(tlsKeyLog);
    put(static_cast<std::uint32_t>(keyLog.size()));
    bytes_.insert(bytes_.end(), keyLog.begin(), keyLog.end());
    end(start);
    return *this;
}

PcapngBuilder& PcapngBuilder::block(std::uint32_t type, DataView body)
{
    const std::size_t start = begin(type);
    bytes_.insert(bytes_.end(), body.begin(), body.end());
    end(start);
    return *this;
}

Data pcapngFile(const std::vector<CapturePacket>& packets, const PcapngContents& contents)
{
    PcapngBuilder builder(contents.order);
    std::vector<std::uint32_t> linkTypes;
    for (const CapturePacket& packet : packets) {
        if (std::ranges::find(linkTypes, packet.linkType) != linkTypes.end()) continue;
        linkTypes.push_back(packet.linkType);
        builder.interface({.linkType = packet.linkType, .resolution = contents.resolution});
    }
    if (!contents.secretsBefore.empty()) builder.secrets(contents.secretsBefore);
    for (const CapturePacket& packet : packets)
        builder.packet(packet, static_cast<std::uint32_t>(std::ranges::find(linkTypes, packet.linkType) - linkTypes.begin()));
    if (!contents.secretsAfter.empty()) builder.secrets(contents.secretsAfter);
    return builder.data();
}

}  // namespace sealscope
