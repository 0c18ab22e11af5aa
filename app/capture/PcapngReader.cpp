// SPDX-License-Identifier: Apache-2.0
#include "app/capture/PcapngReader.h"

#include <algorithm>
#include <fmt/format.h>

namespace sealscope {
namespace {

constexpr std::int64_t simpleHeaderLength = 16, enhancedDataOffset = 28, simpleDataOffset = 12;
constexpr std::int64_t secretsHeaderLength = 16;  // of the block, secrets type (4), secrets length (4)
constexpr std::int64_t mostInterfaces = 1 << 16;  // of a section; more than any machine has
constexpr std::int64_t secretsPiece = 64 << 10;

/// Most key log text that a file may bring, of which so many bytes were read as stored. Hexadecimal digits can be packed to half
/// their size; what is much smaller than that is no key log.
std::int64_t mostKeyLog(std::int64_t stored) { return std::min<std::int64_t>(256 << 20, (8 << 20) + 4 * stored); }

/// True for a block that those behind it are read by, or that holds secrets.
bool changesReading(std::uint32_t type)
{
    return type == Pcapng::sectionHeader || type == Pcapng::interfaceDescription || type == Pcapng::decryptionSecrets;
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
    while (blocks_.find(input)) {
        if (!Pcapng::isPacket(blocks_.type())) [[unlikely]] {
            if (isAhead_ && changesReading(blocks_.type())) return false;
            if (!readOther(input)) return false;
            continue;
        }
        if (!blocks_.gather(input)) return false;
        const bool hasPacket = readPacket(input, packet);
        if (!hasPacket && isAhead_) [[unlikely]]
            return false;
        input.consume(blocks_.length());
        input.announce();
        if (!hasPacket) continue;
        ++packets_;
        return true;
    }
    return false;
}

PcapngReader PcapngReader::ahead() const
{
    PcapngReader reader;
    reader.blocks_ = blocks_;
    reader.interfaces_ = interfaces_;
    reader.isAhead_ = true;
    return reader;
}

std::int64_t PcapngReader::findPacket(DataView file, std::int64_t from, std::int64_t to) const
{
    const ByteOrder order = blocks_.order();
    const auto mayBegin = [&](std::int64_t at) {
        if (!file.holds(at, enhancedDataOffset + 4)) return false;
        const std::uint8_t* const block = file.data() + at;
        const std::uint32_t type = order.u32(block);
        if (type != Pcapng::enhancedPacket && type != Pcapng::packetBlock) return false;
        const std::int64_t length = order.u32(block + 4), captured = order.u32(block + 20);
        const std::uint32_t interface = type == Pcapng::enhancedPacket ? order.u32(block + 8) : order.u16(block + 8);
        return length % 4 == 0 && captured <= length - 4 - enhancedDataOffset && interface < interfaces_.size() && file.holds(at, length) &&
               order.u32(block + length - 4) == length;
    };
    for (std::int64_t at = (from + 3) / 4 * 4; at < to; at += 4)
        if (mayBegin(at)) return at;
    return -1;
}

bool PcapngReader::readOther(CaptureInput& input)
{
    generation_ += changesReading(blocks_.type());
    switch (blocks_.type()) {
    case Pcapng::sectionHeader: interfaces_.clear(); break;
    case Pcapng::interfaceDescription: break;
    case Pcapng::decryptionSecrets: return readSecrets(input);
    default: return blocks_.leave(input);
    }
    if (!blocks_.gather(input)) return false;
    const bool isTooShort = blocks_.length() < blocks_.shortestLength();
    if (isTooShort)
        passOver({.problem = ReadError::Problem::blockTooShort, .numbers = {blocks_.length(), blocks_.shortestLength(), blocks_.type()}});
    // Also one that cannot be read counts, since interfaces are numbered by their places.
    if (blocks_.type() == Pcapng::interfaceDescription)
        readInterface(isTooShort ? DataView()
                                 : DataView(input.data() + Pcapng::blockHeaderLength, blocks_.length() - Pcapng::shortestBlock));
    input.consume(blocks_.length());
    return true;
}

void PcapngReader::readInterface(DataView body)
{
    const ByteOrder order = blocks_.order();
    if (std::ssize(interfaces_) == mostInterfaces) {
        passOver({.problem = ReadError::Problem::tooManyInterfaces, .numbers = {mostInterfaces}});
        return;
    }
    Interface& interface = interfaces_.emplace_back();
    if (body.isEmpty()) return;
    interface.isDescribed = true;
    interface.linkType = order.u16(body.data());
    interface.snapLength = order.u32(body.data() + 4);
    for (std::int64_t at = 8; body.holds(at, 4);) {
        const std::uint16_t code = order.u16(body.data() + at), length = order.u16(body.data() + at + 2);
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
        if (code == Pcapng::timeOffset && length >= 8) interface.timeOffset = static_cast<std::int64_t>(order.u64(value.data()));
        at += 4 + (length + 3) / 4 * 4;
    }
}

// Piece by piece: only the text itself is ever held, and in memory that is made for secrets.
bool PcapngReader::readSecrets(CaptureInput& input)
{
    const std::int64_t room = blocks_.length() - secretsHeaderLength - 4;
    if (room < 0) {
        passOver({.problem = ReadError::Problem::secretsTooShort});
        return blocks_.leave(input);
    }
    if (!input.require(secretsHeaderLength) || blocks_.order().u32(input.data() + 8) != Pcapng::tlsKeyLog) return blocks_.leave(input);
    const std::int64_t announced = blocks_.order().u32(input.data() + 12);
    const std::int64_t size = std::min(announced, room);
    if (const std::int64_t most = mostKeyLog(input.storedBytesRead()); keyLogSize_ + size > most) {
        passOver({.problem = ReadError::Problem::secretsTooLong, .numbers = {most}});
        return blocks_.leave(input);
    }
    if (announced > room) passOver({.problem = ReadError::Problem::secretsLackRoom, .numbers = {announced, room}});

    const std::size_t before = keyLog_.size();
    input.consume(secretsHeaderLength);
    for (std::int64_t left = size; left > 0;) {
        const std::int64_t piece = std::min(left, secretsPiece);
        if (!input.require(piece)) break;  // which `leave` tells
        keyLog_ += DataView(input.data(), piece).text();
        input.consume(piece);
        left -= piece;
    }
    if (!blocks_.leave(input)) {
        keyLog_.resize(before);
        return false;
    }
    if (!keyLog_.empty() && keyLog_.back() != '\n') keyLog_ += '\n';
    keyLogSize_ += static_cast<std::int64_t>(keyLog_.size() - before);
    return true;
}

bool PcapngReader::readPacket(const CaptureInput& input, CapturedPacket& packet)
{
    const ByteOrder order = blocks_.order();
    const std::uint32_t type = blocks_.type();
    const std::int64_t length = blocks_.length();
    if (length < blocks_.shortestLength()) [[unlikely]]
        return passOver({.problem = ReadError::Problem::blockTooShort, .numbers = {length, blocks_.shortestLength(), type}});
    const std::uint8_t* const block = input.data();
    std::uint32_t interface = 0;
    std::int64_t captured = 0, original = 0, dataOffset = enhancedDataOffset;
    std::uint64_t stamp = 0;
    if (type == Pcapng::simplePacket) [[unlikely]] {
        dataOffset = simpleDataOffset;
        original = order.u32(block + 8);
        const std::uint32_t snapLength = interfaces_.empty() ? 0 : interfaces_.front().snapLength;
        // It has no captured length of its own: the snapshot length and the padding to four bytes decide.
        captured = std::min(original, length - simpleHeaderLength);
        if (snapLength != 0) captured = std::min<std::int64_t>(captured, snapLength);
    } else {
        interface = type == Pcapng::enhancedPacket ? order.u32(block + 8) : order.u16(block + 8);
        stamp = static_cast<std::uint64_t>(order.u32(block + 12)) << 32 | order.u32(block + 16);
        captured = order.u32(block + 20);
        original = order.u32(block + 24);
    }
    if (interface >= interfaces_.size() || !interfaces_[interface].isDescribed) [[unlikely]]
        return passOver({.problem = ReadError::Problem::interfaceUnknown, .numbers = {interface, std::ssize(interfaces_)}});
    if (captured > length - 4 - dataOffset) [[unlikely]]
        return passOver({.problem = ReadError::Problem::packetLacksRoom, .numbers = {captured, length - 4 - dataOffset}});

    packet.time = type == Pcapng::simplePacket ? CaptureTime{} : interfaces_[interface].time(stamp);
    packet.address = input.position() + dataOffset;
    packet.frame = {block + dataOffset, captured};
    packet.originalLength = std::max(captured, original);
    packet.linkType = interfaces_[interface].linkType;
    return true;
}

bool PcapngReader::passOver(const ReadError& error)
{
    if (passedOver_.count++ == 0) {
        passedOver_.first = error.at(ReadError::Unit::block, blocks_.position());
        passedOver_.packetsBefore = packets_;
    }
    return false;
}

}  // namespace sealscope
