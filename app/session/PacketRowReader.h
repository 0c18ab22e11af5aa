// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/capture/Capture.h"
#include "app/capture/PacketDecoder.h"
#include "app/capture/SegmentScan.h"
#include "app/session/PacketAnalyzers.h"

#include <cstdint>
#include <functional>
#include <stop_token>
#include <utility>

namespace sealscope {

/// A packet whose TCP payload makes an analyzer.
struct PacketRow {
    std::int64_t number = 0;
    double time = 0;  ///< seconds since 1970
    TCPStreamKey::Endpoint source;
    TCPStreamKey::Endpoint destination;
    DataView payload;
    PacketMatch match;
};

/// True when a segment makes a row; its payload is lent as the segment's is.
bool makeRow(const PacketAnalyzers& analyzers, const CapturedSegment& segment, PacketRow& row);

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
    CapturedSegment segment_;
};

/// Finds the rows of the packet list in a capture.
class PacketRowReader {
public:
    /// `progress` is told now and then how many bytes were read, of how many in all (negative when unknown).
    PacketRowReader(Capture& capture, const PacketAnalyzers& analyzers, std::stop_token stop,
                    std::function<void(std::int64_t, std::int64_t)> progress)
        : capture_(capture), analyzers_(analyzers), scan_(capture, nullptr, SegmentScan::Processors::all), stop_(std::move(stop)),
          progress_(std::move(progress))
    {}
    /// The next row; its payload is lent until the one after it. False at the end, and when it shall stop.
    bool next(PacketRow& row);
    /// All segments that are left, each of which may make a row, on all processors; see `SegmentScan::run`.
    template <class MakeWorker, class Take> void readAll(const MakeWorker& makeWorker, const Take& take)
    {
        scan_.run(makeWorker, [&](auto& worker, const SegmentBatch& batch) {
            tellProgress();
            return take(worker, batch) && !stop_.stop_requested();
        });
    }
    std::int64_t packetCount() const { return scan_.packetCount(); }
    const DecoderNotes& notes() const { return scan_.notes(); }

private:
    static constexpr std::int64_t packetsPerProgress = 256;

    void tellProgress()
    {
        if (scan_.packetCount() < nextProgress_) return;
        nextProgress_ = scan_.packetCount() + packetsPerProgress;
        progress_(scan_.bytesRead(), capture_.bytesTotal());
    }

    Capture& capture_;
    const PacketAnalyzers& analyzers_;
    SegmentScan scan_;
    std::stop_token stop_;
    std::function<void(std::int64_t, std::int64_t)> progress_;
    CapturedSegment segment_;
    std::int64_t nextProgress_ = packetsPerProgress;
};

}  // namespace sealscope
