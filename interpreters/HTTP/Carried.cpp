// SPDX-License-Identifier: Apache-2.0
#include "interpreters/HTTP/Carried.h"

#include "interpreters/HTTP/HTTP2Interpreter.h"
#include "interpreters/HTTP/HTTPMessage.h"
#include "interpreters/HTTP/WebSocketInterpreter.h"

#include <utility>

namespace sealscope {

namespace {

using Direction = TCPSegment::Direction;

/// A message a direction, where no interpreter knows what is in a tunnel.
StreamInterpretation bytesOf(const TCPStream& inner)
{
    StreamInterpretation bytes;
    for (const Direction direction : {Direction::clientToServer, Direction::serverToClient}) {
        const StreamData& data = inner.data(direction);
        if (data.isEmpty()) continue;
        StreamMessage message{.direction = direction, .summary = "Tunnel data"};
        message.body = StreamBody(data);
        message.bodyHint = StreamBodyHint::binary();
        message.attributes = {{"encodedBytes", data.size()}};
        HTTPMessages::locate(message, inner, {0, data.size()}, {});
        bytes.messages.push_back(std::move(message));
    }
    return bytes;
}

}  // namespace

void Carried::append(Conversation& conversation, const TCPStream& outer, const StreamContext& context, const Carried& carried)
{
    if (carried.client.isEmpty() && carried.server.isEmpty()) return;
    const TCPStream inner = CarriedStream::inside(outer, carried.client, carried.server);
    StreamContext innerContext = context;
    ++innerContext.depth;
    innerContext.applicationProtocol = carried.protocol;
    std::optional<StreamInterpretation> made;
    // Streams inside streams end somewhere; what the handshake agreed on is known here alone.
    if (innerContext.depth > StreamContext::deepest)
        made = bytesOf(inner);
    else if (carried.protocol && HeaderField::isNamed(*carried.protocol, "websocket"))
        made = WebSocketInterpreter::interpret(inner, innerContext, WebSocketInterpreter::agreement(carried.reply));
    else if (carried.protocol && HeaderField::isNamed(*carried.protocol, "h2c"))
        made = HTTP2Interpreter::interpret(inner, innerContext);
    else if (context.host)
        made = context.host->carriedInterpretation(inner, innerContext);
    if (!made) made = bytesOf(inner);
    const CarriedPlaces client(carried.client), server(carried.server);
    for (StreamMessage& message : made->messages) {
        if (carried.streamId && !message.attribute("streamId")) message.attributes.push_back({"streamId", *carried.streamId});
        // What was decrypted on the way counts in its own plaintext.
        if (message.isDecrypted || !message.byteRange) continue;
        message.byteRange = (message.direction == Direction::clientToServer ? client : server).outerRange(*message.byteRange);
    }
    conversation.append(*std::move(made));
}

}  // namespace sealscope
