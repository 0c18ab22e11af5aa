// SPDX-License-Identifier: Apache-2.0
#include "app/cli/JSONLineWriter.h"

#include "platform/Base64.h"
#include "platform/UTF8.h"

#include <array>
#include <cmath>
#include <fmt/format.h>
#include <type_traits>
#include <variant>

namespace sealscope::cli {

namespace {

/// ASCII that stands for itself inside quotation marks. DEL may stand there too, but a terminal would obey it.
constexpr auto isPlain = [] {
    std::array<bool, 256> plain{};
    for (int byte = 0x20; byte < 0x7F; ++byte) plain[static_cast<std::size_t>(byte)] = byte != '"' && byte != '\\';
    return plain;
}();

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

/// Of the characters that are not plain: those that JSON wants escaped, that are line ends to some readers (LINE and
/// PARAGRAPH SEPARATOR), or that terminals obey (controls, direction marks and overrides).
bool wantsEscape(char32_t scalar)
{
    return scalar < 0xA0 || (scalar >= 0x200E && scalar <= 0x200F) || (scalar >= 0x2028 && scalar <= 0x202E) ||
           (scalar >= 0x2066 && scalar <= 0x2069) || scalar == 0x061C || scalar == 0xFEFF;
}

}  // namespace

void JSONLineWriter::key(std::string_view name)
{
    separate();
    quoted(name);
    text_ += ':';
    needsComma_ = false;
}

void JSONLineWriter::value(std::string_view characters)
{
    separate();
    quoted(characters);
}

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

void JSONLineWriter::quoted(std::string_view characters)
{
    const DataView bytes(characters);
    const std::size_t start = text_.size();
    text_ += '"';
    std::int64_t written = 0;
    const auto writeUpTo = [&](std::int64_t offset) {
        text_.append(characters, static_cast<std::size_t>(written), static_cast<std::size_t>(offset - written));
    };
    for (std::int64_t offset = 0; offset < bytes.size();) {
        if (isPlain[bytes[offset]]) {
            ++offset;
            continue;
        }
        const auto scalar = utf8::scalarAt(bytes, offset);
        if (!scalar) {
            text_.resize(start);
            return quoted(utf8::repaired(bytes));
        }
        if (wantsEscape(scalar->value)) {
            writeUpTo(offset);
            appendEscape(text_, scalar->value);
            written = offset + scalar->length;
        }
        offset += scalar->length;
    }
    writeUpTo(bytes.size());
    text_ += '"';
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
    for (std::int64_t offset = 0; offset < bytes.size(); offset += piece) text_ += sealscope::base64(bytes.sub(offset, piece));
    text_ += '"';
}

}  // namespace sealscope::cli
