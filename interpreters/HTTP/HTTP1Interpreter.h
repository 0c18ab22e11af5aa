// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/VELStreamInterpreting.h"

#include <memory>
#include <string_view>

namespace sealscope {

/// HTTP/1.0 and 1.1 (RFC 9112): requests and replies, and what a tunnel or an upgraded connection carries.
struct HTTP1Interpreter {
    static constexpr std::string_view streamDisplayName = "HTTP/1";
    static constexpr bool readsPieceByPiece = true;

    /// Whether a direction of a stream begins with a start line of HTTP/1.
    static bool isBeginning(const TCPStream& stream);
    static bool canInterpret(const TCPStream& stream, const StreamContext& context);
    static StreamInterpretation interpret(const TCPStream& stream, const StreamContext& context);
    static void forEachPart(const TCPStream& stream, const StreamContext& context, const StreamPartVisitor& visit);
    static std::unique_ptr<StreamExchangeReader> exchanges(const TCPStream& stream, const StreamContext& context);
    static std::unique_ptr<StreamFollowing> follow(const StreamContext& context);
};

}  // namespace sealscope
