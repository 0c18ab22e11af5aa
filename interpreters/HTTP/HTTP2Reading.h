// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/StreamFollowing.h"
#include "host/VELModels/StreamMessage.h"
#include "host/VELModels/TCPStream.h"
#include "interpreters/HTTP/Conversation.h"
#include "interpreters/HTTP/HTTP2Direction.h"
#include "interpreters/HTTP/HTTPMessage.h"

#include <absl/container/flat_hash_set.h>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace sealscope {

/// What is read in the tunnels of a connection that goes on, by their streams. Null where nothing of it is an exchange.
using HTTP2Tunnels = std::map<std::uint32_t, std::unique_ptr<StreamFollowing>>;

/// Makes messages of what the two directions of an HTTP/2 connection sent.
class HTTP2Reading {
public:
    HTTP2Reading(const TCPStream& stream, const StreamContext& context, HTTP2Direction& asking, HTTP2Direction& answering)
        : stream_(stream), context_(context), asking_(asking), answering_(answering)
    {}

    /// All of it, but what was told of tunnels that have been followed.
    StreamInterpretation read(HTTP2Tunnels tunnels = {});
    /// The streams of which nothing more is to come, which are taken away from both directions, and what tunnels have said since.
    StreamInterpretation takeFinished(HTTP2Tunnels& tunnels);
    /// The request of a stream; `asked` gives up what it says. `rows` stand in front of the fields, or are memory to be used again.
    HTTPMessage requestOf(HTTP2Half& asked, const HTTP2Half* answer, HeaderFields rows = {}, std::size_t inFront = 0);
    /// The reply that begins with a block; `half` gives up what it says. `url` and `method` are those of its request.
    HTTPMessage replyOf(HTTP2Half& half, std::size_t head, std::string_view url, std::string_view method, const HTTP2Half* asked,
                        HeaderFields rows = {}, std::size_t inFront = 0);

private:
    struct RequestFields;

    /// Tells what opened the tunnel, of whose end nothing is known yet, and gives who reads what is in it.
    std::unique_ptr<StreamFollowing> beginTunnel(HTTP2Half& asked, HTTP2Half& answer);
    /// Adds what has become complete in a tunnel by now, and lets go of its data that are done with.
    void followTunnel(std::uint32_t number, StreamFollowing* inner, StreamExtent extent);
    /// A stream: request, interim replies and reply.
    void readExchange(HTTP2Half& asked, HTTP2Half* answer);
    /// What came back on a stream; the position of the reply, if there is one.
    std::optional<std::int64_t> readReply(HTTP2Half& half, const HTTPMessage* request, std::int64_t position, const HTTP2Half* asked);
    /// What request and reply have in common. `head` is the block that the message begins with.
    void fill(HTTPMessage& message, HTTP2Half& half, const HTTP2Half* other, std::size_t head);
    void takeFields(HTTPMessage& message, HTTP2Half& half, std::size_t head, std::size_t inFront);
    std::string urlOf(const HTTP2Block& head, const RequestFields& known) const;
    void readConnection(const HTTP2Direction& direction);
    /// A frame that is shown by itself.
    StreamMessage shown(const HTTP2Frame& frame, TCPSegment::Direction direction) const;

    const TCPStream& stream_;
    const StreamContext& context_;
    HTTP2Direction& asking_;
    HTTP2Direction& answering_;
    Conversation conversation_;
    absl::flat_hash_set<std::uint32_t> answered_;
};

}  // namespace sealscope
