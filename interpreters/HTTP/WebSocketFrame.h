// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/StreamData.h"

#include <array>
#include <cstdint>

namespace sealscope {

/// The header of a WebSocket frame (RFC 6455 §5.2).
struct WebSocketFrame {
    enum class Opcode : std::uint8_t { continuation, text, binary, close = 8, ping, pong };

    Opcode opcode = Opcode::continuation;
    bool isFinal = false;
    bool isCompressed = false;  ///< RSV1: the first frame of a deflated message (RFC 7692 §6)
    bool isMasked = false;
    std::array<std::uint8_t, 4> mask{};
    std::int64_t length = 0;  ///< of the payload
    std::int64_t offset = 0;
    std::int64_t headerLength = 0;  ///< 2 to 14 bytes; 0: they are not all there
    bool isPossible = false;        ///< opcode, reserved bits and length are such as the standard allows

    bool isControl() const { return static_cast<std::uint8_t>(opcode) >= 8; }
    std::int64_t payload() const { return offset + headerLength; }
    std::int64_t end() const { return payload() + length; }

    static WebSocketFrame read(StreamReader& reader, std::int64_t offset);
};

}  // namespace sealscope
