// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/capture/PacketDecoder.h"
#include "app/streams/GrowingBytes.h"
#include "app/streams/SequenceNumber.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>

namespace sealscope {

/// Puts one direction of a connection in order while its packets come. The first copy of a byte stays. What comes too early waits
/// for what belongs in front of it, until that will not come any more: it was lost where the receiver has acknowledged it, or
/// where too much waits for it.
class GrowingDirection {
public:
    /// The number of the first byte: one behind that of the SYN.
    void begin(std::uint32_t number);
    bool hasBegun() const { return next_.has_value(); }
    /// Takes a packet of the direction.
    void add(const TCPPacket& packet, std::int64_t packetNumber, double time);
    /// The other side has acknowledged everything in front of a number.
    void acknowledge(std::uint32_t number, double time);
    /// Nothing that is missing will come any more.
    void settle();
    /// The FIN and everything in front of it came.
    bool isOver() const { return finAt_ && bytes_->size() >= *finAt_; }

    GrowingBytes& bytes() const { return *bytes_; }
    const std::shared_ptr<GrowingBytes>& shared() const { return bytes_; }
    std::int64_t held() const { return bytes_->held() + waitingBytes_; }

private:
    struct Waiting {
        Data bytes;
        std::int64_t packet = 0;
        double time = 0;
    };
    void take(DataView bytes, std::int64_t packet, double time);
    /// Takes what waits and has its turn; `passesHoles` gives up what belongs in front of it.
    enum class Holes : std::uint8_t { stop, arePassed };
    void takeWaiting(Holes holes);

    std::shared_ptr<GrowingBytes> bytes_ = std::make_shared<GrowingBytes>();
    std::optional<std::uint32_t> next_;  ///< number of the byte at the end of `bytes_`
    std::map<std::int64_t, Waiting> waiting_;  ///< by offset
    std::int64_t waitingBytes_ = 0;
    std::optional<double> lackedSince_;  ///< when the receiver was first known to have what is missing here
    std::optional<std::int64_t> finAt_;
};

}  // namespace sealscope
