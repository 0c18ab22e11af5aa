// SPDX-License-Identifier: Apache-2.0
#include "platform/UUID.h"

#include <charconv>
#include <cstring>
#include <random>

namespace sealscope {

UUID UUID::random()
{
    thread_local std::mt19937_64 generator = [] {
        std::random_device device;
        std::seed_seq seed{device(), device(), device(), device(), device(), device(), device(), device()};
        return std::mt19937_64(seed);
    }();
    UUID uuid;
    const std::uint64_t words[2] = {generator(), generator()};
    std::memcpy(uuid.bytes.data(), words, sizeof words);
    uuid.bytes[6] = static_cast<std::uint8_t>(0x40 | (uuid.bytes[6] & 0x0F));  // version 4
    uuid.bytes[8] = static_cast<std::uint8_t>(0x80 | (uuid.bytes[8] & 0x3F));  // variant 10
    return uuid;
}

std::optional<UUID> UUID::fromText(std::string_view text)
{
    if (text.size() != 36) return std::nullopt;
    UUID uuid;
    std::size_t position = 0;
    for (std::size_t i = 0; i < uuid.bytes.size(); ++i, position += 2) {
        if ((i == 4 || i == 6 || i == 8 || i == 10) && text[position++] != '-') return std::nullopt;
        const char* const digits = text.data() + position;
        if (std::from_chars(digits, digits + 2, uuid.bytes[i], 16).ptr != digits + 2) return std::nullopt;
    }
    return uuid;
}

std::string UUID::text() const
{
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(36);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 15];
    }
    return text;
}

}  // namespace sealscope
