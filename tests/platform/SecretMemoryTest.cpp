// SPDX-License-Identifier: Apache-2.0
#include "platform/SecretMemory.h"

#include "tests/support/Sanitizer.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <gtest/gtest.h>
#include <string>

namespace sealscope {

namespace {

/// Whether the kernel leaves the memory at an address out of cores.
bool isLeftOut(const void* address)
{
    std::ifstream maps("/proc/self/smaps");
    bool isThere = false;
    for (std::string line; std::getline(maps, line);) {
        unsigned long begin = 0, end = 0;
        if (std::sscanf(line.c_str(), "%lx-%lx ", &begin, &end) == 2) {
            const auto place = reinterpret_cast<unsigned long>(address);
            isThere = place >= begin && place < end;
        }
        if (isThere && line.starts_with("VmFlags:")) return line.contains(" dd");
    }
    return false;
}

TEST(SecretMemory, IsWipedAndInNoCore)
{
    if (isSanitized) GTEST_SKIP() << "the sanitizer's own memory is used";
    for (const std::size_t size : {16, 48, 4'096, 200'000, 300'000, 5'000'000}) {
        SecretText text(size, 'x');
        EXPECT_TRUE(isLeftOut(text.data())) << size;
        EXPECT_TRUE(isLeftOut(SecretBytes(size, 0xAB).data())) << size;
        void* const raw = allocateSecret(size);
        std::fill_n(static_cast<std::uint8_t*>(raw), size, std::uint8_t{0xCD});
        releaseSecret(raw, size);
        void* const next = allocateSecret(size);
        // Where it is free it names the next free piece.
        EXPECT_EQ(std::count(static_cast<std::uint8_t*>(next) + sizeof(void*), static_cast<std::uint8_t*>(next) + size, 0xCD), 0) << size;
        releaseSecret(next, size);
    }
}

}  // namespace

}  // namespace sealscope
