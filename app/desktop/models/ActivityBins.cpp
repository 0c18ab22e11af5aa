// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/models/ActivityBins.h"

#include <algorithm>
#include <limits>

namespace sealscope::desktop {

ActivityBins::Bin ActivityBins::highest() const
{
    Bin highest;
    for (const Bin& bin : bins) {
        highest.packets = std::max(highest.packets, bin.packets);
        highest.bytes = std::max(highest.bytes, bin.bytes);
    }
    return highest;
}

ActivityBins ActivityBins::count(const PacketIndex& packets, std::optional<std::pair<double, double>> times, std::size_t bins,
                                 const std::stop_token& stop)
{
    constexpr std::int64_t packetsPerLook = 1 << 16;
    const std::int64_t size = packets.size();
    if (size == 0 || bins == 0) return {};
    if (!times) {
        // Packets of several interfaces need not be in order of time.
        times = {std::numeric_limits<double>::max(), std::numeric_limits<double>::lowest()};
        for (std::int64_t position = 0; position < size; ++position) {
            if (position % packetsPerLook == 0 && stop.stop_requested()) return {};
            const double time = packets[position].time;
            times = {std::min(times->first, time), std::max(times->second, time)};
        }
    }
    ActivityBins counted{times->first, std::max(times->first, times->second), std::vector<Bin>(bins)};
    const double binsPerSecond = counted.duration() > 0 ? static_cast<double>(bins) / counted.duration() : 0;
    for (std::int64_t position = 0; position < size; ++position) {
        if (position % packetsPerLook == 0 && stop.stop_requested()) return {};
        const PacketEntry& entry = packets[position];
        if (entry.time < counted.start || entry.time > counted.end) continue;
        const double place = (entry.time - counted.start) * binsPerSecond;
        Bin& bin = counted.bins[static_cast<std::size_t>(std::clamp(place, 0.0, static_cast<double>(bins - 1)))];
        ++bin.packets;
        bin.bytes += entry.length;
    }
    return counted;
}

}  // namespace sealscope::desktop
