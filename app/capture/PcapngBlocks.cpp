// SPDX-License-Identifier: Apache-2.0
#include "app/capture/PcapngBlocks.h"

#include "app/capture/PcapReader.h"

#include <fmt/format.h>

namespace sealscope {
namespace {

constexpr std::int64_t shortestSection = 28;    // magic (4), version (4), section length (8)
constexpr std::int64_t shortestInterface = 20;  // link type (2), reserved (2), snapshot length (4)
constexpr std::int64_t shortestEnhanced = 32;   // interface (4), time (8), captured length (4), original length (4)
constexpr std::int64_t shortestSimple = 16;     // original length (4)

/// Options are short texts and numbers; so many bytes of them are more than any program writes. Secrets and what is not known
/// are never needed in one place, so they may have any length.
constexpr std::int64_t mostOptions = 16 << 20;

}  // namespace

const char* PcapngBlocks::name() const
{
    switch (type_) {
    case Pcapng::sectionHeader: return "a Section Header Block";
    case Pcapng::interfaceDescription: return "an Interface Description Block";
    case Pcapng::packetBlock: return "a Packet Block";
    case Pcapng::simplePacket: return "a Simple Packet Block";
    case Pcapng::enhancedPacket: return "an Enhanced Packet Block";
    case Pcapng::decryptionSecrets: return "a Decryption Secrets Block";
    default: return "a block";
    }
}

std::int64_t PcapngBlocks::shortestLength() const
{
    switch (type_) {
    case Pcapng::sectionHeader: return shortestSection;
    case Pcapng::interfaceDescription: return shortestInterface;
    case Pcapng::packetBlock:
    case Pcapng::enhancedPacket: return shortestEnhanced;
    case Pcapng::simplePacket: return shortestSimple;
    default: return Pcapng::shortestBlock;
    }
}

bool PcapngBlocks::find(CaptureInput& input)
{
    position_ = input.position();
    if (!input.require(Pcapng::shortestBlock)) [[unlikely]] {
        if (input.available() == 0 && input.failure().empty()) return false;
        return fail(input, fmt::format("the file ends after {} bytes of it", input.available()));
    }
    type_ = order_.u32(input.data());
    if (type_ == Pcapng::sectionHeader && !findSection(input)) return false;  // reads the same in either byte order
    if (!isInSection_) return fail(input, "no section header stands before it");
    length_ = order_.u32(input.data() + 4);
    if (length_ < Pcapng::shortestBlock) [[unlikely]]
        return fail(input, fmt::format("length {} is too short for {} ({})", length_, name(), shortestLength()));
    return true;
}

bool PcapngBlocks::findSection(CaptureInput& input)
{
    for (const ByteOrder order : {ByteOrder{false}, ByteOrder{true}}) {
        if (order.u32(input.data() + Pcapng::blockHeaderLength) != Pcapng::byteOrderMagic) continue;
        if (!input.require(16)) return fail(input, fmt::format("the file ends after {} bytes of a section header", input.available()));
        order_ = order;
        const std::uint16_t major = order.u16(input.data() + 12), minor = order.u16(input.data() + 14);
        if (major != 1) return fail(input, fmt::format("pcapng version {}.{} is not known", major, minor));
        const std::int64_t length = order.u32(input.data() + 4);
        if (length < shortestSection)
            return fail(input, fmt::format("length {} is too short for a Section Header Block ({})", length, shortestSection));
        isInSection_ = true;
        return true;
    }
    return fail(input, "a section header without its byte-order magic");
}

bool PcapngBlocks::gather(CaptureInput& input)
{
    const std::int64_t most = Pcapng::isPacket(type_) ? longestPacket + mostOptions : mostOptions;
    if (length_ > most) [[unlikely]]
        return fail(input, fmt::format("it announces {} bytes, more than {} can have", length_, name()));
    if (!input.require(length_)) [[unlikely]]
        return failCut(input);
    if (input.isSuspicious() && !input.verify()) [[unlikely]]
        return fail(input, {});
    if (const std::int64_t again = order_.u32(input.data() + length_ - 4); again != length_) [[unlikely]]
        return fail(input, fmt::format("its two lengths differ ({} and {})", length_, again));
    return true;
}

bool PcapngBlocks::leave(CaptureInput& input)
{
    if (!input.skip(position_ + length_ - 4 - input.position()) || !input.require(4)) return failCut(input);
    if (input.isSuspicious() && !input.verify()) [[unlikely]]
        return fail(input, {});
    if (const std::int64_t again = order_.u32(input.data()); again != length_)
        return fail(input, fmt::format("its two lengths differ ({} and {})", length_, again));
    input.consume(4);
    return true;
}

bool PcapngBlocks::failCut(CaptureInput& input)
{
    const std::int64_t there = input.position() + input.available() - position_;
    return fail(input, fmt::format("the file ends after {} of its {} bytes", there, length_));
}

bool PcapngBlocks::fail(CaptureInput& input, const std::string& reason)
{
    input.verify();
    damage_ = !input.failure().empty() ? input.failure() : fmt::format("block at byte {}: {}", position_, reason);
    return false;
}

}  // namespace sealscope
