// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/StreamMessage.h"

#include <algorithm>
#include <optional>

namespace sealscope SEALSCOPE_API {

/// What was asked, and what came back. One of the two is always there.
struct StreamExchange {
    std::optional<StreamMessage> request;
    std::optional<StreamMessage> reply;

    /// Of the first byte, in seconds since 1970.
    double time() const { return request ? request->timestamp : reply->timestamp; }
    /// From the request's first byte to the reply's last, in seconds; nothing when either is missing.
    std::optional<double> duration() const
    {
        if (!request || !reply) return std::nullopt;
        return std::max(0.0, reply->endTimestamp.value_or(reply->timestamp) - request->timestamp);
    }
};

/// Hands over the exchanges of one stream in the order of their times, and makes each when its turn comes. Used by one thread at a
/// time; keeps what it needs of the stream.
class StreamExchangeReader {
public:
    virtual ~StreamExchangeReader() = default;
    /// The time of the next one; nothing after the last.
    virtual std::optional<double> nextTime() const = 0;
    /// Takes the next one, which is there, in place of what `exchange` held.
    virtual void next(StreamExchange& exchange) = 0;
    /// Whether it puts the context's `rowsInFront` in front of each message's rows.
    virtual bool addsRowsInFront() const { return false; }
};

}  // namespace sealscope SEALSCOPE_API
