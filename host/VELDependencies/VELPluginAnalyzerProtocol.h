// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELDependencies/VELNodeProtocol.h"

#include <any>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace sealscope SEALSCOPE_API {

struct VELStreamInterpreting;

/// What the host asks about one packet's payload. An analyzer is made from the payload and asked about it again with
/// the payload as argument; it keeps no reference to it. Any thread may ask.
class VELPluginAnalyzerProtocol {
public:
    virtual ~VELPluginAnalyzerProtocol() = default;

    virtual std::uint16_t protocolSize() const = 0;
    virtual std::optional<VELNodeList> protocolNodes() const = 0;
    virtual std::optional<std::string> nextProtocol() const = 0;
    virtual std::optional<std::string> protocolName() const = 0;
    virtual std::optional<std::string> protocolInfo() const = 0;
    /// True when a higher protocol is dissected on top.
    virtual bool hasPayload() const = 0;
    /// The one-line summary for the packet list.
    virtual std::optional<std::string> protocolInfo(DataView data) const = 0;
    /// The tree of named fields.
    virtual VELNodeList protocolNodes(DataView data) const = 0;
    /// The value of a column or attribute, by its key.
    virtual std::optional<VELValue> value(std::string_view key, DataView data) const = 0;
};

/// An analyzer class as a value. There is one for each class; its address is the class's identity.
struct VELAnalyzerClass {
    std::string_view name;
    /// A new analyzer, or null when the payload is not of this protocol. `packet` may carry anything or be empty.
    std::unique_ptr<VELPluginAnalyzerProtocol> (*create)(DataView data, const std::any& packet) = nullptr;
    /// The class as a stream interpreter; null when it is none.
    const VELStreamInterpreting* streamInterpreter = nullptr;
};

}  // namespace sealscope SEALSCOPE_API
