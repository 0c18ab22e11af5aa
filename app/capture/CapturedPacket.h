// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Data.h"

#include <cstdint>

namespace sealscope {

/// A place in the bytes of a capture: an offset into all its files laid end to end, or, above those, into the datagrams
/// that were put together from fragments. From 0 to below 2^47. Only `Capture::bytes` reads it.
using CaptureAddress = std::int64_t;

/// When a packet was captured.
struct CaptureTime {
    std::int64_t seconds = 0;              ///< since 1970, whole
    std::uint64_t units = 0;               ///< below `resolution`
    std::uint64_t resolution = 1'000'000;  ///< units a second
    /// Seconds since 1970: the whole seconds plus units / resolution.
    double value() const { return static_cast<double>(seconds) + static_cast<double>(units) / static_cast<double>(resolution); }
    std::int64_t nanoseconds() const;  ///< since 1970, cut to whole ones, saturating
};

/// One packet as a capture file holds it.
struct CapturedPacket {
    std::int64_t number = 0;  ///< from 1, in order of the capture; runs on from file to file
    CaptureTime time;
    DataView frame;                   ///< captured bytes; lent until the next packet is read
    CaptureAddress address = 0;       ///< of the frame's first byte, for a capture opened with random access
    std::int64_t originalLength = 0;  ///< bytes on the wire; more than `frame` holds when the snapshot length cut it
    std::uint32_t linkType = 0;       ///< LINKTYPE_ number
    std::uint32_t file = 0;           ///< position among the capture's files, in capture order
};

}  // namespace sealscope
