// SPDX-License-Identifier: Apache-2.0
#include "app/records/JSONLineWriter.h"

#include "platform/Base64.h"
#include "platform/UTF8.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <fmt/format.h>
#include <type_traits>
#include <utility>
#include <variant>

namespace sealscope {

namespace {

/// ASCII that stands for itself inside quotation marks. DEL may stand there too, but a terminal would obey it.
constexpr auto isPlain = [] {
    std::array<bool, 256> plain{};
    for (int byte = 0x20; byte < 0x7F; ++byte) plain[static_cast<std::size_t>(byte)] = byte != '"' && byte != '\\';
    return plain;
}();

/// Whether eight characters are all plain; read at once, since most of what is written is.
bool areEightPlain(const std::uint8_t* characters)
{
    constexpr std::uint64_t ones = 0x0101010101010101;
    constexpr std::uint64_t tops = ones << 7;
    std::uint64_t word;
    std::memcpy(&word, characters, sizeof word);
    // The top bit of a byte comes out set where the byte is below the bound (up to 0x80), and perhaps in those above the
    // first such byte, which changes nothing here.
    const auto below = [](std::uint64_t bytes, std::uint64_t bound) { return (bytes - ones * bound) & ~bytes; };
    const auto holds = [&](std::uint64_t byte) { return below(word ^ (ones * byte), 1); };
    return ((word | below(word, 0x20) | holds('"') | holds('\\') | holds(0x7F)) & tops) == 0;
}

void appendEscape(std::string& text, char32_t scalar)
{
    const auto unit = [&](char32_t code) { fmt::format_to(std::back_inserter(text), "\\u{:04x}", static_cast<std::uint32_t>(code)); };
    switch (scalar) {
    case '"': text += "\\\""; return;
    case '\\': text += "\\\\"; return;
    case '\n': text += "\\n"; return;
    case '\r': text += "\\r"; return;
    case '\t': text += "\\t"; return;
    default: break;
    }
    if (scalar < 0x10000) return unit(scalar);
    unit(0xD800 + ((scalar - 0x10000) >> 10));
    unit(0xDC00 + ((scalar - 0x10000) & 0x3FF));
}

/// Characters that JSON wants escaped, that are line ends to some readers (LINE and PARAGRAPH SEPARATOR), or that terminals
/// obey (controls, direction marks and overrides).
bool wantsEscape(char32_t scalar)
{
    if (scalar < 0x80) return !isPlain[scalar];
    return scalar < 0xA0 || (scalar >= 0x200E && scalar <= 0x200F) || (scalar >= 0x2028 && scalar <= 0x202E) ||
           (scalar >= 0x2066 && scalar <= 0x2069) || scalar == 0x061C || scalar == 0xFEFF;
}

bool areAllPlain(DataView bytes)
{
    if (bytes.size() < 8) return std::ranges::all_of(bytes, [](std::uint8_t byte) { return isPlain[byte]; });
    for (std::int64_t offset = 0; bytes.size() - offset > 8; offset += 8)
        if (!areEightPlain(bytes.data() + offset)) return false;
    return areEightPlain(bytes.end() - 8);  // some of them once more
}

/// Appends a text in quotation marks, character by character.
void appendEscaped(std::string& text, std::string_view characters)
{
    const std::string repaired = utf8::repaired(DataView(characters));
    const DataView bytes(repaired);
    text += '"';
    for (std::int64_t offset = 0; offset < bytes.size();) {
        const utf8::Scalar scalar = *utf8::scalarAt(bytes, offset);
        if (wantsEscape(scalar.value))
            appendEscape(text, scalar.value);
        else
            text += bytes.sub(offset, scalar.length).text();
        offset += scalar.length;
    }
    text += '"';
}

}  // namespace

void JSONLineWriter::key(std::string_view name)
{
    quoted(name, ":");
    needsComma_ = false;
}

void JSONLineWriter::plainKey(std::string_view name)
{
    appendQuoted(name, ":");
    needsComma_ = false;
}

void JSONLineWriter::value(std::string_view characters) { quoted(characters, ""); }

void JSONLineWriter::integer(std::int64_t number)
{
    const fmt::format_int digits(number);
    literal({digits.data(), digits.size()});
}

void JSONLineWriter::value(double number)
{
    if (!std::isfinite(number)) return null();
    std::array<char, 32> digits;
    const char* end = fmt::format_to(digits.data(), "{}", number);
    const std::string_view shortest(digits.data(), static_cast<std::size_t>(end - digits.data()));
    literal(shortest);
    if (shortest.find_first_of(".e") == std::string_view::npos) text_ += ".0";
}

void JSONLineWriter::quoted(std::string_view characters, std::string_view behind)
{
    if (!areAllPlain(DataView(characters))) {
        separate();
        appendEscaped(text_, characters);
        text_ += behind;
        return;
    }
    appendQuoted(characters, behind);
}

void JSONLineWriter::appendQuoted(std::string_view characters, std::string_view behind)
{
    // One growth of the line for all of it.
    const bool hasComma = std::exchange(needsComma_, true);
    const std::size_t start = text_.size();
    const std::size_t end = start + characters.size() + behind.size() + 2 + hasComma;
    text_.resize_and_overwrite(end, [&](char* line, std::size_t) {  // whose size may be what the text has room for
        char* next = line + start;
        if (hasComma) *next++ = ',';
        *next++ = '"';
        next += characters.copy(next, characters.size());
        *next++ = '"';
        behind.copy(next, behind.size());
        return end;
    });
}

void JSONLineWriter::value(const VELValue& any)
{
    std::visit(
        [&](const auto& content) {
            if constexpr (std::is_same_v<std::decay_t<decltype(content)>, Data>)
                base64(content);
            else
                value(content);
        },
        any);
}

void JSONLineWriter::base64(DataView bytes)
{
    separate();
    text_ += '"';
    // Pieces of whole triples: only the last one is padded, and a large body is not held twice.
    constexpr std::int64_t piece = 48 * 1'024;
    for (std::int64_t offset = 0; offset < bytes.size(); offset += piece) {
        text_ += sealscope::base64(bytes.sub(offset, piece));
        spill_(text_);
    }
    text_ += '"';
}

}  // namespace sealscope
