// SPDX-License-Identifier: Apache-2.0
#include "app/capture/ReadError.h"

#include "app/capture/PcapngBlocks.h"

#include <fmt/format.h>
#include <type_traits>
#include <utility>

namespace sealscope {
namespace {

/// "an Enhanced Packet Block"
std::string_view blockName(std::int64_t type, const SentenceReader& reader)
{
    switch (type) {
    case Pcapng::sectionHeader: return reader.word("a Section Header Block");
    case Pcapng::interfaceDescription: return reader.word("an Interface Description Block");
    case Pcapng::packetBlock: return reader.word("a Packet Block");
    case Pcapng::simplePacket: return reader.word("a Simple Packet Block");
    case Pcapng::enhancedPacket: return reader.word("an Enhanced Packet Block");
    case Pcapng::decryptionSecrets: return reader.word("a Decryption Secrets Block");
    default: return reader.word("a block");
    }
}

std::string causeText(const ReadError& error)
{
    return std::visit(
        [](const auto& cause) {
            if constexpr (std::is_same_v<decltype(cause), const std::monostate&>)
                return std::string();
            else
                return cause.text();
        },
        error.because);
}

/// The first bytes of a file in hexadecimal.
std::string bytesText(std::int64_t bytes, std::int64_t count)
{
    std::string text;
    for (std::int64_t i = 0; i < count; ++i) text += fmt::format("{}{:02x}", i == 0 ? "" : " ", bytes >> 8 * i & 0xFF);
    return text;
}

std::string problemText(const ReadError& error, const SentenceReader& reader)
{
    using enum ReadError::Problem;
    const auto& [a, b, c] = error.numbers;
    switch (error.problem) {
    case system: return causeText(error);
    case isDirectory: return reader.say("is a directory");
    case isEmpty: return reader.say("is empty");
    case isNoCapture: return reader.say("is not a capture file (it begins with {})", bytesText(a, b));
    case becameShorter: return reader.say("became shorter while it was being read");
    case lostBytesLater: return reader.say("became shorter after it was read; what is missing counts as zeros");
    case interrupted: return reader.say("was not read before the interruption");
    case unpacksToTooMuch:
        return reader.say("{} data unpacks to more than {} bytes and {} times its size; unpack it first, if that is meant", error.format, a,
                          b);
    case doesNotUnpack:
        return reader.say("{} data cannot be unpacked from near byte {} of the file on ({})", error.format, a, causeText(error));
    case endsTooEarly: return reader.say("{} data ends too early, after {} bytes", error.format, a);
    case fileHeaderCut: return reader.say("the file ends after {} of the {} bytes of its header", a, b);
    case pcapVersion: return reader.say("pcap version {}.{} is not known", a, b);
    case packetHeaderCut: return reader.say("the file ends after {} of the {} bytes of a packet's header", a, b);
    case packetTooLong: return reader.say("it announces {} captured bytes, more than a packet can have ({})", a, b);
    case pcapngVersion: return reader.say("pcapng version {}.{} is not known", a, b);
    case noSectionHeader: return reader.say("no section header stands before it");
    case sectionHeaderCut: return reader.say("the file ends after {} bytes of a section header", a);
    case noByteOrderMagic: return reader.say("a section header without its byte-order magic");
    case blockTooShort: return reader.say("length {} is too short for {} ({})", a, blockName(c, reader), b);
    case blockTooLong: return reader.say("it announces {} bytes, more than {} can have", a, blockName(b, reader));
    case blockHeaderCut: return reader.say("the file ends after {} bytes of it", a);
    case lengthsDiffer: return reader.say("its two lengths differ ({} and {})", a, b);
    case tooManyInterfaces: return reader.say("a section can have no more than {} interfaces", a);
    case interfaceUnknown: return reader.say("interface {} is not described (its section has {})", a, b);
    case packetLacksRoom: return reader.say("it announces {} captured bytes, but has room for {}", a, b);
    case secretsTooShort: return reader.say("it is too short for decryption secrets");
    case secretsTooLong: return reader.say("with those before it, its secrets are more than {} bytes", a);
    case secretsLackRoom: return reader.say("it announces {} bytes of secrets, but has room for {}", a, b);
    case isCut: return reader.say("the file ends after {} of its {} bytes", a, b);
    case fragmentsDoNotFit: return reader.say("fragments cannot be put together: {}", causeText(error));
    }
    std::unreachable();
}

}  // namespace

std::string UnpackError::text() const
{
    switch (problem) {
    case Problem::damaged: return words;
    case Problem::noMemory: return "no memory for unpacking it";
    case Problem::wantsTooMuchMemory: return "it wants more memory than a file of its size gets; 'zstd -d --long=31' unpacks it";
    }
    std::unreachable();
}

ReadError ReadError::at(Unit of, std::int64_t offset) const
{
    ReadError error = *this;
    error.unit = of;
    error.position = offset;
    return error;
}

std::string ReadError::text(const SentenceReader& reader) const
{
    const std::string what = problemText(*this, reader);
    switch (unit) {
    case Unit::file: return what;
    case Unit::packet: return reader.say("packet at byte {}: {}", position, what);
    case Unit::block: return reader.say("block at byte {}: {}", position, what);
    }
    std::unreachable();
}

}  // namespace sealscope
