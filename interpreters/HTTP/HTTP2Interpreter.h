// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/VELStreamInterpreting.h"

#include <memory>
#include <string_view>

namespace sealscope {

/// HTTP/2 (RFC 9113): the requests and replies of its streams, and what its other frames say.
struct HTTP2Interpreter {
    static constexpr std::string_view streamDisplayName = "HTTP/2";
    static constexpr bool readsPieceByPiece = true;

    static bool canInterpret(const TCPStream& stream, const StreamContext& context);
    static StreamInterpretation interpret(const TCPStream& stream, const StreamContext& context);
    static void forEachPart(const TCPStream& stream, const StreamContext& context, const StreamPartVisitor& visit);
    static std::unique_ptr<StreamFollowing> follow(const StreamContext& context);
    static std::unique_ptr<StreamExchangeReader> exchanges(const TCPStream& stream, const StreamContext& context);
};

}  // namespace sealscope
