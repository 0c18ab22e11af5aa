// SPDX-License-Identifier: Apache-2.0
#include "app/streams/GrowingDirection.h"

#include <algorithm>
#include <utility>

namespace sealscope {

namespace {

// Packets of two queues or interfaces may be captured in another order than they were sent in.
constexpr double disorder = 0.05;  // seconds
constexpr std::int64_t mostWaiting = plausibleFlight;
constexpr std::size_t mostWaitingPackets = 1'024;
constexpr std::int64_t largestLoss = std::int64_t{1} << 30;

}  // namespace

void GrowingDirection::begin(std::uint32_t number)
{
    if (!next_) next_ = number;
}

void GrowingDirection::add(const TCPPacket& packet, std::int64_t packetNumber, double time)
{
    if (packet.flags & TCPFlag::rst) return;
    const bool isSYN = packet.flags & TCPFlag::syn;
    const std::uint32_t number = packet.sequenceNumber + (isSYN ? 1 : 0);
    if (isSYN || packet.payloadLength > 0) begin(number);
    if (!next_) return;
    std::int64_t offset = bytes_->size() + sequenceDistance(*next_, number);
    const std::int64_t end = offset + packet.payloadLength;
    if (offset > bytes_->size() + largestLoss) return;  // of no stream of this connection
    if (packet.flags & TCPFlag::fin) finAt_ = end;
    DataView payload = packet.payload;
    if (offset < bytes_->size()) {
        payload = payload.from(bytes_->size() - offset);
        offset = bytes_->size();
    }
    if (end <= bytes_->size()) return;
    if (offset == bytes_->size()) {
        take(payload, packetNumber, time);
        // What the snapshot length cut off.
        if (end > bytes_->size() && waiting_.empty()) {
            next_ = *next_ + static_cast<std::uint32_t>(end - bytes_->size());
            bytes_->appendHole(end - bytes_->size());
        }
        takeWaiting(Holes::stop);
    } else if (!payload.isEmpty() && waiting_.try_emplace(offset, Waiting{Data(payload), packetNumber, time}).second) {
        waitingBytes_ += payload.size();
    }
    if (waitingBytes_ > mostWaiting || waiting_.size() > mostWaitingPackets) settle();
}

void GrowingDirection::acknowledge(std::uint32_t number, double time)
{
    if (!next_ || waiting_.empty()) return;
    const std::int64_t acknowledged = bytes_->size() + sequenceDistance(*next_, number);
    if (acknowledged < waiting_.begin()->first) return;
    if (!lackedSince_) lackedSince_ = time;
    if (time - *lackedSince_ >= disorder) settle();
}

void GrowingDirection::settle() { takeWaiting(Holes::arePassed); }

void GrowingDirection::take(DataView bytes, std::int64_t packet, double time)
{
    bytes_->append(bytes, {.timestamp = time, .packetIds = {packet}});
    next_ = *next_ + static_cast<std::uint32_t>(bytes.size());
    lackedSince_.reset();
}

void GrowingDirection::takeWaiting(Holes holes)
{
    while (!waiting_.empty() && (holes == Holes::arePassed || waiting_.begin()->first <= bytes_->size())) {
        const auto node = waiting_.extract(waiting_.begin());
        const Waiting& waiting = node.mapped();
        waitingBytes_ -= waiting.bytes.size();
        const std::int64_t lost = node.key() - bytes_->size();
        if (lost > 0) {
            bytes_->appendHole(lost);
            next_ = *next_ + static_cast<std::uint32_t>(lost);
        }
        take(waiting.bytes.view().from(std::max<std::int64_t>(-lost, 0)), waiting.packet, waiting.time);
    }
}

}  // namespace sealscope
