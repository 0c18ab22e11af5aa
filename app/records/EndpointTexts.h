// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/TCPStream.h"

#include <string>
#include <vector>

namespace sealscope {

/// The texts of endpoints, remembered for the further rows of the same connection. Not thread-safe.
class EndpointTexts {
public:
    /// "192.0.2.1:443"; valid until the next call.
    const std::string& text(const TCPStreamKey::Endpoint& endpoint);

private:
    struct Entry {
        TCPStreamKey::Endpoint endpoint;
        std::string text;  ///< empty: not used yet
    };
    static constexpr std::size_t count = 2'048;
    std::vector<Entry> entries_;  ///< none before they are used: each thread that makes rows has some
};

}  // namespace sealscope
