// SPDX-License-Identifier: Apache-2.0
#include "app/capture/PcapngBlocks.h"

#include <fmt/format.h>

namespace sealscope {

std::string_view PcapngBlocks::name(const SentenceReader& reader) const
{
    switch (type_) {
    case Pcapng::sectionHeader: return reader.word("a Section Header Block");
    case Pcapng::interfaceDescription: return reader.word("an Interface Description Block");
    case Pcapng::packetBlock: return reader.word("a Packet Block");
    case Pcapng::simplePacket: return reader.word("a Simple Packet Block");
    case Pcapng::enhancedPacket: return reader.word("an Enhanced Packet Block");
    case Pcapng::decryptionSecrets: return reader.word("a Decryption Secrets Block");
    default: return reader.word("a block");
    }
}

bool PcapngBlocks::findSection(CaptureInput& input)
{
    if (type_ != Pcapng::sectionHeader)
        return fail(input, input.reader().say("no section header stands before it"));  // reads the same in either byte order
    for (const ByteOrder order : {ByteOrder{false}, ByteOrder{true}}) {
        if (order.u32(input.data() + Pcapng::blockHeaderLength) != Pcapng::byteOrderMagic) continue;
        if (!input.require(16))
            return fail(input, input.reader().say("the file ends after {} bytes of a section header", input.available()));
        order_ = order;
        const std::uint16_t major = order.u16(input.data() + 12), minor = order.u16(input.data() + 14);
        if (major != 1) return fail(input, input.reader().say("pcapng version {}.{} is not known", major, minor));
        const std::int64_t length = order.u32(input.data() + 4);
        if (length < shortestSection)
            return fail(input, input.reader().say("length {} is too short for {} ({})", length, name(input.reader()), shortestSection));
        isInSection_ = true;
        return true;
    }
    return fail(input, input.reader().say("a section header without its byte-order magic"));
}

bool PcapngBlocks::gatherWithCare(CaptureInput& input, std::int64_t most)
{
    if (length_ > most)
        return fail(input, input.reader().say("it announces {} bytes, more than {} can have", length_, name(input.reader())));
    if (!input.require(length_)) return failCut(input);
    return input.verify() || fail(input, {});
}

bool PcapngBlocks::leave(CaptureInput& input)
{
    if (!input.skip(position_ + length_ - 4 - input.position()) || !input.require(4)) return failCut(input);
    if (input.isSuspicious() && !input.verify()) [[unlikely]]
        return fail(input, {});
    if (const std::int64_t again = order_.u32(input.data()); again != length_) return failDiffering(input, again);
    input.consume(4);
    return true;
}

bool PcapngBlocks::failAtEnd(CaptureInput& input)
{
    if (input.available() == 0 && !input.failure()) return false;
    return fail(input, input.reader().say("the file ends after {} bytes of it", input.available()));
}

bool PcapngBlocks::failTooShort(CaptureInput& input)
{
    return fail(input, input.reader().say("length {} is too short for {} ({})", length_, name(input.reader()), shortestLength()));
}

bool PcapngBlocks::failDiffering(CaptureInput& input, std::int64_t again)
{
    return fail(input, input.reader().say("its two lengths differ ({} and {})", length_, again));
}

bool PcapngBlocks::failCut(CaptureInput& input)
{
    const std::int64_t there = input.position() + input.available() - position_;
    return fail(input, input.reader().say("the file ends after {} of its {} bytes", there, length_));
}

bool PcapngBlocks::fail(CaptureInput& input, const std::string& reason)
{
    input.verify();
    damage_ = input.failure() ? input.failure() : ReadError{input.reader().say("block at byte {}: {}", position_, reason)};
    return false;
}

}  // namespace sealscope
