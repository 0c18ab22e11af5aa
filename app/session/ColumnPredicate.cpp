// SPDX-License-Identifier: Apache-2.0
#include "app/session/ColumnPredicate.h"

#include "platform/UTF8.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdlib>
#include <memory>
#include <unicase.h>
#include <unictype.h>
#include <uninorm.h>
#include <utility>
#include <vector>

namespace sealscope {

namespace {

bool isSpace(char character) { return character == ' ' || character == '\t'; }

std::vector<std::string_view> words(std::string_view text)
{
    std::vector<std::string_view> words;
    while (true) {
        const auto begin = std::ranges::find_if_not(text, isSpace);
        if (begin == text.end()) return words;
        const auto end = std::find_if(begin, text.end(), isSpace);
        words.emplace_back(begin, end);
        text = {end, text.end()};
    }
}

std::string upper(std::string_view text)
{
    std::string result(text);
    for (char& character : result)
        if (character >= 'a' && character <= 'z') character = static_cast<char>(character - 'a' + 'A');
    return result;
}

std::optional<double> numberOf(std::string_view text)
{
    double number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() ? std::optional(number) : std::nullopt;
}

bool isASCII(std::string_view text)
{
    return std::ranges::all_of(text, [](char character) { return static_cast<unsigned char>(character) < 0x80; });
}

/// What libunistring gives for a text, which it allocates.
template <class Convert> std::string converted(std::string_view text, const Convert& convert)
{
    std::size_t size = 0;
    const std::unique_ptr<std::uint8_t, decltype(&std::free)> result(
        convert(reinterpret_cast<const std::uint8_t*>(text.data()), text.size(), &size), &std::free);
    return result ? std::string(reinterpret_cast<const char*>(result.get()), size) : std::string(text);
}

std::string withoutMarks(std::string_view text)
{
    const std::string apart = converted(text, [](const std::uint8_t* bytes, std::size_t length, std::size_t* size) {
        return u8_normalize(UNINORM_NFD, bytes, length, nullptr, size);
    });
    std::string result;
    const DataView bytes(apart);
    for (std::int64_t offset = 0; offset < bytes.size();) {
        const auto scalar = utf8::scalarAt(bytes, offset);
        const std::int64_t length = scalar ? scalar->length : 1;
        if (!scalar || !uc_is_general_category_withtable(scalar->value, UC_CATEGORY_MASK_Mn)) result += bytes.sub(offset, length).text();
        offset += length;
    }
    return result;
}

}  // namespace

std::optional<ColumnPredicate> ColumnPredicate::parse(std::string_view format)
{
    const std::vector<std::string_view> parts = words(format);
    if (parts.size() != 3 || parts[2] != "$value") return std::nullopt;
    std::string name = upper(parts[1]);
    ColumnPredicate predicate;
    predicate.key_ = parts[0];
    if (const std::size_t bracket = name.find('['); bracket != std::string::npos) {
        for (const char option : std::string_view(name).substr(bracket + 1)) {
            if (option == 'C') predicate.ignoresCase_ = true;
            if (option == 'D') predicate.ignoresMarks_ = true;
        }
        name.resize(bracket);
    }
    static constexpr std::array<std::pair<std::string_view, Operator>, 10> operators{{
        {"CONTAINS", Operator::contains},
        {"BEGINSWITH", Operator::beginsWith},
        {"ENDSWITH", Operator::endsWith},
        {"==", Operator::equals},
        {"=", Operator::equals},
        {"!=", Operator::differs},
        {"<", Operator::less},
        {"<=", Operator::lessOrEqual},
        {">", Operator::greater},
        {">=", Operator::greaterOrEqual},
    }};
    const auto found = std::ranges::find(operators, name, &std::pair<std::string_view, Operator>::first);
    if (found == operators.end()) return std::nullopt;
    predicate.operator_ = found->second;
    return predicate;
}

std::string ColumnPredicate::folded(std::string_view text) const
{
    if (isASCII(text)) {
        // Nearly all of them, and a filter looks at a million.
        return ignoresCase_ ? upper(text) : std::string(text);
    }
    std::string result = utf8::repaired(DataView(text));
    if (ignoresMarks_) result = withoutMarks(result);
    if (!ignoresCase_) return result;
    result = converted(result, [](const std::uint8_t* bytes, std::size_t length, std::size_t* size) {
        return u8_casefold(bytes, length, nullptr, UNINORM_NFC, nullptr, size);
    });
    return upper(result);  // as the ASCII in a text without anything else
}

ColumnPredicate ColumnPredicate::with(std::string_view text) const
{
    ColumnPredicate predicate = *this;
    predicate.text_ = folded(text);
    predicate.number_ = numberOf(text);
    return predicate;
}

bool ColumnPredicate::acceptsNumber(double value) const
{
    switch (operator_) {
    case Operator::equals: return value == *number_;
    case Operator::differs: return value != *number_;
    case Operator::less: return value < *number_;
    case Operator::lessOrEqual: return value <= *number_;
    case Operator::greater: return value > *number_;
    case Operator::greaterOrEqual: return value >= *number_;
    default: return false;
    }
}

bool ColumnPredicate::accepts(const std::optional<VELValue>& value) const
{
    if (!value) return operator_ == Operator::differs;
    const bool isCompared = operator_ > Operator::endsWith;
    if (isCompared && number_) {
        if (const auto* whole = std::get_if<std::int64_t>(&*value)) return acceptsNumber(static_cast<double>(*whole));
        if (const auto* real = std::get_if<double>(&*value)) return acceptsNumber(*real);
    }
    const std::string text = folded(displayText(*value));
    switch (operator_) {
    case Operator::contains: return text.contains(text_);
    case Operator::beginsWith: return text.starts_with(text_);
    case Operator::endsWith: return text.ends_with(text_);
    case Operator::equals: return text == text_;
    case Operator::differs: return text != text_;
    case Operator::less: return text < text_;
    case Operator::lessOrEqual: return text <= text_;
    case Operator::greater: return text > text_;
    case Operator::greaterOrEqual: return text >= text_;
    }
    std::unreachable();
}

}  // namespace sealscope
