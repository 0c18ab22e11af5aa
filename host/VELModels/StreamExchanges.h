// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/StreamExchange.h"

#include <cstddef>
#include <memory>
#include <vector>

namespace sealscope SEALSCOPE_API {

/// The exchanges of an interpretation, in the order of their times: its pairings, and the replies whose requests the capture
/// lacks. A handshake is none.
std::vector<StreamExchange> exchangesOf(StreamInterpretation interpretation);
/// The same, to be handed over.
std::unique_ptr<StreamExchangeReader> readerOf(StreamInterpretation interpretation);

/// Bytes that the messages of an exchange take while it is held, about.
std::size_t heldBytes(const StreamExchange& exchange);

}  // namespace sealscope SEALSCOPE_API
