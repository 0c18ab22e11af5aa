// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/StreamBody.h"
#include "host/VELModels/StreamContext.h"
#include "host/VELModels/TCPStream.h"
#include "interpreters/HTTP/LostBytes.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace sealscope {

/// The payload of the data frames in a range of one direction, unmasked.
class WebSocketPayload {
public:
    WebSocketPayload(const TCPStream& stream, TCPSegment::Direction direction) : data_(stream.data(direction)), lost_(stream, direction) {}
    /// Hands over the payload of the message whose frames begin and end with a range, until `take` gives false; control frames may
    /// stand among those of a data message. Returns how much of
    /// it was lost.
    std::int64_t forEachPiece(ByteRange frames, const StreamBody::Take& take) const;

private:
    StreamData data_;
    LostBytes lost_;
};

/// The deflated messages of one direction (RFC 7692 §7.2). Each may refer to the 32 KiB before it, so that a message can only be made
/// when those before it were; every so often what the next one refers to is kept, and work starts there. Any thread may ask.
class WebSocketInflation {
public:
    /// What messages may refer to: those before them, or themselves alone ("no_context_takeover").
    enum class Context : std::uint8_t { isKept, beginsAnew };
    WebSocketInflation(const TCPStream& stream, TCPSegment::Direction direction, Context context, const StreamContext& limits)
        : payload_(stream, direction), context_(context), limit_(limits.largestDecodedBody), allowance_(limits.decodingAllowance),
          mostMessages_(250'000 + static_cast<std::size_t>(stream.data(direction).size() / 64))
    {}

    /// Adds a message while the direction is read; returns its position, or nothing where there are too many for their bytes.
    std::optional<std::size_t> add(ByteRange frames)
    {
        const std::lock_guard lock(listMutex_);
        if (messages_.size() >= mostMessages_) return std::nullopt;
        messages_.push_back(frames);
        if (allowance_) shares_.emplace_back();
        return messages_.size() - 1;
    }
    StreamBody::Ending forEachPiece(std::size_t message, const StreamBody::Take& take) const;

private:
    /// What messages from one on may refer to.
    struct Checkpoint {
        std::size_t message = 0;
        std::vector<std::uint8_t> window;
    };
    ByteRange rangeOf(std::size_t message) const
    {
        const std::lock_guard lock(listMutex_);
        return messages_[message];
    }
    std::int64_t allow(std::size_t message, std::int64_t made, std::int64_t count) const;
    /// Inflates one message behind a window, which becomes the next one's.
    StreamBody::Ending inflate(std::size_t message, std::vector<std::uint8_t>& window, const StreamBody::Take& take) const;

    WebSocketPayload payload_;
    Context context_;
    std::int64_t limit_;
    std::shared_ptr<DecodingAllowance> allowance_;
    std::size_t mostMessages_;
    std::vector<ByteRange> messages_;
    mutable std::mutex mutex_, listMutex_;       ///< of what was inflated, and of the lists of messages
    mutable std::vector<DecodingShare> shares_;  ///< of the messages, where there is an allowance
    mutable std::vector<Checkpoint> checkpoints_;
    mutable Checkpoint latest_;  ///< before the message that was asked for last
};

}  // namespace sealscope
