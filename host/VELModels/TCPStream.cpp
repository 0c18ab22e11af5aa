// SPDX-License-Identifier: Apache-2.0
#include "host/VELModels/TCPStream.h"

#include <arpa/inet.h>

namespace sealscope {

std::string TCPStreamKey::Endpoint::text() const
{
    char address_[INET6_ADDRSTRLEN] = {};
    inet_ntop(isIPv6 ? AF_INET6 : AF_INET, address.data(), address_, sizeof address_);
    return (isIPv6 ? '[' + std::string(address_) + ']' : std::string(address_)) + ':' + std::to_string(port);
}

}  // namespace sealscope
