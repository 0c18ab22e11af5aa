// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELDependencies/VELPluginAnalyzerProtocol.h"
#include "platform/UUID.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace sealscope SEALSCOPE_API {

class VELPluginPreferencesProtocol;
struct VELPrincipalClass;
struct VELStreamInterpreting;
struct StreamExportFormat;

/// Names of binding options, the keys of a column's option dictionaries.
namespace VELBindingOption {
inline constexpr const char* displayName = "NSDisplayName";
inline constexpr const char* predicateFormat = "NSPredicateFormat";
}  // namespace VELBindingOption

/// A column that a plug-in adds to the packet list.
struct VELPlugInColumn {
    std::string columnTitle;
    std::string keyPath;  ///< key of the analyzer's value that fills the column
    std::optional<std::map<std::string, VELValue>> bindingOptions;
    /// The column's filter: its display name, and its predicate with `$value` for the user's text.
    std::optional<std::map<std::string, VELValue>> predicateOptions;
};

/// A value that the analyzer can be asked for.
struct VELPlugInAnalyzerAttribute {
    const VELAnalyzerClass* plugInAnalyzerClass = nullptr;
    std::string attributeTitle;
    std::string attributeKey;
    VELValueType attributeType = VELValueType::string;
    std::uint64_t attributeOffset = 0;
    std::uint64_t attributeLength = 0;
};

/// Where a protocol is found: above TCP, UDP, a link layer or an internet layer.
enum class kVELSourceProtocols : std::int64_t { tcp = 0, udp = 1, ethernet = 2, ip = 3 };

/// A protocol that a plug-in serves.
struct VELPlugInNetworkProtocol {
    UUID id;
    std::string protocolName;
    std::vector<std::int64_t> protocolPorts;
    kVELSourceProtocols sourceProtocol = kVELSourceProtocols::tcp;
    std::optional<std::string> ethertype;
    std::optional<std::string> linktype;
    std::optional<std::int64_t> size;
};

/// The description of a plug-in that it registers with the host.
struct VELPlugInStructure {
    UUID id;
    std::string plugInTitle;
    std::string plugInDescription;
    std::string plugInVersion;
    std::string plugInAuthor;
    const VELPrincipalClass* plugInPrincipalClass = nullptr;
    VELPluginPreferencesProtocol* plugInPreferencesInstance = nullptr;  ///< lives as long as the plug-in
    const VELAnalyzerClass* plugInAnalyzerClass = nullptr;  ///< null for a plug-in that looks at streams alone
    /// Beside the one that the analyzer class may carry.
    std::vector<const VELStreamInterpreting*> plugInStreamInterpreters;
    std::vector<const StreamExportFormat*> plugInExportFormats;
    std::vector<VELPlugInAnalyzerAttribute> plugInAnalyzerAttributes;
    std::vector<VELPlugInNetworkProtocol> plugInTargetProtocols;
    std::vector<VELPlugInColumn> plugInColumnKeyBindings;
};

}  // namespace sealscope SEALSCOPE_API
