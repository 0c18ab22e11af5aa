// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/StreamMessage.h"
#include "host/VELModels/TCPStream.h"

#include <cstdint>

namespace sealscope SEALSCOPE_API {

/// Whether more of a stream may come.
enum class StreamExtent : std::uint8_t { growing, whole };

/// Reads a stream that still goes on. Used by one thread.
class StreamFollowing {
public:
    virtual ~StreamFollowing() = default;

    /// The stream by now: what it was before, with the same offsets, and more. Bytes in front of `neededFrom` may be gone, and read as
    /// lost ones. Gives what has become complete since, each message once: requests with their replies together. Of a stream that is
    /// whole it gives the rest. Bodies can be asked for until bytes of the stream are let go of.
    virtual StreamInterpretation goOn(const TCPStream& stream, StreamExtent extent) = 0;
    /// Where the bytes of a direction begin that are not done with.
    virtual std::int64_t neededFrom(TCPSegment::Direction direction) const = 0;
    /// Whether more may become complete when nothing more of the stream comes: once there are secrets for it.
    virtual bool waits() const { return false; }
    /// Bytes that it holds apart from the stream's.
    virtual std::int64_t held() const { return 0; }
};

}  // namespace sealscope SEALSCOPE_API
