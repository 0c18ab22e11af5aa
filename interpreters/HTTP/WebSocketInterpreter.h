// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/VELStreamInterpreting.h"
#include "interpreters/HTTP/HeaderFields.h"
#include "interpreters/HTTP/WebSocketInflation.h"

#include <string_view>

namespace sealscope {

/// WebSocket (RFC 6455), behind the handshake: messages of text and bytes, their fragments joined, pings and closes.
struct WebSocketInterpreter {
    static constexpr std::string_view streamDisplayName = "WebSocket";
    static constexpr bool readsPieceByPiece = true;

    static bool canInterpret(const TCPStream& stream, const StreamContext& context);
    static StreamInterpretation interpret(const TCPStream& stream, const StreamContext& context);
    static void forEachPart(const TCPStream& stream, const StreamContext& context, const StreamPartVisitor& visit);

    /// What the handshake agreed on for each direction (RFC 7692 §7.1).
    struct Agreement {
        WebSocketInflation::Context client = WebSocketInflation::Context::isKept;
        WebSocketInflation::Context server = WebSocketInflation::Context::isKept;
        bool isKnown = false;  ///< false: the handshake is missing
    };
    static Agreement agreement(const HeaderFields& reply);
    static void forEachPart(const TCPStream& stream, const StreamContext& context, const Agreement& agreement,
                            const StreamPartVisitor& visit);
};

}  // namespace sealscope
