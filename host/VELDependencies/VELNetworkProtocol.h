// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Data.h"
#include "platform/UUID.h"

#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <vector>

namespace sealscope SEALSCOPE_API {

/// A network protocol in the form in which lists of them are stored in the user defaults.
struct VELNetworkProtocol {
    UUID id;
    std::string protocolName;
    std::string protocolPorts;        ///< numbers separated by commas
    std::int64_t sourceProtocol = 0;  ///< raw value of `kVELSourceProtocols`
    std::optional<std::string> ethertype;
    std::optional<std::string> linktype;
    std::optional<std::int64_t> size;
    bool operator==(const VELNetworkProtocol&) const = default;
};

/// How the keys of a JSON object name the fields of a record.
enum class JSONKeyStrategy : std::uint8_t {
    useDefaultKeys,        ///< "protocolName"
    convertFromSnakeCase,  ///< "protocol_name" as well
};

/// The list as a JSON array; a reason when it cannot be one, because a text is not UTF-8.
std::expected<Data, std::string> encodedProtocols(const std::vector<VELNetworkProtocol>& protocols);

/// The list of a JSON array; a reason when it is none. A field that a record must have is there and of its type, the
/// optional ones may be missing or null, and what else an object holds is ignored.
std::expected<std::vector<VELNetworkProtocol>, std::string> decodedProtocols(DataView json, JSONKeyStrategy keys);

}  // namespace sealscope SEALSCOPE_API
