// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/StreamExchange.h"

#include <vector>

namespace sealscope SEALSCOPE_API {

/// The exchanges of an interpretation, in the order of their times: its pairings, and the replies whose requests the capture
/// lacks. A handshake is none.
std::vector<StreamExchange> exchangesOf(StreamInterpretation interpretation);

}  // namespace sealscope SEALSCOPE_API
