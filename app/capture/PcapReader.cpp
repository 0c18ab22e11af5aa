// SPDX-License-Identifier: Apache-2.0
#include "app/capture/PcapReader.h"

#include <cstdlib>
#include <utility>

namespace sealscope {
namespace {

constexpr std::int64_t fileHeaderLength = 24;
constexpr std::uint32_t microseconds = 0xa1b2'c3d4, nanoseconds = 0xa1b2'3c4d;
// Packet headers of 24 bytes: after the usual four fields interface (4), protocol (2), packet type (1), padding (1).
constexpr std::uint32_t modified = 0xa1b2'cd34;

}  // namespace

std::optional<PcapReader> PcapReader::recognise(DataView head)
{
    if (!head.holds(0, 4)) return std::nullopt;
    for (const ByteOrder order : {ByteOrder{false}, ByteOrder{true}}) {
        const std::uint32_t magic = order.u32(head.data());
        if (magic != microseconds && magic != nanoseconds && magic != modified) continue;
        PcapReader reader;
        reader.order_ = order;
        if (magic == nanoseconds) reader.resolution_ = 1'000'000'000;
        if (magic == modified) reader.packetHeaderLength_ = 24;
        return reader;
    }
    return std::nullopt;
}

bool PcapReader::begin(CaptureInput& input)
{
    if (!input.require(fileHeaderLength))
        return refuse(input, {.problem = ReadError::Problem::fileHeaderCut, .numbers = {input.available(), fileHeaderLength}});
    const std::uint8_t* const header = input.data();
    const std::uint16_t major = order_.u16(header + 4), minor = order_.u16(header + 6);
    if (major != 2) return refuse(input, {.problem = ReadError::Problem::pcapVersion, .numbers = {major, minor}});
    // Before version 2.3 the two lengths stood in the other order, and some writers of 2.3 kept to that.
    mayHaveLengthsSwapped_ = minor <= 3;
    snapLength_ = order_.u32(header + 16);
    linkType_ = order_.u32(header + 20) & 0xffff;  // the upper bits tell about the frame check sequence
    input.consume(fileHeaderLength);
    return true;
}

bool PcapReader::next(CaptureInput& input, CapturedPacket& packet)
{
    if (!input.require(packetHeaderLength_)) [[unlikely]] {
        if (input.available() == 0 && !input.failure()) return false;
        return fail(input, {.problem = ReadError::Problem::packetHeaderCut, .numbers = {input.available(), packetHeaderLength_}});
    }
    const std::uint8_t* header = input.data();
    std::int64_t captured = order_.u32(header + 8);
    std::int64_t original = order_.u32(header + 12);
    if (mayHaveLengthsSwapped_ && captured > original) [[unlikely]]
        std::swap(captured, original);
    if (captured > longestPacket) [[unlikely]]
        return fail(input, {.problem = ReadError::Problem::packetTooLong, .numbers = {captured, longestPacket}});
    if (!input.require(packetHeaderLength_ + captured)) [[unlikely]]
        return fail(input, {.problem = ReadError::Problem::isCut, .numbers = {input.available() - packetHeaderLength_, captured}});
    // Zeros read like an empty packet, and zeros are what stands where a file lost its end.
    if ((captured == 0 || input.isSuspicious()) && !input.verify()) [[unlikely]]
        return fail(input, {});

    header = input.data();
    packet.time = {order_.u32(header), order_.u32(header + 4), resolution_};
    if (packet.time.units >= resolution_) [[unlikely]] {
        packet.time.seconds += static_cast<std::int64_t>(packet.time.units / resolution_);
        packet.time.units %= resolution_;
    }
    packet.address = input.position() + packetHeaderLength_;
    packet.frame = {header + packetHeaderLength_, captured};
    packet.originalLength = std::max(captured, original);
    packet.linkType = linkType_;
    input.consume(packetHeaderLength_ + captured);
    input.announce();
    return true;
}

// A packet's header has nothing that only headers have. What tells it from other bytes is that its lengths fit each other, and that
// the headers behind it are such, too, of about the same time.
std::int64_t PcapReader::findPacket(DataView file, std::int64_t from, std::int64_t to) const
{
    constexpr int wanted = 4;
    constexpr std::int64_t mostSecondsBetween = 86'400;
    const auto mayBegin = [&](std::int64_t at) {
        std::int64_t before = -1;
        for (int i = 0; i < wanted && at < file.size(); ++i) {
            if (!file.holds(at, packetHeaderLength_)) return false;
            const std::uint8_t* const header = file.data() + at;
            const std::int64_t seconds = order_.u32(header), captured = order_.u32(header + 8), original = order_.u32(header + 12);
            if (captured == 0 || captured > longestPacket || original < captured || order_.u32(header + 4) >= resolution_) return false;
            if (before >= 0 && std::abs(seconds - before) > mostSecondsBetween) return false;
            before = seconds;
            at += packetHeaderLength_ + captured;
        }
        return before > 0 && at <= file.size();
    };
    for (std::int64_t at = from; at < to; ++at)
        if (mayBegin(at)) return at;
    return -1;
}

bool PcapReader::fail(CaptureInput& input, const ReadError& error)
{
    return refuse(input, error.at(ReadError::Unit::packet, input.position()));
}

bool PcapReader::refuse(CaptureInput& input, const ReadError& error)
{
    input.verify();
    damage_ = input.failure() ? input.failure() : error;
    return false;
}

}  // namespace sealscope
