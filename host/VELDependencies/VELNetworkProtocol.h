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

/// Why a list of protocols is not to be had as JSON, or from JSON.
struct ProtocolListError {
    enum class Problem : std::uint8_t {
        isNotUTF8,  ///< a text of the list
        isNotJSON,
        isNoArray,
        elementIsNoObject,
        fieldIsMissing,
        fieldIsNoString,
        fieldIsNoInteger,
        fieldIsNoUUID,
    };
    Problem problem = Problem::isNotJSON;
    std::int64_t element = 0;     ///< that it is about, as the following
    const char* field = nullptr;  ///< its name, a literal
    /// "element 3: protocolPorts is missing"
    std::string text() const;
};

/// The list as a JSON array; it cannot be one when a text is not UTF-8.
std::expected<Data, ProtocolListError> encodedProtocols(const std::vector<VELNetworkProtocol>& protocols);

/// The list of a JSON array, or why it is none. A field that a record must have is there and of its type, the
/// optional ones may be missing or null, and what else an object holds is ignored.
std::expected<std::vector<VELNetworkProtocol>, ProtocolListError> decodedProtocols(DataView json, JSONKeyStrategy keys);

}  // namespace sealscope SEALSCOPE_API
