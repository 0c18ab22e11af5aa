// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/session/Session.h"
#include "host/VELModels/StreamMessage.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace sealscope {

/// What was asked, and what came back. One of the two is always there.
struct Exchange {
    std::optional<StreamMessage> request;
    std::optional<StreamMessage> reply;

    /// Of the first byte, in seconds since 1970.
    double time() const { return request ? request->timestamp : reply->timestamp; }
    /// From the request's first byte to the reply's last, in seconds; nothing when either is missing.
    std::optional<double> duration() const;
};

/// What was said in a stream above any protection: the messages of what it carries where it is secured, and opens, else of the
/// stream itself. Nothing when no interpreter accepts it, or it stays closed.
std::optional<StreamInterpretation> applicationInterpretation(const Session& session, const TCPStream& stream);

/// The exchanges of an interpretation, in the order of their times: its pairings, and the replies whose requests the capture
/// lacks. A handshake is none.
std::vector<Exchange> exchangesOf(StreamInterpretation interpretation);

/// For each message of an interpretation the URL that its body belongs to: its own, or that of the request that it answers.
std::vector<std::optional<std::string>> urlsOf(const StreamInterpretation& interpretation);

}  // namespace sealscope
