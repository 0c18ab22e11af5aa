// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

namespace sealscope::desktop {

/// A text with the letters of ASCII in lower case.
std::string lowerCase(std::string_view text);
/// Whether a text contains another, which is in lower case, whatever the case of its own letters.
bool containsLowered(std::string_view text, std::string_view lowered);

/// What a user types to find rows: words, each of which one of a row's texts has to contain.
class FilterTerms {
public:
    FilterTerms() = default;
    explicit FilterTerms(std::string_view typed);

    bool isEmpty() const { return terms_.empty(); }
    const std::vector<std::string>& terms() const { return terms_; }
    /// Whether `contains(term)` holds of each.
    template <class Contains> bool hold(const Contains& contains) const { return std::ranges::all_of(terms_, contains); }
    bool operator==(const FilterTerms&) const = default;

private:
    std::vector<std::string> terms_;
};

}  // namespace sealscope::desktop
