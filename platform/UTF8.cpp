// SPDX-License-Identifier: Apache-2.0
#include "platform/UTF8.h"

#include <algorithm>

namespace sealscope::utf8 {

namespace {

/// What a lead byte announces: how many bytes follow, and the bounds of the first of them, which keep out overlong
/// forms, surrogates and values above U+10FFFF (The Unicode Standard, table 3-7).
struct Lead {
    int following = -1;
    std::uint8_t low = 0x80;
    std::uint8_t high = 0xBF;
};

constexpr Lead leadOf(std::uint8_t byte)
{
    if (byte < 0x80) return {0};
    if (byte < 0xC2) return {};
    if (byte < 0xE0) return {1};
    if (byte == 0xE0) return {2, 0xA0, 0xBF};
    if (byte == 0xED) return {2, 0x80, 0x9F};
    if (byte < 0xF0) return {2};
    if (byte == 0xF0) return {3, 0x90, 0xBF};
    if (byte < 0xF4) return {3};
    if (byte == 0xF4) return {3, 0x80, 0x8F};
    return {};
}

/// Bytes from `offset` that begin a well-formed sequence: all of it when `complete`, else as far as it goes, at least 1.
struct Extent {
    std::int64_t length = 1;
    bool complete = false;
};

Extent extentAt(DataView bytes, std::int64_t offset)
{
    const Lead lead = leadOf(bytes.u8(offset));
    if (lead.following < 0) return {};
    for (std::int64_t i = 1; i <= lead.following; ++i) {
        const bool first = i == 1;
        const std::uint8_t low = first ? lead.low : 0x80;
        const std::uint8_t high = first ? lead.high : 0xBF;
        if (!bytes.holds(offset + i, 1) || bytes[offset + i] < low || bytes[offset + i] > high) return {i, false};
    }
    return {lead.following + 1, true};
}

}  // namespace

std::optional<Scalar> scalarAt(DataView bytes, std::int64_t offset)
{
    if (!bytes.holds(offset, 1)) return std::nullopt;
    const Extent extent = extentAt(bytes, offset);
    if (!extent.complete) return std::nullopt;
    static constexpr std::uint8_t leadBits[] = {0, 0x7F, 0x1F, 0x0F, 0x07};
    char32_t value = bytes[offset] & leadBits[extent.length];
    for (std::int64_t i = 1; i < extent.length; ++i) value = value << 6 | (bytes[offset + i] & 0x3F);
    return Scalar{value, extent.length};
}

std::int64_t cutScalar(DataView bytes)
{
    for (std::int64_t back = 1; back <= std::min<std::int64_t>(3, bytes.size()); ++back) {
        const std::uint8_t byte = bytes[bytes.size() - back];
        if ((byte & 0xC0) == 0x80) continue;
        const std::int64_t length = byte >= 0xF0 ? 4 : byte >= 0xE0 ? 3 : byte >= 0xC0 ? 2 : 1;
        return length > back ? back : 0;
    }
    return 0;
}

bool isWellFormed(DataView bytes)
{
    for (std::int64_t offset = 0; offset < bytes.size();) {
        if (bytes[offset] < 0x80) {
            ++offset;
            continue;
        }
        const Extent extent = extentAt(bytes, offset);
        if (!extent.complete) return false;
        offset += extent.length;
    }
    return true;
}

std::optional<std::string> decoded(DataView bytes)
{
    if (!isWellFormed(bytes)) return std::nullopt;
    return std::string(bytes.text());
}

std::string repaired(DataView bytes)
{
    std::string text;
    text.reserve(static_cast<std::size_t>(bytes.size()));
    for (std::int64_t offset = 0; offset < bytes.size();) {
        const Extent extent = extentAt(bytes, offset);
        if (extent.complete)
            text += bytes.sub(offset, extent.length).text();
        else
            text += "\xEF\xBF\xBD";
        offset += extent.length;
    }
    return text;
}

void append(std::string& text, char32_t scalar)
{
    const auto tail = [&](int shift) { text += static_cast<char>(0x80 | (scalar >> shift & 0x3F)); };
    if (scalar < 0x80) {
        text += static_cast<char>(scalar);
    } else if (scalar < 0x800) {
        text += static_cast<char>(0xC0 | scalar >> 6);
        tail(0);
    } else if (scalar < 0x10000) {
        text += static_cast<char>(0xE0 | scalar >> 12);
        tail(6), tail(0);
    } else {
        text += static_cast<char>(0xF0 | scalar >> 18);
        tail(12), tail(6), tail(0);
    }
}

}  // namespace sealscope::utf8
