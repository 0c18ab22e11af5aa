// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/capture/Capture.h"
#include "app/capture/PacketDecoder.h"
#include "app/cli/PacketAnalyzers.h"
#include "app/cli/PacketRows.h"
#include "app/cli/Progress.h"

namespace sealscope::cli {

/// Makes rows of the packet list from packets in capture order.
class PacketRowMaker {
public:
    explicit PacketRowMaker(const PacketAnalyzers& analyzers) : analyzers_(analyzers) {}
    /// True when the packet makes a row; its payload is lent as the packet's frame is.
    bool make(const CapturedPacket& packet, PacketRow& row);
    const DecoderNotes& notes() const { return decoder_.notes(); }

private:
    const PacketAnalyzers& analyzers_;
    PacketDecoder decoder_;
    TCPPacket segment_;
};

/// Finds the rows of the packet list in a capture.
class PacketRowReader {
public:
    PacketRowReader(Capture& capture, const PacketAnalyzers& analyzers, Progress& progress)
        : capture_(capture), maker_(analyzers), progress_(progress)
    {}
    /// The next row; its payload is lent until the one after it. False at the end, and when the user interrupts.
    bool next(PacketRow& row);
    std::int64_t packetCount() const { return packets_; }
    const DecoderNotes& notes() const { return maker_.notes(); }

private:
    Capture& capture_;
    PacketRowMaker maker_;
    Progress& progress_;
    CapturedPacket packet_;
    std::int64_t packets_ = 0;
};

}  // namespace sealscope::cli
