// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/session/PacketIndex.h"

#include <cstdint>
#include <optional>
#include <stop_token>
#include <utility>
#include <vector>

namespace sealscope::desktop {

/// How many packets and bytes there were in each of equally long spans of time.
struct ActivityBins {
    struct Bin {
        std::int64_t packets = 0;
        std::int64_t bytes = 0;  ///< on the wire
    };
    double start = 0;  ///< seconds since 1970
    double end = 0;    ///< not before `start`
    std::vector<Bin> bins;

    double duration() const { return end - start; }
    Bin highest() const;

    /// Counts the packets that were read so far; `times` limits it to a span, with both ends. Empty when there are none.
    static ActivityBins count(const PacketIndex& packets, std::optional<std::pair<double, double>> times, std::size_t bins,
                              const std::stop_token& stop);
};

}  // namespace sealscope::desktop
