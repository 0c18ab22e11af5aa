// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <fmt/compile.h>
#include <fmt/format.h>
#include <iterator>
#include <string>
#include <string_view>
#include <type_traits>

namespace sealscope {

/// Who reads a sentence: where, since what to do about a stream is done with options here and with buttons there, and in which
/// language. Sentences stand in English where they are made, as patterns with places for what is filled in; a pattern is a whole
/// sentence or clause, so that other languages can say it in their way. Any thread may ask.
struct SentenceReader {
    enum class Place : std::uint8_t { commandLine, window };
    /// Gives a pattern in the reader's language, in words that live as long as the program; what it got where there is none.
    using Words = std::string_view (*)(std::string_view english);

    Place place = Place::commandLine;
    Words words = nullptr;  ///< null for English

    /// A text without places.
    std::string_view word(std::string_view english) const { return words ? words(english) : english; }
    /// A number in groups of three digits.
    std::string grouped(std::int64_t number) const;

    template <class... Values> std::string say(fmt::format_string<Values...> english, const Values&... values) const
    {
        std::string text;
        const fmt::string_view pattern = english;
        if (!appendTranslated(text, {pattern.data(), pattern.size()}, values...))
            return fmt::vformat(pattern, fmt::make_format_args(values...));
        return text;
    }
    /// A sentence about a number of things, which differs for one of them.
    template <class... Values>
    std::string sayOf(std::int64_t count, fmt::format_string<Values...> one, fmt::format_string<Values...> several,
                      const Values&... values) const
    {
        return say(count == 1 ? one : several, values...);
    }
    /// Appends a sentence whose English is made often, so its pattern is read when this is compiled: FMT_COMPILE("…").
    template <class English, class... Values> void sayInto(std::string& text, English english, const Values&... values) const
    {
        const fmt::string_view pattern(english);
        if (!appendTranslated(text, {pattern.data(), pattern.size()}, values...))
            fmt::format_to(std::back_inserter(text), english, values...);
    }

private:
    /// Nothing where the language has no such pattern, or one that does not fit its values.
    template <class... Values> bool appendTranslated(std::string& text, std::string_view english, const Values&... values) const
    {
        return words && appendPattern(text, english, shown(values)...);
    }
    template <class... Shown> bool appendPattern(std::string& text, std::string_view english, const Shown&... shown) const
    {
        return append(text, english, fmt::make_format_args(shown...));
    }
    bool append(std::string& text, std::string_view english, fmt::format_args values) const;
    /// Numbers are grouped as the language does.
    template <class Value> decltype(auto) shown(const Value& value) const
    {
        if constexpr (std::is_integral_v<Value>)
            return grouped(static_cast<std::int64_t>(value));
        else
            return (value);
    }
};

}  // namespace sealscope
