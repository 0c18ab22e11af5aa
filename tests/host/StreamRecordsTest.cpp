// SPDX-License-Identifier: Apache-2.0
#include "harness/Hex.h"
#include "host/VELCommonTools/ByteReaders.h"
#include "host/VELModels/ByteToSegmentIndex.h"
#include "host/VELModels/VELStreamInterpreting.h"

#include <cstring>
#include <gtest/gtest.h>

namespace sealscope {
namespace {

TEST(ByteReaders, LoadNativeIntegersThatLieInsideTheBuffer)
{
    const Data whole = hex("00 01 02 03 04 05");
    const DataView bytes = slice(whole, 1);  // offsets count from the slice's first byte
    const auto native = [&](auto value, std::int64_t offset) {
        std::memcpy(&value, bytes.data() + offset, sizeof value);
        return value;
    };
    EXPECT_EQ(loadUnaligned<std::uint8_t>(bytes, 4), 5);
    EXPECT_EQ(loadUnaligned<std::uint16_t>(bytes, 3), native(std::uint16_t{}, 3));
    EXPECT_EQ(loadUnaligned<std::uint32_t>(bytes, 1), native(std::uint32_t{}, 1));
    for (const std::int64_t outside : {-1, 5, 6}) EXPECT_EQ(loadUnaligned<std::uint8_t>(bytes, outside), std::nullopt) << outside;
    EXPECT_EQ(loadUnaligned<std::uint16_t>(bytes, 4), std::nullopt) << "cut by the end";
    EXPECT_EQ(slice(whole, 2, 3), hex("02 03 04"));
}

TEST(ByteToSegmentIndex, KnowsNoTimeWherePacketsCarriedNothing)
{
    const ByteToSegmentIndex index({{{0, 5}, {}, 1.5}, {{5, 10}, {7}, 3.5}, {{8, 12}, {}, 2.5}});
    EXPECT_EQ(index.locate({0, 5}), ByteLocation{});
    EXPECT_EQ(index.locate({10, 12}), ByteLocation{});
    EXPECT_EQ(index.locate({0, 12}), (ByteLocation{3.5, {7}}));
}

}  // namespace
}  // namespace sealscope
