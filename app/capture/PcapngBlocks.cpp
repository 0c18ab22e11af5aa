// SPDX-License-Identifier: Apache-2.0
#include "app/capture/PcapngBlocks.h"

#include <fmt/format.h>

namespace sealscope {

bool PcapngBlocks::findSection(CaptureInput& input)
{
    if (type_ != Pcapng::sectionHeader)
        return fail(input, {.problem = ReadError::Problem::noSectionHeader});  // reads the same in either byte order
    for (const ByteOrder order : {ByteOrder{false}, ByteOrder{true}}) {
        if (order.u32(input.data() + Pcapng::blockHeaderLength) != Pcapng::byteOrderMagic) continue;
        if (!input.require(16)) return fail(input, {.problem = ReadError::Problem::sectionHeaderCut, .numbers = {input.available()}});
        order_ = order;
        const std::uint16_t major = order.u16(input.data() + 12), minor = order.u16(input.data() + 14);
        if (major != 1) return fail(input, {.problem = ReadError::Problem::pcapngVersion, .numbers = {major, minor}});
        const std::int64_t length = order.u32(input.data() + 4);
        if (length < shortestSection)
            return fail(input, {.problem = ReadError::Problem::blockTooShort, .numbers = {length, shortestSection, type_}});
        isInSection_ = true;
        return true;
    }
    return fail(input, {.problem = ReadError::Problem::noByteOrderMagic});
}

bool PcapngBlocks::gatherWithCare(CaptureInput& input, std::int64_t most)
{
    if (length_ > most) return fail(input, {.problem = ReadError::Problem::blockTooLong, .numbers = {length_, type_}});
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
    return fail(input, {.problem = ReadError::Problem::blockHeaderCut, .numbers = {input.available()}});
}

bool PcapngBlocks::failTooShort(CaptureInput& input)
{
    return fail(input, {.problem = ReadError::Problem::blockTooShort, .numbers = {length_, shortestLength(), type_}});
}

bool PcapngBlocks::failDiffering(CaptureInput& input, std::int64_t again)
{
    return fail(input, {.problem = ReadError::Problem::lengthsDiffer, .numbers = {length_, again}});
}

bool PcapngBlocks::failCut(CaptureInput& input)
{
    const std::int64_t there = input.position() + input.available() - position_;
    return fail(input, {.problem = ReadError::Problem::isCut, .numbers = {there, length_}});
}

bool PcapngBlocks::fail(CaptureInput& input, const ReadError& error)
{
    input.verify();
    damage_ = input.failure() ? input.failure() : error.at(ReadError::Unit::block, position_);
    return false;
}

}  // namespace sealscope
