// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "interpreters/HTTP/Conversation.h"
#include "interpreters/HTTP/HTTPMessage.h"

#include <cstdint>
#include <optional>
#include <string>

namespace sealscope {

/// Bodies that are made of messages: those of a gRPC call, and server-sent events. Each message becomes a row of its own.
class BodyMessages {
public:
    /// What a body is made of; nothing for most.
    static std::optional<BodyMessages> in(const HTTPMessage& message, std::string url);

    void append(Conversation& conversation, const TCPStream& stream, const StreamContext& context) const;

private:
    enum class Kind : std::uint8_t { calls, events };

    void appendCalls(Conversation& conversation, const TCPStream& stream, const StreamContext& context) const;
    void appendEvents(Conversation& conversation, const TCPStream& stream, const StreamContext& context) const;

    Kind kind_ = Kind::calls;
    TCPSegment::Direction direction_ = TCPSegment::Direction::clientToServer;
    CarriedBody body_;
    std::string url_;
    std::string encoding_;  ///< of gRPC's messages
    std::vector<StreamAttribute> attributes_;
};

}  // namespace sealscope
