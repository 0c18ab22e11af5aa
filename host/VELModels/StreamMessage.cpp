// SPDX-License-Identifier: Apache-2.0
#include "host/VELModels/StreamMessage.h"

#include <algorithm>

namespace sealscope {

const VELValue* StreamMessage::attribute(std::string_view key) const
{
    const auto found = std::ranges::find(attributes, key, &StreamAttribute::key);
    return found == attributes.end() ? nullptr : &found->value;
}

}  // namespace sealscope
