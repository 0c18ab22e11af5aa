// SPDX-License-Identifier: Apache-2.0
#include "app/records/EndpointTexts.h"

#include <cstring>

namespace sealscope {

const std::string& EndpointTexts::text(const TCPStreamKey::Endpoint& endpoint)
{
    if (entries_.empty()) entries_.resize(count);
    std::uint64_t halves[2];
    std::memcpy(halves, endpoint.address.data(), sizeof halves);
    const std::uint64_t mixed = (halves[0] ^ halves[1] * 0x9E3779B97F4A7C15 ^ endpoint.port) * 0xD6E8FEB86659FD93;
    Entry& entry = entries_[mixed >> 32 & (count - 1)];
    if (entry.text.empty() || entry.endpoint != endpoint) entry = {endpoint, endpoint.text()};
    return entry.text;
}

}  // namespace sealscope
