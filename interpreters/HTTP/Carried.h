// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/StreamContext.h"
#include "host/VELModels/StreamExchange.h"
#include "interpreters/HTTP/CarriedStream.h"
#include "interpreters/HTTP/Conversation.h"
#include "interpreters/HTTP/HeaderFields.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace sealscope {

/// What a tunnel or an upgraded connection carries.
struct Carried {
    ByteRanges client;  ///< of the outer stream's client to server data
    ByteRanges server;
    std::optional<std::string> protocol;   ///< that both sides agreed on: "websocket"
    std::optional<std::int64_t> streamId;  ///< of HTTP/2, given to each message as an attribute
    HeaderFields reply;                    ///< the fields of the reply that granted it

    /// Sets what messages of a carried stream are to say of the outer one: where they lie in it, and on which stream of HTTP/2.
    void place(StreamInterpretation& inner) const;
    void place(StreamMessage& message, const CarriedPlaces& clientPlaces, const CarriedPlaces& serverPlaces) const;
    /// Begins to read it while it goes on. Null where nothing of it is an exchange, or nobody can tell.
    std::unique_ptr<StreamFollowing> follow(const StreamContext& context) const;
    /// Adds what the application's interpreters make of it, or its bytes. `added` is told the position of each message while that is
    /// held.
    static void append(Conversation& conversation, const TCPStream& outer, const StreamContext& context, const Carried& carried,
                       const std::function<void(std::int64_t)>& added = {});
    /// The exchanges among that, in the places that they have in the outer stream. Null where there are none. `request`, whose place
    /// that is, is answered by the reply on stream 1 of HTTP/2 (RFC 7540 §3.2).
    std::unique_ptr<StreamExchangeReader> exchanges(const TCPStream& outer, const StreamContext& context,
                                                    std::optional<StreamMessage> request = {}) const;
    /// Tells WebSocket messages whenever it is called.
    std::function<void(const StreamPartVisitor&)> teller(const TCPStream& outer, const StreamContext& context) const;

    bool isWebSocket() const;
    bool isHTTP2() const;

private:
    void forEachPart(const TCPStream& outer, const StreamContext& context, const StreamPartVisitor& visit) const;
    StreamContext contextInside(const StreamContext& outer) const;
};

}  // namespace sealscope
