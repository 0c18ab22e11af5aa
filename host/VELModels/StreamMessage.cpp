// SPDX-License-Identifier: Apache-2.0
#include "host/VELModels/StreamMessage.h"

#include <algorithm>
#include <utility>

namespace sealscope {

const VELValue* StreamMessage::attribute(std::string_view key) const
{
    const auto found = std::ranges::find(attributes, key, &StreamAttribute::key);
    return found == attributes.end() ? nullptr : &found->value;
}

std::size_t StreamMessage::heldBytes() const
{
    // What is short costs as much as the heap gives out for it, attributes and packets included.
    std::size_t bytes = sizeof(StreamMessage) + 512 + 3 * summary.size();
    for (const DetailRow& row : detail) bytes += sizeof(DetailRow) + row.name.size() + row.value.size();
    if (body) bytes += static_cast<std::size_t>(body->heldBytes());
    return bytes;
}

StreamPart partOf(StreamInterpretation interpretation)
{
    return {.messages = std::move(interpretation.messages),
            .pairings = std::move(interpretation.pairings).value_or(std::vector<Pairing>{})};
}

}  // namespace sealscope
