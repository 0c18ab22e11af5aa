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

void Carried::place(StreamInterpretation& inner) const
{
    const CarriedPlaces clientPlaces(client), serverPlaces(server);
    for (StreamMessage& message : inner.messages) {
        if (streamId && !message.attribute("streamId")) message.attributes.push_back({"streamId", *streamId});
        // What was decrypted on the way counts in its own plaintext.
        if (message.isDecrypted || !message.byteRange) continue;
        message.byteRange = (message.direction == Direction::clientToServer ? clientPlaces : serverPlaces).outerRange(*message.byteRange);
    }
}

std::unique_ptr<StreamFollowing> Carried::follow(const StreamContext& context) const
{
    const StreamContext inside = contextInside(context);
    if (inside.depth > StreamContext::deepest || isWebSocket()) return nullptr;
    if (isHTTP2()) return HTTP2Interpreter::follow(inside);
    return context.host ? context.host->followCarried(inside) : nullptr;
}

void Carried::append(Conversation& conversation, const TCPStream& outer, const StreamContext& context, const Carried& carried)
{
    if (carried.client.isEmpty() && carried.server.isEmpty()) return;
    const TCPStream inner = CarriedStream::inside(outer, carried.client, carried.server);
    const StreamContext inside = carried.contextInside(context);
    std::optional<StreamInterpretation> made;
    // Streams inside streams end somewhere; what the handshake agreed on is known here alone.
    if (inside.depth > StreamContext::deepest)
        made = bytesOf(inner);
    else if (carried.isWebSocket())
        made = WebSocketInterpreter::interpret(inner, inside, WebSocketInterpreter::agreement(carried.reply));
    else if (carried.isHTTP2())
        made = HTTP2Interpreter::interpret(inner, inside);
    else if (context.host)
        made = context.host->carriedInterpretation(inner, inside);
    if (!made) made = bytesOf(inner);
    carried.place(*made);
    conversation.append(*std::move(made));
}

StreamContext Carried::contextInside(const StreamContext& outer) const
{
    StreamContext inside = outer;
    ++inside.depth;
    inside.applicationProtocol = protocol;
    inside.rowsInFront.clear();
    inside.notOfferedTo.reset();
    if (!protocol) {
        // A tunnel leads to another server, and what it carries may be protected or not.
        inside.isDecrypted = false;
        inside.serverName.reset();
    }
    return inside;
}

bool Carried::isWebSocket() const { return protocol && HeaderField::isNamed(*protocol, "websocket"); }
bool Carried::isHTTP2() const { return protocol && HeaderField::isNamed(*protocol, "h2c"); }

}  // namespace sealscope
