// SPDX-License-Identifier: Apache-2.0
#include "platform/Base64.h"

#include <array>

namespace sealscope {

namespace {

constexpr std::string_view digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

/// Digit to its six bits; -1 for every other character.
constexpr auto values = [] {
    std::array<std::int8_t, 256> table{};
    table.fill(-1);
    for (std::size_t i = 0; i < digits.size(); ++i) table[static_cast<unsigned char>(digits[i])] = static_cast<std::int8_t>(i);
    return table;
}();

}  // namespace

std::string base64(DataView bytes)
{
    std::string text(static_cast<std::size_t>((bytes.size() + 2) / 3 * 4), '=');
    char* out = text.data();
    for (std::int64_t offset = 0; offset < bytes.size(); offset += 3, out += 4) {
        const std::uint32_t group = static_cast<std::uint32_t>(bytes.u24(offset));
        const std::int64_t used = std::min<std::int64_t>(3, bytes.size() - offset);
        for (std::int64_t i = 0; i <= used; ++i) out[i] = digits[group >> (18 - 6 * i) & 63];
    }
    return text;
}

std::optional<Data> fromBase64(std::string_view text)
{
    if (text.size() % 4 != 0) return std::nullopt;
    const std::size_t padding = text.ends_with("==") ? 2 : text.ends_with('=') ? 1 : 0;
    const std::string_view body = text.substr(0, text.size() - padding);
    std::vector<std::uint8_t> bytes;
    bytes.reserve(text.size() / 4 * 3);
    std::uint32_t bits = 0;
    int held = 0;
    for (const char character : body) {
        const int value = values[static_cast<unsigned char>(character)];
        if (value < 0) return std::nullopt;
        bits = bits << 6 | static_cast<std::uint32_t>(value);
        held += 6;
        if (held < 8) continue;
        held -= 8;
        bytes.push_back(static_cast<std::uint8_t>(bits >> held));
    }
    return Data(std::move(bytes));
}

}  // namespace sealscope
