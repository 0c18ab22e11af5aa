// SPDX-License-Identifier: Apache-2.0
#include "interpreters/HTTP/Carried.h"

#include "host/VELModels/StreamExchanges.h"
#include "interpreters/HTTP/HTTP2Interpreter.h"
#include "interpreters/HTTP/HTTPMessage.h"
#include "interpreters/HTTP/WebSocketInterpreter.h"

#include <algorithm>
#include <limits>
#include <utility>
#include <vector>

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

/// Exchanges of a carried stream, in their places in the outer one.
class CarriedExchanges final : public StreamExchangeReader {
public:
    CarriedExchanges(std::unique_ptr<StreamExchangeReader> inner, Carried carried, std::optional<StreamMessage> request)
        : inner_(std::move(inner)), carried_(std::move(carried))
    {
        if (request) answer(*std::move(request));
    }
    std::optional<double> nextTime() const override
    {
        return next_ < ahead_.size() ? std::optional(ahead_[next_].time()) : inner_->nextTime();
    }
    void next(StreamExchange& exchange) override
    {
        if (next_ < ahead_.size())
            exchange = std::move(ahead_[next_++]);
        else
            read(exchange);
    }

private:
    void read(StreamExchange& exchange)
    {
        inner_->next(exchange);
        for (auto* const message : {&exchange.request, &exchange.reply})
            if (*message) carried_.place(**message, clientPlaces_, serverPlaces_);
    }

    /// The reply may come behind those to some requests that were not waited for.
    void answer(StreamMessage request)
    {
        constexpr std::size_t far = 256, large = 1 << 20;
        ahead_.emplace_back().request.emplace(std::move(request));
        for (std::size_t bytes = 0; ahead_.size() < far && bytes < large && inner_->nextTime(); bytes += heldBytes(ahead_.back())) {
            StreamExchange exchange;
            read(exchange);
            const bool isAnswer = !exchange.request && exchange.reply && HTTPMessages::number(*exchange.reply, "streamId") == 1;
            if (isAnswer) ahead_.front().reply = std::move(exchange.reply);
            if (isAnswer) return;
            ahead_.push_back(std::move(exchange));
        }
    }

    std::unique_ptr<StreamExchangeReader> inner_;
    Carried carried_;
    CarriedPlaces clientPlaces_{carried_.client}, serverPlaces_{carried_.server};
    std::vector<StreamExchange> ahead_;
    std::size_t next_ = 0;
};

}  // namespace

void Carried::place(StreamMessage& message, const CarriedPlaces& clientPlaces, const CarriedPlaces& serverPlaces) const
{
    if (streamId && !message.attribute("streamId")) message.attributes.push_back({"streamId", *streamId});
    // What was decrypted on the way counts in its own plaintext.
    if (message.isDecrypted || !message.byteRange) return;
    message.byteRange = (message.direction == Direction::clientToServer ? clientPlaces : serverPlaces).outerRange(*message.byteRange);
}

void Carried::place(StreamInterpretation& inner) const
{
    const CarriedPlaces clientPlaces(client), serverPlaces(server);
    for (StreamMessage& message : inner.messages) place(message, clientPlaces, serverPlaces);
}

std::unique_ptr<StreamFollowing> Carried::follow(const StreamContext& context) const
{
    const StreamContext inside = contextInside(context);
    if (inside.depth > StreamContext::deepest || isWebSocket()) return nullptr;
    if (isHTTP2()) return HTTP2Interpreter::follow(inside);
    return context.host ? context.host->followCarried(inside) : nullptr;
}

void Carried::append(Conversation& conversation, const TCPStream& outer, const StreamContext& context, const Carried& carried,
                     const std::function<void(std::int64_t)>& added)
{
    if (carried.client.isEmpty() && carried.server.isEmpty()) return;
    const std::int64_t first = conversation.size();
    StreamContext known = context;
    if (!conversation.isToldInParts()) known.mostHeld = std::numeric_limits<std::size_t>::max();
    carried.forEachPart(outer, known, [&](StreamPart& part) {
        const std::int64_t begin = conversation.size();
        conversation.append(part, first);
        if (added)
            for (std::int64_t position = begin; position < conversation.size(); ++position) added(position);
        conversation.handOver();
        return !conversation.isFull();
    });
}

void Carried::forEachPart(const TCPStream& outer, const StreamContext& context, const StreamPartVisitor& visit) const
{
    const TCPStream inner = CarriedStream::inside(outer, client, server);
    const StreamContext inside = contextInside(context);
    const CarriedPlaces clientPlaces(client), serverPlaces(server);
    const StreamPartVisitor placed = [&](StreamPart& part) {
        for (StreamMessage& message : part.messages) place(message, clientPlaces, serverPlaces);
        return visit(part);
    };
    // Streams inside streams end somewhere; what the handshake agreed on is known here alone.
    const bool isTooDeep = inside.depth > StreamContext::deepest;
    if (!isTooDeep && isWebSocket())
        return WebSocketInterpreter::forEachPart(inner, inside, WebSocketInterpreter::agreement(reply), placed);
    if (!isTooDeep && isHTTP2()) return HTTP2Interpreter::forEachPart(inner, inside, placed);
    if (!isTooDeep && context.host && context.host->tellCarried(inner, inside, placed)) return;
    StreamPart bytes = partOf(bytesOf(inner));
    placed(bytes);
}

std::unique_ptr<StreamExchangeReader> Carried::exchanges(const TCPStream& outer, const StreamContext& context,
                                                         std::optional<StreamMessage> request) const
{
    const StreamContext inside = contextInside(context);
    std::unique_ptr<StreamExchangeReader> reader;
    if (!(client.isEmpty() && server.isEmpty()) && inside.depth <= StreamContext::deepest && !isWebSocket()) {
        const TCPStream inner = CarriedStream::inside(outer, client, server);
        if (isHTTP2())
            reader = HTTP2Interpreter::exchanges(inner, inside);
        else if (context.host)
            reader = context.host->carriedExchanges(inner, inside);
    }
    if (!reader && request) reader = readerOf({});
    if (!reader) return nullptr;
    return std::make_unique<CarriedExchanges>(std::move(reader), *this, std::move(request));
}

std::function<void(const StreamPartVisitor&)> Carried::teller(const TCPStream& outer, const StreamContext& context) const
{
    struct Known {
        Carried carried;
        TCPStream outer;
        StreamContext context;
    };
    return [known = std::make_shared<const Known>(*this, outer, context)](const StreamPartVisitor& visit) {
        known->carried.forEachPart(known->outer, known->context, visit);
    };
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
