// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSKeyLog.h"

#include "platform/UTF8.h"

#include <algorithm>
#include <array>
#include <unictype.h>
#include <unigbrk.h>

// The grammar speaks of characters as a reader sees them, grapheme clusters (Unicode Standard Annex #29): a space with a
// combining mark on it is no space. Segmenting the text is not needed for that. Line breaks and tabs are always clusters of
// their own (rules GB4 and GB5; CR LF is one, but an empty line between the two would be dropped anyway). A space or "#"
// is one unless the scalar before it is a Prepend (GB9b) or the one after it an Extend, ZWJ or SpacingMark (GB9, GB9a): the
// other rules are about Hangul, emoji, flags and Indic conjuncts, which neither is. And a field of hexadecimal digits with
// anything but ASCII in it holds a pair that is no number, however its characters are counted.
//
// Nearly every line of nearly every key log has one shape, "LABEL digits digits" with single spaces. `takeUsualLine` reads
// that and nothing else; whatever looks different in the least goes through `takeLine`, which knows the whole grammar.

namespace sealscope {

namespace {

constexpr std::int8_t noDigit = -1;

constexpr std::array<std::int8_t, 256> digitValues = [] {
    std::array<std::int8_t, 256> values{};
    values.fill(noDigit);
    for (int i = 0; i < 10; ++i) values[static_cast<std::size_t>('0' + i)] = static_cast<std::int8_t>(i);
    for (int i = 0; i < 6; ++i)
        values[static_cast<std::size_t>('a' + i)] = values[static_cast<std::size_t>('A' + i)] = static_cast<std::int8_t>(10 + i);
    return values;
}();

int digitValue(char character) { return digitValues[static_cast<std::uint8_t>(character)]; }

/// Secret bytes that are decoded one field after another into the same memory.
class DecodedField {
public:
    void clear(std::size_t capacity)
    {
        if (memory_.size() < capacity) memory_.resize(capacity);
        size_ = 0;
    }
    void append(int high, int low) { memory_[size_++] = static_cast<std::uint8_t>(high << 4 | low); }
    bool isEmpty() const { return size_ == 0; }
    DataView view() const { return viewOf(memory_).sub(0, static_cast<std::int64_t>(size_)); }

private:
    SecretBytes memory_;
    std::size_t size_ = 0;
};

/// Decodes the digit pairs at the front of `text`; returns how many characters they took.
std::size_t takeDigits(std::string_view text, DecodedField& field)
{
    field.clear(text.size() / 2);
    std::size_t taken = 0;
    for (; taken + 2 <= text.size(); taken += 2) {
        const int high = digitValue(text[taken]);
        const int low = digitValue(text[taken + 1]);
        if ((high | low) < 0) break;
        field.append(high, low);
    }
    return taken;
}

bool decodeField(std::string_view text, DecodedField& field)
{
    field.clear(text.size() / 2);
    if (text.size() % 2 != 0) return false;
    for (std::size_t i = 0; i < text.size(); i += 2) {
        int high = digitValue(text[i]);
        const int low = digitValue(text[i + 1]);
        // A pair is read as a number of base 16, and a number may have a sign; a byte has no value below 0.
        if (text[i] == '+' || (text[i] == '-' && low == 0)) high = 0;
        if ((high | low) < 0) return false;
        field.append(high, low);
    }
    return true;
}

// The scalars around a position of a text, U+FFFD for bytes that are no UTF-8 and 0 beyond the ends.

char32_t scalarAt(std::string_view text, std::size_t position)
{
    if (position >= text.size()) return 0;
    const auto scalar = utf8::scalarAt(DataView(text), static_cast<std::int64_t>(position));
    return scalar ? scalar->value : U'\uFFFD';
}

/// Where the scalar begins that ends before `position`.
std::size_t scalarStartBefore(std::string_view text, std::size_t position)
{
    for (std::size_t length = 1; length <= 4 && length <= position; ++length) {
        const auto scalar = utf8::scalarAt(DataView(text), static_cast<std::int64_t>(position - length));
        if (scalar && scalar->length == static_cast<std::int64_t>(length)) return position - length;
    }
    return position - 1;
}

bool attachesToPrevious(char32_t scalar)
{
    if (scalar < 0x80) return false;
    const int property = uc_graphemeclusterbreak_property(scalar);
    return property == GBP_EXTEND || property == GBP_SPACINGMARK || property == GBP_ZWJ;
}

bool attachesToNext(char32_t scalar) { return scalar >= 0x80 && uc_graphemeclusterbreak_property(scalar) == GBP_PREPEND; }

/// Whether the scalar of `length` bytes at `position`, neither control nor mark, is a character by itself.
bool standsAlone(std::string_view text, std::size_t position, std::size_t length)
{
    if (position > 0 && attachesToNext(scalarAt(text, scalarStartBefore(text, position)))) return false;
    return !attachesToPrevious(scalarAt(text, position + length));
}

/// The space separators (general category Zs) and the tab.
bool isHorizontalSpace(char32_t scalar)
{
    if (scalar < 0x80) return scalar == U' ' || scalar == U'\t';
    return uc_is_general_category_withtable(scalar, UC_CATEGORY_MASK_Zs);
}

std::size_t encodedLength(char32_t scalar) { return scalar < 0x80 ? 1 : scalar < 0x800 ? 2 : 3; }

std::string_view trimmed(std::string_view line)
{
    std::size_t start = 0;
    while (start < line.size()) {
        const char32_t scalar = scalarAt(line, start);
        const std::size_t length = encodedLength(scalar);
        if (!isHorizontalSpace(scalar) || (scalar != U'\t' && !standsAlone(line, start, length))) break;
        start += length;
    }
    line.remove_prefix(start);
    while (!line.empty()) {
        const std::size_t last = scalarStartBefore(line, line.size());
        const char32_t scalar = scalarAt(line, last);
        if (!isHorizontalSpace(scalar) || (scalar != U'\t' && !standsAlone(line, last, line.size() - last))) break;
        line = line.substr(0, last);
    }
    return line;
}

/// Takes the text up to the next space that is a character by itself, and the run of such spaces behind it.
std::string_view takeField(std::string_view& rest)
{
    std::size_t end = 0;
    while (end < rest.size() && (rest[end] != ' ' || !standsAlone(rest, end, 1))) ++end;
    const std::string_view field = rest.substr(0, end);
    // A space that follows another space needs no look behind, and the one at `end` has had it.
    while (end < rest.size() && rest[end] == ' ' && !attachesToPrevious(scalarAt(rest, end + 1))) ++end;
    rest.remove_prefix(end);
    return field;
}

/// Bytes of the line break at the front of the text, 0 when there is none.
std::size_t lineBreakLength(std::string_view text)
{
    switch (static_cast<std::uint8_t>(text[0])) {
    case 0x0D: return text.starts_with("\r\n") ? 2 : 1;
    case 0x0A:
    case 0x0B:
    case 0x0C: return 1;
    case 0xC2: return text.starts_with("\u0085") ? 2 : 0;
    case 0xE2: return text.starts_with("\u2028") || text.starts_with("\u2029") ? 3 : 0;
    default: return 0;
    }
}

/// Reads a key log and hands each valid line to `put`: label, client random, secret, lent for the call.
template <class Put> class Parser {
public:
    explicit Parser(Put put) : put_(std::move(put)) {}

    TLSKeyLogLineCount parse(std::string_view text)
    {
        // A line feed is a break whatever stands around it, so what lies between two of them can be read by itself. One break
        // with a carriage return before it, it drops that as well.
        while (!text.empty()) {
            const std::size_t length = std::min(text.find('\n'), text.size());
            std::string_view part = text.substr(0, length);
            if (part.ends_with('\r')) part.remove_suffix(1);
            if (!takeUsualLine(part)) takeLines(part);
            ++lineNumber_;
            text.remove_prefix(std::min(length + 1, text.size()));
        }
        return count_;
    }

private:
    bool takeUsualLine(std::string_view line)
    {
        if (line.empty()) return true;
        std::size_t labelLength = 0;
        while (labelLength < line.size() && line[labelLength] > ' ' && line[labelLength] < 0x7F) ++labelLength;
        if (labelLength == 0 || line[0] == '#') return false;
        std::string_view rest = line.substr(labelLength);
        for (DecodedField* const field : {&clientRandom_, &secret_}) {
            if (!rest.starts_with(' ')) return false;
            rest.remove_prefix(1);
            rest.remove_prefix(takeDigits(rest, *field));
            if (field->isEmpty()) return false;
        }
        if (!rest.empty()) return false;
        countValid();
        put_(line.substr(0, labelLength), clientRandom_.view(), secret_.view());
        return true;
    }

    void takeLines(std::string_view part)
    {
        std::size_t start = 0;
        for (std::size_t position = 0; position < part.size();) {
            const std::size_t breakLength = lineBreakLength(part.substr(position));
            if (breakLength == 0) {
                ++position;
                continue;
            }
            takeLine(part.substr(start, position - start));
            ++lineNumber_;
            start = position += breakLength;
        }
        takeLine(part.substr(start));
    }

    void takeLine(std::string_view line)
    {
        std::string_view rest = trimmed(line);
        if (rest.empty() || (rest[0] == '#' && !attachesToPrevious(scalarAt(rest, 1)))) return;
        const std::string_view label = takeField(rest);
        // An empty field is one that is not there.
        const bool isValid = decodeField(takeField(rest), clientRandom_) && !clientRandom_.isEmpty() &&
                             decodeField(takeField(rest), secret_) && !secret_.isEmpty() && rest.empty();
        if (!isValid) {
            ++count_.lines;
            if (count_.firstInvalidLine == 0) count_.firstInvalidLine = lineNumber_;
            return;
        }
        countValid();
        if (utf8::isWellFormed(DataView(label)))
            put_(label, clientRandom_.view(), secret_.view());
        else
            put_(utf8::repaired(DataView(label)), clientRandom_.view(), secret_.view());
    }

    void countValid()
    {
        ++count_.lines;
        ++count_.validLines;
    }

    Put put_;
    TLSKeyLogLineCount count_;
    std::int64_t lineNumber_ = 1;
    DecodedField clientRandom_;
    DecodedField secret_;
};

}  // namespace

TLSKeyLog::TLSKeyLog(std::string_view text)
{
    // No line in use is shorter than that of an exporter secret of 32 bytes, which has 146 characters.
    TLSSecrets::Builder builder(static_cast<std::int64_t>(text.size() / 146));
    Parser([&](std::string_view label, DataView clientRandom, DataView secret) { builder.put(label, clientRandom, secret); }).parse(text);
    secrets = std::move(builder).take();
}

TLSKeyLogLineCount TLSKeyLog::countLines(std::string_view text)
{
    return Parser([](std::string_view, DataView, DataView) {}).parse(text);
}

std::optional<SecretBytes> TLSKeyLog::decodeHex(std::string_view text)
{
    DecodedField field;
    if (!decodeField(text, field)) return std::nullopt;
    return SecretBytes(field.view().begin(), field.view().end());
}

}  // namespace sealscope
