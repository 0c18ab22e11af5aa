// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/TCPSegment.h"
#include "platform/Data.h"

#include <array>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace sealscope {

/// A capture of real clients and servers from tests/captures, and what is known of its application data.
struct RealCapture {
    struct Side {
        std::optional<Data> sent;      ///< all of it
        std::optional<Data> opens;     ///< what the key log opens of it; as `sent` where nothing else is said
        std::optional<Data> contains;  ///< some of it, where the rest is not known
    };

    std::string name;
    std::string capture;                       ///< path of the pcap file
    std::string keyLog;                        ///< path of the key log
    std::vector<std::array<Side, 2>> streams;  ///< a connection each, the client's side first; empty when nothing was said

    const Side& side(std::size_t stream, TCPSegment::Direction direction) const
    {
        return streams[stream][direction == TCPSegment::Direction::clientToServer ? 0 : 1];
    }
};

/// All of them, by name. `sourceDirectory` is that of the project; throws std::runtime_error when there are none.
std::vector<RealCapture> realCaptures(const std::filesystem::path& sourceDirectory);

}  // namespace sealscope
