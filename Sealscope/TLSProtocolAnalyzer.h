// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Sealscope/TLSDissector.h"
#include "host/VELDependencies/VELPluginAnalyzerProtocol.h"
#include "host/VELModels/VELStreamInterpreting.h"

namespace sealscope {

/// The plug-in's analyzer class: answers for one packet's payload, and interprets streams. Keeps the payload's size and
/// nothing else of it. Any thread may call it.
class TLSProtocolAnalyzer final : public VELPluginAnalyzerProtocol {
public:
    /// Null when the payload does not begin with a plausible TLS record header.
    static std::unique_ptr<VELPluginAnalyzerProtocol> create(DataView data, const std::any& packet);
    /// The class as the plug-in description names it.
    static const VELAnalyzerClass& analyzerClass();

    std::uint16_t protocolSize() const override { return tlsSize; }
    std::optional<VELNodeList> protocolNodes() const override { return VELNodeList{}; }
    std::optional<std::string> nextProtocol() const override { return std::nullopt; }
    std::optional<std::string> protocolName() const override { return std::nullopt; }
    std::optional<std::string> protocolInfo() const override { return std::string{}; }
    bool hasPayload() const override { return false; }
    std::optional<std::string> protocolInfo(DataView data) const override;
    VELNodeList protocolNodes(DataView data) const override;
    std::optional<VELValue> value(std::string_view key, DataView data) const override;

    static constexpr std::string_view streamDisplayName = "TLS";
    static constexpr StreamLayer streamLayer = StreamLayer::security;
    static bool canInterpret(const TCPStream& stream, const StreamContext& context = {});
    static StreamInterpretation interpret(const TCPStream& stream, const StreamContext& context = {});
    static void forEachPart(const TCPStream& stream, const StreamContext& context, const StreamPartVisitor& visit);

    std::uint16_t tlsSize = 0;  ///< payload bytes, at most 65535

private:
    TLSDissector tlsDissector;
};

}  // namespace sealscope
