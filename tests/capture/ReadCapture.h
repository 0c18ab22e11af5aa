// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/capture/Capture.h"
#include "harness/PacketPath.h"

#include <ostream>
#include <string>
#include <vector>

namespace sealscope {

/// A packet as `Capture` handed it out, with bytes of its own.
struct ReadPacket {
    std::int64_t number = 0;
    std::uint32_t file = 0;
    std::int64_t time = 0;  ///< nanoseconds since 1970
    Data frame;
    std::int64_t originalLength = 0;
    std::uint32_t linkType = 0;
    CaptureAddress address = 0;

    /// True when it says what the other one says.
    bool isCopyOf(const CapturePacket& packet) const
    {
        return time == packet.time && frame == packet.frame && originalLength == packet.originalLength && linkType == packet.linkType;
    }
};

inline std::ostream& operator<<(std::ostream& stream, const ReadPacket& packet)
{
    return stream << '#' << packet.number << " time " << packet.time << " link type " << packet.linkType << " length "
                  << packet.originalLength << ' ' << hexText(packet.frame);
}

/// All that a capture gave.
struct ReadResult {
    std::vector<ReadPacket> packets;
    std::vector<std::string> errors;  ///< their sentences
    std::string keyLog;
    std::string openError;
};

inline ReadResult readAll(Capture& capture)
{
    ReadResult result;
    CapturedPacket packet;
    while (capture.next(packet))
        result.packets.push_back({packet.number, packet.file, packet.time.nanoseconds(), Data(packet.frame), packet.originalLength,
                                  packet.linkType, packet.address});
    for (const CaptureError& error : capture.errors()) result.errors.push_back(error.text());
    result.keyLog = capture.takeEmbeddedKeyLog();
    return result;
}

inline ReadResult readCapture(const std::vector<std::string>& files, CaptureOptions options = {})
{
    auto capture = Capture::open(files, std::move(options));
    if (!capture) return {.openError = capture.error().text()};
    return readAll(**capture);
}

}  // namespace sealscope
