// SPDX-License-Identifier: Apache-2.0
#include "app/capture/PcapngReader.h"

#include "app/capture/PcapReader.h"

#include <fmt/format.h>

namespace sealscope {
namespace {

constexpr std::int64_t blockHeaderLength = 8;   // type (4), total length (4)
constexpr std::int64_t shortestBlock = 12;      // with the total length once more at the end
constexpr std::int64_t shortestSection = 28;    // magic (4), version (4), section length (8)
constexpr std::int64_t shortestInterface = 20;  // link type (2), reserved (2), snapshot length (4)
constexpr std::int64_t shortestEnhanced = 32;   // interface (4), time (8), captured length (4), original length (4)
constexpr std::int64_t shortestSimple = 16;     // original length (4)
constexpr std::int64_t enhancedDataOffset = 28, simpleDataOffset = 12;

const char* blockName(std::uint32_t type)
{
    switch (type) {
    case Pcapng::sectionHeader: return "a Section Header Block";
    case Pcapng::interfaceDescription: return "an Interface Description Block";
    case Pcapng::packetBlock: return "a Packet Block";
    case Pcapng::simplePacket: return "a Simple Packet Block";
    case Pcapng::enhancedPacket: return "an Enhanced Packet Block";
    case Pcapng::decryptionSecrets: return "a Decryption Secrets Block";
    default: return "a block";
    }
}

std::int64_t shortestLength(std::uint32_t type)
{
    switch (type) {
    case Pcapng::sectionHeader: return shortestSection;
    case Pcapng::interfaceDescription: return shortestInterface;
    case Pcapng::packetBlock:
    case Pcapng::enhancedPacket: return shortestEnhanced;
    case Pcapng::simplePacket: return shortestSimple;
    default: return shortestBlock;
    }
}

}  // namespace

bool PcapngReader::recognises(DataView head) { return head.holds(0, 4) && head.u32(0) == Pcapng::sectionHeader; }

CaptureTime PcapngReader::Interface::time(std::uint64_t stamp) const
{
    if (coarsening != 1) [[unlikely]]
        stamp = coarsening ? stamp / coarsening : 0;
    // A division by a constant costs a fraction of one by a variable.
    const std::uint64_t seconds = resolution == 1'000'000       ? stamp / 1'000'000
                                  : resolution == 1'000'000'000 ? stamp / 1'000'000'000
                                                                : stamp / resolution;
    // Seconds of either part may be nonsense; their sum must not overflow.
    const std::uint64_t sum = seconds + static_cast<std::uint64_t>(timeOffset);
    return {static_cast<std::int64_t>(sum), stamp - seconds * resolution, resolution};
}

bool PcapngReader::next(CaptureInput& input, CapturedPacket& packet)
{
    for (;;) {
        if (!input.require(shortestBlock)) [[unlikely]] {
            if (input.available() == 0 && input.failure().empty()) return false;
            return fail(input, fmt::format("the file ends after {} bytes of it", input.available()));
        }
        const std::uint32_t type = order_.u32(input.data());
        if (type == Pcapng::sectionHeader && !readSection(input)) return false;  // reads the same in either byte order
        if (!isInSection_) return fail(input, "no section header stands before it");
        const std::int64_t length = order_.u32(input.data() + 4);
        const std::int64_t shortest = shortestLength(type);
        if (length < shortestBlock) [[unlikely]]
            return fail(input, fmt::format("length {} is too short for {} ({})", length, blockName(type), shortest));

        const bool isPacket = type == Pcapng::enhancedPacket || type == Pcapng::simplePacket || type == Pcapng::packetBlock;
        const bool isSection = type == Pcapng::sectionHeader, isInterface = type == Pcapng::interfaceDescription;
        const bool isSecrets = type == Pcapng::decryptionSecrets;
        if (!isPacket && !isSection && !isInterface && !isSecrets) {
            if (!skipBlock(input, length)) return false;
            continue;
        }
        if (length > (isPacket ? longestPacket + Pcapng::longestBlock / 16 : Pcapng::longestBlock)) [[unlikely]]
            return fail(input, fmt::format("it announces {} bytes, more than {} can have", length, blockName(type)));
        if (!input.require(length)) [[unlikely]]
            return fail(input, fmt::format("the file ends after {} of its {} bytes", input.available(), length));
        if (input.isSuspicious() && !input.verify()) [[unlikely]]
            return fail(input, {});
        if (const std::int64_t again = order_.u32(input.data() + length - 4); again != length) [[unlikely]]
            return fail(input, fmt::format("its two lengths differ ({} and {})", length, again));

        const DataView body(input.data() + blockHeaderLength, length - shortestBlock);
        bool hasPacket = false;
        if (length < shortest) [[unlikely]]
            passOver(input, fmt::format("length {} is too short for {} ({})", length, blockName(type), shortest));
        else if (isPacket)
            hasPacket = readPacket(input, type, length, packet);
        else if (isSecrets)
            readSecrets(input, body);
        // Also one that cannot be read counts, since interfaces are numbered by their places.
        if (isInterface) readInterface(input, length < shortest ? DataView() : body);
        input.consume(length);
        input.announce();
        if (!hasPacket) continue;
        ++packets_;
        return true;
    }
}

bool PcapngReader::skipBlock(CaptureInput& input, std::int64_t length)
{
    // It is never needed in one place, however long it is.
    const std::int64_t at = input.position();
    if (!input.skip(length - 4) || !input.require(4))
        return fail(input, fmt::format("the file ends after {} of its {} bytes", input.position() + input.available() - at, length), at);
    if (const std::int64_t again = order_.u32(input.data()); again != length)
        return fail(input, fmt::format("its two lengths differ ({} and {})", length, again), at);
    input.consume(4);
    return true;
}

bool PcapngReader::readSection(CaptureInput& input)
{
    const ByteOrder before = order_;
    for (const ByteOrder order : {ByteOrder{false}, ByteOrder{true}}) {
        if (order.u32(input.data() + blockHeaderLength) != Pcapng::byteOrderMagic) continue;
        order_ = order;
        if (!input.require(16)) return fail(input, fmt::format("the file ends after {} bytes of a section header", input.available()));
        const std::uint16_t major = order.u16(input.data() + 12), minor = order.u16(input.data() + 14);
        if (major != 1) return fail(input, fmt::format("pcapng version {}.{} is not known", major, minor));
        const std::int64_t length = order.u32(input.data() + 4);
        if (length < shortestSection)
            return fail(input, fmt::format("length {} is too short for a Section Header Block ({})", length, shortestSection));
        interfaces_.clear();
        isInSection_ = true;
        return true;
    }
    order_ = before;
    return fail(input, "a section header without its byte-order magic");
}

void PcapngReader::readInterface(const CaptureInput& input, DataView body)
{
    if (interfaces_.size() == Pcapng::mostInterfaces) {
        passOver(input, fmt::format("a section can have no more than {} interfaces", Pcapng::mostInterfaces));
        return;
    }
    Interface& interface = interfaces_.emplace_back();
    if (body.isEmpty()) return;
    interface.isDescribed = true;
    interface.linkType = order_.u16(body.data());
    interface.snapLength = order_.u32(body.data() + 4);
    for (std::int64_t at = 8; body.holds(at, 4);) {
        const std::uint16_t code = order_.u16(body.data() + at), length = order_.u16(body.data() + at + 2);
        const DataView value = body.sub(at + 4, length);
        if (code == Pcapng::endOfOptions || value.size() < length) break;
        if (code == Pcapng::timeResolution && length >= 1) {
            // A power of 2 with the high bit set, else of 10; as far as 64 bits go.
            const bool isBinary = value[0] & 0x80;
            const int exponent = value[0] & 0x7f, greatest = isBinary ? 63 : 19;
            const std::uint64_t base = isBinary ? 2 : 10;
            interface.resolution = interface.coarsening = 1;
            for (int i = 0; i < std::min(exponent, greatest); ++i) interface.resolution *= base;
            for (int i = greatest; i < exponent; ++i) interface.coarsening = i - greatest < greatest ? interface.coarsening * base : 0;
        }
        if (code == Pcapng::timeOffset && length >= 8) interface.timeOffset = static_cast<std::int64_t>(order_.u64(value.data()));
        at += 4 + (length + 3) / 4 * 4;
    }
}

void PcapngReader::readSecrets(const CaptureInput& input, DataView body)
{
    if (body.size() < 8) {
        passOver(input, "it is too short for decryption secrets");
        return;
    }
    const std::uint32_t type = order_.u32(body.data());
    const std::int64_t length = order_.u32(body.data() + 4);
    if (type != Pcapng::tlsKeyLog) return;
    const DataView text = body.sub(8, length);
    if (text.size() + static_cast<std::int64_t>(keyLog_.size()) > Pcapng::longestBlock) {
        passOver(input, fmt::format("with those before it, its secrets are more than {} bytes", Pcapng::longestBlock));
        return;
    }
    if (text.size() < length) passOver(input, fmt::format("it announces {} bytes of secrets, but has room for {}", length, text.size()));
    keyLog_ += text.text();
    if (!keyLog_.empty() && keyLog_.back() != '\n') keyLog_ += '\n';
}

bool PcapngReader::readPacket(CaptureInput& input, std::uint32_t type, std::int64_t length, CapturedPacket& packet)
{
    const std::uint8_t* const block = input.data();
    std::uint32_t interface = 0;
    std::int64_t captured = 0, original = 0, dataOffset = enhancedDataOffset;
    std::uint64_t stamp = 0;
    if (type == Pcapng::simplePacket) [[unlikely]] {
        dataOffset = simpleDataOffset;
        original = order_.u32(block + 8);
        const std::uint32_t snapLength = interfaces_.empty() ? 0 : interfaces_.front().snapLength;
        // It has no captured length of its own: the snapshot length and the padding to four bytes decide.
        captured = std::min(original, length - shortestSimple);
        if (snapLength != 0) captured = std::min<std::int64_t>(captured, snapLength);
    } else {
        interface = type == Pcapng::enhancedPacket ? order_.u32(block + 8) : order_.u16(block + 8);
        stamp = static_cast<std::uint64_t>(order_.u32(block + 12)) << 32 | order_.u32(block + 16);
        captured = order_.u32(block + 20);
        original = order_.u32(block + 24);
    }
    if (interface >= interfaces_.size() || !interfaces_[interface].isDescribed) [[unlikely]]
        return passOver(input, fmt::format("interface {} is not described (its section has {})", interface, interfaces_.size()));
    if (captured > length - 4 - dataOffset) [[unlikely]]
        return passOver(input, fmt::format("it announces {} captured bytes, but has room for {}", captured, length - 4 - dataOffset));

    packet.time = type == Pcapng::simplePacket ? CaptureTime{} : interfaces_[interface].time(stamp);
    packet.address = input.position() + dataOffset;
    packet.frame = {block + dataOffset, captured};
    packet.originalLength = std::max(captured, original);
    packet.linkType = interfaces_[interface].linkType;
    return true;
}

bool PcapngReader::passOver(const CaptureInput& input, const std::string& reason)
{
    if (passedOver_.count++ == 0) {
        passedOver_.reason = fmt::format("block at byte {}: {}", input.position(), reason);
        passedOver_.packetsBefore = packets_;
    }
    return false;
}

bool PcapngReader::fail(CaptureInput& input, const std::string& reason, std::optional<std::int64_t> at)
{
    input.verify();
    damage_ = !input.failure().empty() ? input.failure() : fmt::format("block at byte {}: {}", at.value_or(input.position()), reason);
    return false;
}

}  // namespace sealscope
