// SPDX-License-Identifier: Apache-2.0
#include "app/texts/SentenceReader.h"

namespace sealscope {

std::string SentenceReader::grouped(std::int64_t number) const
{
    std::string text = fmt::to_string(number);
    for (auto at = std::ssize(text) - 3; at > 0; at -= 3) text.insert(static_cast<std::size_t>(at), word(","));
    return text;
}

bool SentenceReader::append(std::string& text, std::string_view english, fmt::format_args values) const
{
    const std::string_view pattern = words(english);
    if (pattern.data() == english.data()) return false;
    const std::size_t length = text.size();
    try {
        fmt::vformat_to(std::back_inserter(text), fmt::string_view(pattern.data(), pattern.size()), values);
        return true;
    } catch (const fmt::format_error&) {
        text.resize(length);
        return false;
    }
}

}  // namespace sealscope
