// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/TCPStream.h"
#include "interpreters/HTTP/ByteRanges.h"

namespace sealscope {

/// What a part of a stream carries, as a stream of its own: the inside of a tunnel. Its bytes stay where they are, and its
/// indexes find the packets of the outer stream.
struct CarriedStream {
    CarriedStream() = delete;

    /// The stream whose directions are the given ranges of the outer one's.
    static TCPStream inside(const TCPStream& outer, const ByteRanges& clientToServer, const ByteRanges& serverToClient);
    /// Where a range of the inner bytes lies in the outer: from its first byte to its last.
    static ByteRange outerRange(const ByteRanges& carried, ByteRange inner);
    /// Bytes of a direction as data of their own.
    static StreamData data(const StreamData& outer, const ByteRanges& carried);
};

}  // namespace sealscope
