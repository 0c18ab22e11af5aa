// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/streams/ConnectionIndex.h"
#include "host/VELModels/TCPStream.h"

#include <cstdint>
#include <memory>

namespace sealscope {

class Capture;

/// What reassembly finds out about a connection, client and server added up where it does not say otherwise.
struct StreamMeasures {
    std::int64_t clientBytes = 0;  ///< size of the direction's data, lost bytes included
    std::int64_t serverBytes = 0;
    std::int64_t missingBytes = 0;        ///< bytes that no packet carried
    std::int64_t contradictingBytes = 0;  ///< bytes of further copies that differ from the first
    std::int64_t restarts = 0;            ///< jumps in the sequence numbers that are no plausible loss
};

/// Puts a connection of the index together. The stream shares the index and the capture and outlives whoever else holds them;
/// its bytes stay in the capture, which must have random access. Lost bytes read as zeros and belong to no packet. Measures the
/// connection by the way when `measures` is given. Packets of a capture that is a part of a larger one are told with `packetsBefore` added.
TCPStream reassembledStream(std::shared_ptr<const Capture> capture, std::shared_ptr<const ConnectionIndex> index, std::int64_t number,
                            StreamMeasures* measures = nullptr, std::int64_t packetsBefore = 0);

/// Measures a connection of the index. Reads payload only where segments overlap, to tell whether they contradict each other.
StreamMeasures measureStream(const Capture& capture, const Connection& connection);

/// Looks for the client of connections without a SYN once more, in the reassembled bytes: a Client Hello may have come in
/// pieces too small to be told by themselves. To be called before anybody else has the index.
void settleClients(const std::shared_ptr<const Capture>& capture, const std::shared_ptr<ConnectionIndex>& index);

}  // namespace sealscope
