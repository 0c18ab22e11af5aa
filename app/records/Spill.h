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
    explicit Spill(std::function<void(std::string&)> take, std::function<bool()> isWanted = {})
        : take_(std::move(take)), isWanted_(std::move(isWanted))
    {}
    /// Whether it is of use to go on.
    bool isWanted() const { return !isWanted_ || isWanted_(); }
    /// Whether a text of that size is to be taken away.
    bool isDue(std::size_t size) const { return size >= large && take_; }
    /// Called between pieces; takes the text away once it is large.
    void operator()(std::string& text) const
    {
        if (!isDue(text.size())) return;
        take_(text);
        text.clear();
    }

private:
    static constexpr std::size_t large = 256 * 1'024;
    std::function<void(std::string&)> take_;
    std::function<bool()> isWanted_;
};

}  // namespace sealscope
