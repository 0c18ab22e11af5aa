// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/models/TextPool.h"

#include "app/desktop/models/FilterTerms.h"

#include <algorithm>
#include <numeric>
#include <tuple>

namespace sealscope::desktop {

std::uint32_t TextPool::number(std::string_view text)
{
    if (const auto found = numbers_.find(text); found != numbers_.end()) return found->second;
    const std::uint32_t number = size();
    numbers_.emplace(texts_.emplace_back(text), number);
    return number;
}

const std::vector<std::uint32_t>& TextPool::ranks() const
{
    if (ranks_.size() == texts_.size()) return ranks_;
    std::vector<std::string> lower;
    lower.reserve(texts_.size());
    for (const std::string& text : texts_) lower.push_back(lowerCase(text));
    std::vector<std::uint32_t> sorted(texts_.size());
    std::iota(sorted.begin(), sorted.end(), 0U);
    std::ranges::sort(sorted, {}, [&](std::uint32_t number) {
        return std::tuple(number == 0, std::string_view(lower[number]), std::string_view(texts_[number]));
    });
    ranks_.resize(sorted.size());
    for (std::uint32_t rank = 0; rank < sorted.size(); ++rank) ranks_[sorted[rank]] = rank;
    return ranks_;
}

}  // namespace sealscope::desktop
