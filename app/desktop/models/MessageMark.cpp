// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/models/MessageMark.h"

#include <absl/hash/hash.h>

namespace sealscope::desktop {

std::uint64_t markOf(const StreamMessage& message)
{
    std::size_t hash = absl::HashOf(message.direction, message.kind, message.timestamp, message.summary, message.packetIds);
    // Two messages in one packet may say the same in different exchanges.
    for (const StreamAttribute& attribute : message.attributes) hash = absl::HashOf(hash, attribute.key, displayText(attribute.value));
    return hash;
}

}  // namespace sealscope::desktop
