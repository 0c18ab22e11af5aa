// SPDX-License-Identifier: Apache-2.0
#include "platform/Data.h"

namespace sealscope {

Data::Data(DataView bytes)
{
    if (bytes.isEmpty()) return;
    auto copy = std::make_shared_for_overwrite<std::uint8_t[]>(static_cast<std::size_t>(bytes.size()));
    std::memcpy(copy.get(), bytes.data(), static_cast<std::size_t>(bytes.size()));
    view_ = {copy.get(), bytes.size()};
    owner_ = std::move(copy);
}

Data::Data(std::vector<std::uint8_t>&& bytes)
{
    auto owned = std::make_shared<const std::vector<std::uint8_t>>(std::move(bytes));
    view_ = DataView(*owned);
    owner_ = std::move(owned);
}

std::string hexText(DataView bytes)
{
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(static_cast<std::size_t>(bytes.size()) * 2);
    for (const std::uint8_t byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

}  // namespace sealscope
