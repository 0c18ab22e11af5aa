// SPDX-License-Identifier: Apache-2.0
#include "harness/Hex.h"

#include <charconv>
#include <stdexcept>

namespace sealscope {

Data hex(std::string_view text)
{
    static constexpr std::string_view whiteSpace = " \t\r\n";
    std::vector<std::uint8_t> bytes;
    for (std::size_t at = text.find_first_not_of(whiteSpace); at < text.size(); at = text.find_first_not_of(whiteSpace, at)) {
        const std::string_view pair = text.substr(at, 2);
        std::uint8_t byte = 0;
        const auto [end, error] = std::from_chars(pair.data(), pair.data() + pair.size(), byte, 16);
        if (error != std::errc{} || end != pair.data() + 2) throw std::invalid_argument("hex: no digit pair: " + std::string(pair));
        bytes.push_back(byte);
        at += 2;
    }
    return Data(std::move(bytes));
}

Data joined(const std::vector<Data>& pieces)
{
    std::vector<std::uint8_t> bytes;
    for (const Data& piece : pieces) bytes.insert(bytes.end(), piece.view().begin(), piece.view().end());
    return Data(std::move(bytes));
}

Data patternBytes(std::int64_t count, std::uint64_t seed)
{
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(count));
    std::uint64_t state = seed * 0x9E3779B97F4A7C15 + 1;
    for (std::uint8_t& byte : bytes) {
        state = state * 6364136223846793005 + 1442695040888963407;  // Knuth's MMIX generator
        byte = static_cast<std::uint8_t>(state >> 56);
    }
    return Data(std::move(bytes));
}

}  // namespace sealscope
