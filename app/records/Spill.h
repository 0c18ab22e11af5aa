// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <utility>

namespace sealscope {

/// Where a text goes piece by piece while it is being made, when it may become too large to be held. Without a place it
/// stays.
class Spill {
public:
    Spill() = default;
    explicit Spill(std::function<void(std::string&)> take) : take_(std::move(take)) {}
    /// Called between pieces; takes the text away once it is large.
    void operator()(std::string& text) const
    {
        constexpr std::size_t large = 256 * 1'024;
        if (!take_ || text.size() < large) return;
        take_(text);
        text.clear();
    }

private:
    std::function<void(std::string&)> take_;
};

}  // namespace sealscope
