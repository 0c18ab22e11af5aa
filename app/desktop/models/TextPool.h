// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace sealscope::desktop {

/// Texts that many rows share, each held once: rows hold numbers, and are sorted and filtered by them.
class TextPool {
public:
    /// The empty text is number 0.
    TextPool() { number({}); }
    std::uint32_t number(std::string_view text);
    const std::string& operator[](std::uint32_t number) const { return texts_[number]; }
    std::uint32_t size() const { return static_cast<std::uint32_t>(texts_.size()); }
    /// For each text its place in the order of all, upper and lower case next to each other; the empty text is the last.
    const std::vector<std::uint32_t>& ranks() const;

    TextPool(const TextPool&) = delete;
    TextPool& operator=(const TextPool&) = delete;

private:
    std::deque<std::string> texts_;  ///< never moved, since the keys of `numbers_` look into them
    std::unordered_map<std::string_view, std::uint32_t> numbers_;
    mutable std::vector<std::uint32_t> ranks_;
};

}  // namespace sealscope::desktop
