// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Export.h"

#include <cstdint>
#include <memory>

namespace sealscope SEALSCOPE_API {

/// One captured TCP segment of a connection.
struct TCPSegment {
    /// Who sent it. The order of the cases is part of the contract: client before server.
    enum class Direction : std::uint8_t { clientToServer, serverToClient };

    Direction direction = Direction::clientToServer;
    std::int64_t packetId = 0;         ///< of the packet that carried it
    std::uint32_t sequenceNumber = 0;  ///< of its first byte, or of its SYN (RFC 9293 §3.1)
    std::int64_t payloadLength = 0;    ///< bytes
    double timestamp = 0;              ///< seconds since 1970
    bool operator==(const TCPSegment&) const = default;
};

constexpr TCPSegment::Direction opposite(TCPSegment::Direction direction)
{
    return direction == TCPSegment::Direction::clientToServer ? TCPSegment::Direction::serverToClient
                                                              : TCPSegment::Direction::clientToServer;
}

/// Where a connection's segments are kept. Implementations are immutable and may be read from any thread.
class TCPSegmentSource {
public:
    virtual ~TCPSegmentSource() = default;
    virtual std::int64_t count() const = 0;
    /// The segment at a position 0 ..< count(), in capture order.
    virtual TCPSegment segment(std::int64_t position) const = 0;
};

/// The segments of a connection in capture order; read from their source one by one, not held. Cheap to copy.
class TCPSegments {
public:
    TCPSegments() = default;
    explicit TCPSegments(std::shared_ptr<const TCPSegmentSource> source) : source_(std::move(source)) {}
    std::int64_t size() const { return source_ ? source_->count() : 0; }
    TCPSegment operator[](std::int64_t position) const { return source_->segment(position); }

private:
    std::shared_ptr<const TCPSegmentSource> source_;
};

}  // namespace sealscope SEALSCOPE_API
