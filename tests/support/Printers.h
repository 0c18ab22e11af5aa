// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/StreamMessage.h"
#include "host/VELModels/TCPStream.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <ostream>

// How GoogleTest shows the project's records when an expectation fails: as fields, not as bytes of memory.
namespace sealscope {

inline void PrintTo(const Data& data, std::ostream* out)
{
    constexpr std::int64_t shown = 256;
    *out << data.size() << " bytes " << hexText(data.view().sub(0, shown)) << (data.size() > shown ? "…" : "");
}
inline void PrintTo(const ByteRange& range, std::ostream* out) { *out << fmt::format("{}..<{}", range.lower, range.upper); }
inline void PrintTo(const DetailRow& row, std::ostream* out) { *out << fmt::format("{}: \"{}\"", row.name, row.value); }
inline void PrintTo(const ByteLocation& location, std::ostream* out)
{
    *out << (location.timestamp ? fmt::format("at {} ", *location.timestamp) : "no time ") << fmt::format("packets {}", location.packetIds);
}
inline void PrintTo(const Pairing& pairing, std::ostream* out)
{
    *out << fmt::format("{} -> {} \"{}\" {}", pairing.requestIndex, pairing.replyIndex ? std::to_string(*pairing.replyIndex) : "none",
                        pairing.summary, pairing.status == PairingStatus::matched ? "matched" : "unmatched");
}
inline void PrintTo(const TCPSegment::Direction& direction, std::ostream* out)
{
    *out << (direction == TCPSegment::Direction::clientToServer ? "clientToServer" : "serverToClient");
}
inline void PrintTo(const TCPStreamKey::Endpoint& endpoint, std::ostream* out) { *out << endpoint.text(); }

}  // namespace sealscope
