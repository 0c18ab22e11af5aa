// SPDX-License-Identifier: Apache-2.0
#include "platform/Base64.h"

#include <algorithm>
#include <openssl/evp.h>
#include <vector>

namespace sealscope {

namespace {

/// Bytes that go through the library at once, whose lengths are ints; whole groups of three.
constexpr std::int64_t largestPiece = 3 << 24;

bool isDigit(char character)
{
    return (character >= 'A' && character <= 'Z') || (character >= 'a' && character <= 'z') || (character >= '0' && character <= '9') ||
           character == '+' || character == '/';
}

}  // namespace

std::string base64(DataView bytes)
{
    const auto size = static_cast<std::size_t>((bytes.size() + 2) / 3 * 4);
    std::string text;
    text.resize_and_overwrite(size, [&](char* characters, std::size_t) {
        auto* out = reinterpret_cast<unsigned char*>(characters);
        // It ends what it writes with a null character, which the string has room for.
        for (std::int64_t offset = 0; offset < bytes.size(); offset += largestPiece) {
            const DataView piece = bytes.sub(offset, largestPiece);
            out += EVP_EncodeBlock(out, piece.data(), static_cast<int>(piece.size()));
        }
        return size;
    });
    return text;
}

std::optional<Data> fromBase64(std::string_view text)
{
    if (text.size() % 4 != 0) return std::nullopt;
    const std::size_t padding = text.ends_with("==") ? 2 : text.ends_with('=') ? 1 : 0;
    // The library would pass over white space at either end.
    if (!std::ranges::all_of(text.substr(0, text.size() - padding), isDigit)) return std::nullopt;
    std::vector<std::uint8_t> bytes(text.size() / 4 * 3);
    constexpr std::size_t piece = largestPiece / 3 * 4;
    for (std::size_t offset = 0; offset < text.size(); offset += piece) {
        const std::string_view part = text.substr(offset, piece);
        if (EVP_DecodeBlock(bytes.data() + offset / 4 * 3, reinterpret_cast<const unsigned char*>(part.data()),
                            static_cast<int>(part.size())) < 0)
            return std::nullopt;
    }
    bytes.resize(bytes.size() - padding);
    return Data(std::move(bytes));
}

}  // namespace sealscope
