// SPDX-License-Identifier: Apache-2.0
#include "platform/HKDF.h"

#include <algorithm>
#include <array>

namespace sealscope {

bool hkdfExpand(HMAC& pseudoRandomKey, DataView info, std::span<std::uint8_t> output)
{
    const auto blockSize = static_cast<std::size_t>(digestSize(pseudoRandomKey.hash()));
    if (output.size() > 255 * blockSize) return false;
    std::array<std::uint8_t, 48> block;
    for (std::uint8_t counter = 1; !output.empty(); ++counter) {
        // T(n) = HMAC(PRK, T(n-1) | info | n), and T(0) is empty.
        if (counter > 1) pseudoRandomKey.update({block.data(), static_cast<std::int64_t>(blockSize)});
        pseudoRandomKey.update(info);
        pseudoRandomKey.update({&counter, 1});
        pseudoRandomKey.finish({block.data(), blockSize});
        const std::size_t taken = std::min(blockSize, output.size());
        std::copy_n(block.begin(), taken, output.begin());
        output = output.subspan(taken);
    }
    wipe(block.data(), block.size());
    return true;
}

}  // namespace sealscope
