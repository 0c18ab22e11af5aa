// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/capture/Capture.h"
#include "app/capture/PacketDecoder.h"
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
    /// `progress` is told now and then how many bytes were read, of how many in all (negative when unknown).
    PacketRowReader(Capture& capture, const PacketAnalyzers& analyzers, std::stop_token stop,
                    std::function<void(std::int64_t, std::int64_t)> progress)
        : capture_(capture), maker_(analyzers), stop_(std::move(stop)), progress_(std::move(progress))
    {}
    /// The next row; its payload is lent until the one after it. False at the end, and when it shall stop.
    bool next(PacketRow& row);
    std::int64_t packetCount() const { return packets_; }
    const DecoderNotes& notes() const { return maker_.notes(); }

private:
    Capture& capture_;
    PacketRowMaker maker_;
    std::stop_token stop_;
    std::function<void(std::int64_t, std::int64_t)> progress_;
    CapturedPacket packet_;
    std::int64_t packets_ = 0;
};

}  // namespace sealscope
