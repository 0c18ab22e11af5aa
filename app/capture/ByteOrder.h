// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <bit>
#include <concepts>
#include <cstdint>
#include <cstring>
#include <iterator>

namespace sealscope {

/// Reads and writes the integers of a capture file, which stand in the byte order of the machine that wrote it. Bytes that
/// are read must be there.
struct ByteOrder {
    bool isSwapped = false;  ///< the file's order is not this machine's

    std::uint16_t u16(const std::uint8_t* at) const { return read<std::uint16_t>(at); }
    std::uint32_t u32(const std::uint8_t* at) const { return read<std::uint32_t>(at); }
    std::uint64_t u64(const std::uint8_t* at) const { return read<std::uint64_t>(at); }

    /// Appends an integer.
    template <std::integral Integer, class Bytes> void append(Integer value, Bytes& bytes) const
    {
        std::uint8_t written[sizeof value];
        std::memcpy(written, &value, sizeof value);
        if (isSwapped) std::ranges::reverse(written);
        bytes.insert(bytes.end(), std::begin(written), std::end(written));
    }

private:
    template <typename Integer> Integer read(const std::uint8_t* at) const
    {
        Integer value;
        std::memcpy(&value, at, sizeof value);
        if (!isSwapped) return value;
        if constexpr (sizeof value == 2) return __builtin_bswap16(value);
        if constexpr (sizeof value == 4) return __builtin_bswap32(value);
        if constexpr (sizeof value == 8) return __builtin_bswap64(value);
    }
};

/// Integers in network order, for packets' headers. The bytes must be there.
inline constexpr ByteOrder networkOrder{std::endian::native == std::endian::little};

}  // namespace sealscope
