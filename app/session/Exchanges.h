// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/session/Session.h"
#include "host/VELModels/StreamExchanges.h"
#include "host/VELModels/StreamMessage.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace sealscope {

using Exchange = StreamExchange;

/// What was said in a stream above any protection: the messages of what it carries where it is secured, and opens, else of the
/// stream itself. Nothing when no interpreter accepts it, or it stays closed.
std::optional<StreamInterpretation> applicationInterpretation(const Session& session, const TCPStream& stream);

/// The same part by part until `visit` gives false; whether there is any of it.
bool tellApplication(const Session& session, const TCPStream& stream, const StreamPartVisitor& visit);

/// Keeps the first messages of a part, and of its pairings what is told of those.
void cut(StreamPart& part, std::int64_t messages);

/// The exchanges of that, one by one. Null where there is none of it.
std::unique_ptr<StreamExchangeReader> applicationExchanges(const Session& session, const TCPStream& stream);

}  // namespace sealscope
