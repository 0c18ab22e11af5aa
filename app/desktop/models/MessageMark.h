// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/StreamMessage.h"

#include <cstdint>

namespace sealscope::desktop {

/// Tells the messages of a stream apart, whoever interprets it: the same message has the same mark each time.
std::uint64_t markOf(const StreamMessage& message);

}  // namespace sealscope::desktop
