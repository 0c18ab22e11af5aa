// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/models/FilterTerms.h"

namespace sealscope::desktop {

namespace {

char lowered(char letter) { return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter + ('a' - 'A')) : letter; }

}  // namespace

std::string lowerCase(std::string_view text)
{
    std::string lower(text);
    std::ranges::transform(lower, lower.begin(), lowered);
    return lower;
}

bool containsLowered(std::string_view text, std::string_view wanted)
{
    if (wanted.empty()) return true;
    if (text.size() < wanted.size()) return false;
    const std::size_t last = text.size() - wanted.size();
    for (std::size_t at = 0; at <= last; ++at) {
        std::size_t same = 0;
        while (same < wanted.size() && lowered(text[at + same]) == wanted[same]) ++same;
        if (same == wanted.size()) return true;
    }
    return false;
}

FilterTerms::FilterTerms(std::string_view typed)
{
    for (std::size_t at = 0; at < typed.size();) {
        const std::size_t end = std::min(typed.find(' ', at), typed.size());
        if (end > at) terms_.push_back(lowerCase(typed.substr(at, end - at)));
        at = end + 1;
    }
}

}  // namespace sealscope::desktop
