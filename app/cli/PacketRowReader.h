// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/capture/Capture.h"
#include "app/capture/PacketDecoder.h"
#include "app/cli/PacketAnalyzers.h"
#include "app/cli/PacketRows.h"
#include "app/cli/Progress.h"

namespace sealscope::cli {

/// Finds the rows of the packet list in a capture.
class PacketRowReader {
public:
    PacketRowReader(Capture& capture, const PacketAnalyzers& analyzers, Progress& progress)
        : capture_(capture), analyzers_(analyzers), progress_(progress)
    {}

    /// The next row; its payload is lent until the one after it. False at the end, and when the user interrupts.
    bool next(PacketRow& row);
    std::int64_t packetCount() const { return packets_; }
    const DecoderNotes& notes() const { return decoder_.notes(); }

private:
    Capture& capture_;
    const PacketAnalyzers& analyzers_;
    Progress& progress_;
    PacketDecoder decoder_;
    CapturedPacket packet_;
    TCPPacket segment_;
    std::int64_t packets_ = 0;
};

}  // namespace sealscope::cli
