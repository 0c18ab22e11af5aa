// SPDX-License-Identifier: Apache-2.0
#include "platform/UUID.h"

#include <charconv>
#include <cstring>
#include <random>
#include <utility>

namespace sealscope {

namespace {

/// SplitMix64 (Steele, Lea, Flood, 2014): a few instructions a number, and no number twice in 2^64.
class Generator {
public:
    explicit Generator(std::random_device& device) : state_(std::uint64_t{device()} << 32 | device()) {}
    std::uint64_t operator()()
    {
        std::uint64_t number = state_ += 0x9E37'79B9'7F4A'7C15;
        number = (number ^ number >> 30) * 0xBF58'476D'1CE4'E5B9;
        number = (number ^ number >> 27) * 0x94D0'49BB'1331'11EB;
        return number ^ number >> 31;
    }

private:
    std::uint64_t state_;
};

}  // namespace

UUID UUID::random()
{
    // Two, so that threads whose numbers meet in one half differ in the other.
    thread_local auto generators = [] {
        std::random_device device;
        return std::pair(Generator(device), Generator(device));
    }();
    UUID uuid;
    const std::uint64_t words[2] = {generators.first(), generators.second()};
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
