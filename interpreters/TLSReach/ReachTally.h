// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/TLSDecryptionProbeRegistry.h"
#include "interpreters/TLSReach/ReachWalk.h"

#include <cstdint>

namespace sealscope {

class ReachConnection;

/// Counts what a walk opens and steps over. Whoever walks hands over each record.
class ReachTally {
public:
    /// After each record that opened.
    void take(const ReachWalk& walk);
    /// After the last: how far the direction opened, and what stands where it stopped.
    TLSDirectionReport report(const ReachWalk& walk, const ReachConnection& connection, TCPSegment::Direction direction);

private:
    TLSDirectionReport report_;
};

/// The facts about a stream, with the secrets of a moment.
TLSDecryptionReport reachReport(ReachConnection& connection, ReportDepth depth);

}  // namespace sealscope
