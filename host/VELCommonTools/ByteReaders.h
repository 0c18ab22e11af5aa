// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Data.h"

#include <bit>
#include <concepts>
#include <cstdint>
#include <optional>

namespace sealscope SEALSCOPE_API {

// The byte readers under the contract's names, made of those of `DataView`, which this system's own code calls.

/// The bytes of an unsigned integer that start at `offset`, in the machine's own byte order and without alignment;
/// nothing when they do not all lie inside the buffer.
template <std::unsigned_integral Integer>
    requires(sizeof(Integer) <= sizeof(std::uint32_t))
std::optional<Integer> loadUnaligned(DataView bytes, std::int64_t fromByteOffset)
{
    if (!bytes.holds(fromByteOffset, sizeof(Integer))) return std::nullopt;
    Integer value;
    if constexpr (sizeof value == sizeof(std::uint8_t))
        value = bytes.u8(fromByteOffset);
    else if constexpr (sizeof value == sizeof(std::uint16_t))
        value = bytes.u16(fromByteOffset);
    else
        value = bytes.u32(fromByteOffset);
    return std::endian::native == std::endian::little ? std::byteswap(value) : value;
}

/// `count` bytes from an offset, sharing the buffer's bytes; offset 0 of the result is its first byte.
inline Data slice(const Data& bytes, std::int64_t from, std::int64_t count) { return bytes.sub(from, count); }
inline Data slice(const Data& bytes, std::int64_t from) { return bytes.sub(from, bytes.size() - from); }
inline DataView slice(DataView bytes, std::int64_t from, std::int64_t count) { return bytes.sub(from, count); }
inline DataView slice(DataView bytes, std::int64_t from) { return bytes.from(from); }

}  // namespace sealscope SEALSCOPE_API
