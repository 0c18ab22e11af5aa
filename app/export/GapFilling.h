// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/StreamData.h"
#include "host/VELModels/TLSDecryptionProbeRegistry.h"

#include <cstdint>
#include <string>

namespace sealscope {

/// What stands in plaintext in place of application data that could not be opened.
enum class GapFilling : std::uint8_t {
    zeros,  ///< as many zeros, where it is known how many bytes there were
    skip,   ///< nothing
    mark,   ///< a line that says so; in a capture sequence numbers that pass over them, as for segments that were lost
};

/// Fills the gaps of one direction, one after another. Used by one thread.
class GapFiller {
public:
    GapFiller(GapFilling filling, const StreamData& captured)
        : filling_(filling), zerosLeft_(captured.size() - captured.holeBytes() + leastZeros)
    {}

    /// What to do about a gap.
    struct Fill {
        std::int64_t zeros = 0;
        std::string mark;         ///< as a line of text; empty for none
        std::int64_t passed = 0;  ///< bytes that sequence numbers pass over
    };
    Fill fill(const PlaintextGap& gap);

private:
    /// Two packets can claim terabytes between them: there are no more zeros than bytes were captured, and some.
    static constexpr std::int64_t leastZeros = 16 << 20;
    GapFilling filling_;
    std::int64_t zerosLeft_;
};

}  // namespace sealscope
