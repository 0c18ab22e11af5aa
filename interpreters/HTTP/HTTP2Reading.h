// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/StreamExchange.h"
#include "host/VELModels/StreamFollowing.h"
#include "host/VELModels/StreamMessage.h"
#include "host/VELModels/TCPStream.h"
#include "interpreters/HTTP/BodyMessages.h"
#include "interpreters/HTTP/Carried.h"
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
#include <utility>
#include <vector>

namespace sealscope {

/// What is read in the tunnels of a connection that goes on, by their streams. Null where nothing of it is an exchange.
using HTTP2Tunnels = std::map<std::uint32_t, std::unique_ptr<StreamFollowing>>;

/// A stream of which nothing more is to come, or to be waited for.
struct HTTP2Turn {
    std::optional<HTTP2Half> asked, answer;
    bool isCutShort = false;    ///< it was open when too many were
    bool isReplyAlone = false;  ///< nothing was asked on it
};

/// Makes messages of what the two directions of an HTTP/2 connection sent.
class HTTP2Reading {
public:
    /// `visit` takes parts; null for one who takes an interpretation.
    HTTP2Reading(const TCPStream& stream, const StreamContext& context, HTTP2Direction& asking, HTTP2Direction& answering,
                 Told told = Told::everything, const StreamPartVisitor* visit = nullptr)
        : stream_(stream), context_(context), told_(told), asking_(asking), answering_(answering),
          conversation_(visit, context.mostHeld / 4)
    {}

    /// All of it, but what was told of tunnels that have been followed.
    StreamInterpretation read(HTTP2Tunnels tunnels = {});
    /// All of it to whom takes parts.
    void tell();
    /// The streams of which nothing more is to come, which are taken away from both directions, and what tunnels have said since.
    StreamInterpretation takeFinished(HTTP2Tunnels& tunnels);
    /// Tells the same of a connection without such tunnels. Where more is open than may be held, the oldest of that as well.
    void tellFinished(std::size_t mostHeld);
    /// In place of telling exchanges alone it takes their streams away, to make each when its turn comes.
    std::vector<HTTP2Turn> takeTurns() { return std::exchange(turns_, {}); }
    void make(HTTP2Turn& turn, StreamExchange& exchange);
    /// Makes an exchange of a stream in place of another, whose memory is used again. `packet` carried the request alone, where that is
    /// known.
    void make(HTTP2Half* asked, HTTP2Half* answer, std::optional<HTTPMessage::Packet> packet, StreamExchange& exchange,
              bool isReplyAlone = false);
    /// The exchanges of what tunnels carry that were made since.
    std::vector<std::unique_ptr<StreamExchangeReader>> takeInside() { return std::exchange(inside_, {}); }
    /// Whether somebody takes parts, and no more of them.
    bool isFull() const { return conversation_.isFull(); }

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
    /// Adds all streams, but those of some tunnels.
    void readAll(const HTTP2Tunnels& tunnels);
    /// Adds the streams of which nothing more is to come, and notes their numbers; begins tunnels, where they are followed.
    void addFinished(absl::flat_hash_set<std::uint32_t>& finished, HTTP2Tunnels* tunnels);
    /// Whether nothing more is to come on a stream, of a connection of which one side may have been read further than the other.
    bool isOver(const HTTP2Half& asked, const HTTP2Half* answer) const;
    /// Adds the oldest streams, whatever may be to come, that take so many bytes together.
    void addOldest(absl::flat_hash_set<std::uint32_t>& finished, std::size_t bytes);
    void forget(const absl::flat_hash_set<std::uint32_t>& finished);
    /// A stream: request, interim replies and reply.
    void readExchange(HTTP2Half& asked, HTTP2Half* answer);
    /// What came back on a stream; true when the reply opened a tunnel.
    bool readReply(HTTP2Half& half, const HTTPMessage* request, std::int64_t position, const HTTP2Half* asked,
                   HeaderFields* fields = nullptr);
    /// What request and reply have in common. `head` is the block that the message begins with.
    void fill(HTTPMessage& message, HTTP2Half& half, const HTTP2Half* other, std::size_t head);
    void takeFields(HTTPMessage& message, HTTP2Half& half, std::size_t head, std::size_t inFront);
    std::string urlOf(const HTTP2Block& head, const RequestFields& known) const;
    /// The rows of a message that was told, as room for others: behind those that stand in front of all.
    HeaderFields rowsFrom(StreamMessage& told) const;
    Carried tunnel(std::uint32_t stream, std::optional<std::string> protocol, ByteRanges asked, ByteRanges answered) const;
    /// Adds what a direction says apart from its streams, in front of an offset.
    void readFrames(HTTP2Direction& direction, std::int64_t before);
    void readConnection(HTTP2Direction& direction);
    /// A frame that is shown by itself.
    StreamMessage shown(const HTTP2Frame& frame, TCPSegment::Direction direction) const;

    const TCPStream& stream_;
    const StreamContext& context_;
    Told told_;
    HTTP2Direction& asking_;
    HTTP2Direction& answering_;
    Conversation conversation_;
    absl::flat_hash_set<std::uint32_t> answered_;
    std::vector<HTTP2Turn> turns_;
    std::vector<std::unique_ptr<StreamExchangeReader>> inside_;
    bool isCutShort_ = false;  ///< what is told was open when too many were
};

}  // namespace sealscope
