// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "harness/TLSSession.h"
#include "host/VELModels/TCPStream.h"

#include <optional>
#include <vector>

namespace sealscope {

/// Bytes that follow those before them in their direction, and the packet that carried them.
struct StreamPiece {
    TCPSegment::Direction direction = TCPSegment::Direction::clientToServer;
    Data bytes;
    std::optional<std::int64_t> packetId = 1;  ///< nothing: lost bytes, which belong to no packet
    double timestamp = 0;                      ///< seconds since 1970
    /// That many bytes behind these were lost: a hole, when the bytes lie packet by packet. In one place they are zeros.
    std::int64_t lostBytes = 0;
};

struct VectorStreamOptions {
    std::int64_t segmentSize = 1448;  ///< most bytes a packet
    std::int64_t firstPacketId = 1;
    double startTime = 1'700'000'000;  ///< of the first packet
    double interval = 0.001;           ///< seconds from packet to packet
    /// The bytes lie packet by packet, as those of a capture do; false: in one place.
    bool isScattered = false;
};

/// Where a stream's bytes lie.
enum class StreamLayout : std::uint8_t { inOnePlace, inPieces };

/// The stream as the host would hand it to an interpreter, from pieces in capture order.
TCPStream vectorStream(const std::vector<StreamPiece>& pieces, StreamLayout layout = StreamLayout::inOnePlace);
/// The same from flights, cut into packets.
TCPStream vectorStream(const std::vector<TLSFlight>& flights, const VectorStreamOptions& options = {});
/// The same from two byte strings, first all that the client sent, then all that the server did.
TCPStream vectorStream(const Data& clientToServer, const Data& serverToClient, const VectorStreamOptions& options = {});

/// The same stream with its zeros lost, where `least` or more of them stand in a row in one piece.
std::vector<StreamPiece> withZerosLost(const std::vector<StreamPiece>& pieces, std::int64_t least);

/// What `vectorStream` makes of flights, to be changed before it becomes a stream.
std::vector<StreamPiece> streamPieces(const std::vector<TLSFlight>& flights, const VectorStreamOptions& options = {});

}  // namespace sealscope
