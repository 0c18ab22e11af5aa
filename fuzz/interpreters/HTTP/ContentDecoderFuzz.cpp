// SPDX-License-Identifier: Apache-2.0
// Content codings. An input is: the codings (1 byte: two bits each, their number in the highest two), bytes a piece (1), the data.
#include "fuzz/Require.h"
#include "interpreters/HTTP/ContentDecoder.h"

#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace sealscope;
    const DataView input(data, static_cast<std::int64_t>(size));
    std::vector<ContentCoding> codings;
    for (int i = 0; i <= input.u8(0) >> 6; ++i) codings.push_back(static_cast<ContentCoding>(input.u8(0) >> (2 * (i % 3)) & 3));
    const auto decode = [&](std::int64_t step) {
        constexpr std::int64_t limit = 1 << 18;
        ContentDecoder decoder(codings, limit);
        std::vector<std::uint8_t> bytes;
        for (std::int64_t offset = 2; offset < input.size(); offset += step) {
            const auto take = [&](DataView piece) {
                bytes.insert(bytes.end(), piece.begin(), piece.end());
                return true;
            };
            if (!decoder.push(input.sub(offset, step), take)) break;
        }
        require(std::ssize(bytes) <= limit && std::ssize(bytes) == decoder.decodedBytes(), "no more than the limit is made");
        require(decoder.end().isComplete == decoder.end().reason.empty(), "what is incomplete says why");
        return bytes;
    };
    const auto small = decode(input.u8(1) + 1), whole = decode(input.size());
    const auto common = std::min(small.size(), whole.size());
    require(std::equal(small.begin(), small.begin() + static_cast<std::ptrdiff_t>(common), whole.begin()),
            "pieces give what the whole gives");
    return 0;
}
