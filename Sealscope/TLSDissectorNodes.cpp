// SPDX-License-Identifier: Apache-2.0
// The tree of a payload's fields. A node's range counts from its parent's, so that each builder below knows its own node
// alone: a record's fields lie at 0, 1 and 3 wherever the record is.
#include "Sealscope/TLSDissector.h"
#include "Sealscope/TLSLists.h"
#include "Sealscope/TLSNodeBuilding.h"

#include <algorithm>
#include <array>
#include <fmt/compile.h>
#include <memory>
#include <utility>

namespace sealscope {

namespace {

using nodes::add;
using nodes::joined;
using nodes::Range;
using nodes::setRange;

/// Lives as long as the nodes that make their children.
class TreeBuilder : public std::enable_shared_from_this<TreeBuilder> {
public:
    TreeBuilder(const Data& payload, const Bundle& bundle) : bytes_(payload), payload_(bytes_), bundle_(bundle) {}

    VELNodeList tree() const
    {
        const bool hasRecords = payload_.size() >= TLSRecord::headerLength;
        const auto root = hasRecords ? VELNode::nodeWithName(localized("TLS"), records()) : VELNode::nodeWithName(localized("TLS"));
        setRange(*root, {0, payload_.size()});
        if (!hasRecords) addNote(*root, "No TLS records");
        return {root};
    }

private:
    VELNode::ChildMaker records() const
    {
        return [builder = shared_from_this()](const VELNodeVisitor& visit) {
            // Empty records come in crowds where there is no TLS, zeros above all. Of one header they show the same fields, so a node
            // that nobody kept is handed over again. An alert shows what lies behind its record.
            std::shared_ptr<VELNodeProtocol> node;
            TLSRecord latest;
            forEachRecord(builder->payload_, [&](const TLSRecord& record) {
                const bool isSame = node && record.declaredLength == 0 && latest.declaredLength == 0 &&
                                    record.contentType == latest.contentType && record.version() == latest.version() &&
                                    contentTypeOf(record.contentType) != TLSContentType::alert;
                if (isSame && node.use_count() == 1)
                    setRange(*node, {record.recordOffset, TLSRecord::headerLength});
                else
                    node = builder->recordNode(record);
                latest = record;
                return visit(node);
            });
        };
    }

    VELNode::ChildMaker extensions(ClientHelloInfo hello) const
    {
        return [builder = shared_from_this(), hello = std::move(hello)](const VELNodeVisitor& visit) {
            // Each extension of a type shows the same text, however long: a node that nobody kept is handed over again.
            std::array<std::shared_ptr<VELNodeProtocol>, 3> latest;
            constexpr std::array shown{TLSExtensionType::serverName, TLSExtensionType::alpn, TLSExtensionType::supportedVersions};
            for (const TLSExtension& extension : hello.extensions) {
                const auto at = std::ranges::find(shown, static_cast<TLSExtensionType>(extension.extType));
                std::shared_ptr<VELNodeProtocol> once;
                auto& node = at == shown.end() ? once : latest[static_cast<std::size_t>(at - shown.begin())];
                if (!node || node.use_count() > 1)
                    node = VELNode::nodeWithName(extensionName(extension.extType, builder->bundle_), extensionText(hello, extension));
                const std::int64_t headerOffset = extension.bodyOffset - hello.bodyBaseOffset - 4;
                setRange(*node, {headerOffset - hello.extensionsOffset, extension.length + 4});
                if (!visit(node)) return;
            }
        };
    }

    std::string localized(std::string_view text) const { return nodes::localized(bundle_, text); }
    std::string localized(std::string_view format, std::int64_t argument) const { return nodes::localized(bundle_, format, argument); }

    /// A node with a value under a name that stands for itself.
    VELNodeProtocol& addNamed(VELNodeProtocol& parent, std::string name, std::string value, Range range) const
    {
        return add(parent, VELNode::nodeWithName(std::move(name), std::move(value)), range);
    }

    /// A node with a value under a label.
    VELNodeProtocol& addField(VELNodeProtocol& parent, std::string_view label, std::string value, Range range) const
    {
        return addNamed(parent, localized(label), std::move(value), range);
    }

    VELNodeProtocol& addHeading(VELNodeProtocol& parent, std::string name, Range range) const
    {
        return add(parent, VELNode::nodeWithName(std::move(name)), range);
    }

    /// A label that stands for no bytes.
    void addNote(VELNodeProtocol& parent, std::string_view label) const { parent.addChild(VELNode::nodeWithName(localized(label))); }

    std::shared_ptr<VELNodeProtocol> recordNode(const TLSRecord& record) const
    {
        const std::int64_t length = record.isTruncated ? payload_.size() - record.recordOffset : record.endOffset() - record.recordOffset;
        auto node = VELNode::nodeWithName(localized("TLS Record"));
        setRange(*node, {record.recordOffset, length});
        addRecordFields(*node, record);
        return node;
    }

    void addRecordFields(VELNodeProtocol& node, const TLSRecord& record) const
    {
        const auto type = contentTypeOf(record.contentType);
        const std::string typeName = type ? std::string(contentTypeName(*type)) : unknownCodePointName(record.contentType, bundle_);
        addField(node, "Content Type", fmt::format(FMT_COMPILE("{} (0x{:02X})"), typeName, record.contentType), {0, 1});
        addField(node, "Version", fmt::format(FMT_COMPILE("{} (0x{:04X})"), versionName(record.version()), record.version()), {1, 2});
        addField(node, "Length", std::to_string(record.declaredLength), {3, 2});
        if (record.isTruncated) return addNote(node, "Continues in next segment");
        if (!type) return;
        switch (*type) {
        case TLSContentType::changeCipherSpec: return addChangeCipherSpec(node, record);
        case TLSContentType::alert: return addAlert(node, record);
        case TLSContentType::handshake: return addHandshakeMessages(node, record);
        case TLSContentType::applicationData: return addApplicationData(node, record);
        }
    }

    void addChangeCipherSpec(VELNodeProtocol& parent, const TLSRecord& record) const
    {
        VELNodeProtocol& node = addHeading(parent, localized("Change Cipher Spec"), {TLSRecord::headerLength, record.declaredLength});
        if (record.declaredLength < 1) return;
        addField(node, "Value", std::to_string(payload_.u8(record.bodyOffset)), {0, 1});
    }

    void addAlert(VELNodeProtocol& parent, const TLSRecord& record) const
    {
        // The payload bounds an alert, not its record: a shorter one shows what follows it.
        if (!payload_.holds(record.bodyOffset, 2)) return;
        const std::uint8_t level = payload_[record.bodyOffset];
        VELNodeProtocol& node = addHeading(parent, localized("Alert"), {TLSRecord::headerLength, record.declaredLength});
        addField(node, "Level", fmt::format(FMT_COMPILE("{} ({})"), localized(alertLevelName(level)), level), {0, 1});
        addField(node, "Description", std::to_string(payload_[record.bodyOffset + 1]), {1, 1});
    }

    void addApplicationData(VELNodeProtocol& parent, const TLSRecord& record) const
    {
        VELNodeProtocol& node = addHeading(parent, localized("Application Data"), {TLSRecord::headerLength, record.declaredLength});
        addField(node, "Length", localized("%u bytes", record.declaredLength), {0, record.declaredLength});
        addField(node, "Encrypted", localized("encrypted"), {0, record.declaredLength});
    }

    void addHandshakeMessages(VELNodeProtocol& parent, const TLSRecord& record) const
    {
        const DataView body = payload_.sub(record.bodyOffset, record.declaredLength);
        forEachHandshakeMessage(body, record.bodyOffset, [&](const TLSHandshakeMessage& message) {
            addHandshakeMessage(parent, record, message);
            return true;
        });
    }

    void addHandshakeMessage(VELNodeProtocol& parent, const TLSRecord& record, const TLSHandshakeMessage& message) const
    {
        constexpr std::int64_t headerLength = TLSHandshakeMessage::headerLength;
        const auto type = handshakeTypeOf(message.handshakeType);
        const std::string name = type ? std::string(handshakeTypeName(*type)) : unknownCodePointName(message.handshakeType, bundle_);
        VELNodeProtocol& node =
            addHeading(parent, name, {message.bodyOffset - headerLength - record.recordOffset, message.length + headerLength});
        addField(node, "Handshake Type", fmt::format(FMT_COMPILE("{} ({})"), name, message.handshakeType), {0, 1});
        addField(node, "Length", std::to_string(message.length), {1, 3});
        if (message.isTruncated) return addNote(node, "Continues in next segment");
        if (!type) return;
        const DataView body = payload_.sub(message.bodyOffset, message.length);
        switch (*type) {
        case TLSHandshakeType::newSessionTicket:
        case TLSHandshakeType::encryptedExtensions:
        case TLSHandshakeType::certificateVerify:
        case TLSHandshakeType::finished: return addNote(node, "Encrypted (TLS 1.3 — keys required, Phase B)");
        case TLSHandshakeType::clientHello: return addClientHello(node, body, message.bodyOffset);
        case TLSHandshakeType::serverHello: return addServerHello(node, body, message.bodyOffset);
        case TLSHandshakeType::certificate: return TLSDissector::addCertificateNodes(node, body, message.bodyOffset, bundle_);
        default: return;
        }
    }

    void addClientHello(VELNodeProtocol& node, DataView body, std::int64_t bodyOffset) const
    {
        auto hello = TLSDissector::parseClientHello(body, bodyOffset);
        if (!hello) return;
        // The node begins with the message's header, the hello's offsets with its body.
        constexpr std::int64_t start = TLSHandshakeMessage::headerLength;
        addField(node, "Version", versionName(hello->legacyVersion), {start, 2});
        addField(node, "Random", {}, {start + 2, 32});
        addField(node, "Session ID", std::to_string(hello->sessionIDLength), {start + 34, hello->sessionIDLength + 1});
        VELNodeProtocol& suites = addField(node, "Cipher Suites", std::to_string(hello->cipherSuites.size()),
                                           {hello->cipherSuitesOffset + start, hello->cipherBytes + 2});
        std::int64_t location = 2;
        for (const std::uint16_t suite : hello->cipherSuites) {
            addField(suites, "Cipher Suite", cipherSuiteName(suite), {location, 2});
            location += 2;
        }
        if (hello->compressionLength > 0) {
            addField(node, "Compression", {}, {hello->compressionOffset + start, hello->compressionLength});
        }
        if (hello->extensions.empty()) return;
        const Range range{hello->extensionsOffset + start, body.size() - hello->extensionsOffset};
        add(node, VELNode::nodeWithName(localized("Extensions"), extensions(*std::move(hello))), range);
    }

    static std::string extensionText(const ClientHelloInfo& hello, const TLSExtension& extension)
    {
        switch (static_cast<TLSExtensionType>(extension.extType)) {
        case TLSExtensionType::serverName: return hello.serverName.value_or("");
        case TLSExtensionType::alpn: return joined(hello.alpnProtocols);
        case TLSExtensionType::supportedVersions: {
            std::vector<std::string> names;
            names.reserve(hello.supportedVersions.size());
            for (const std::uint16_t version : hello.supportedVersions) names.push_back(versionName(version));
            return joined(names);
        }
        default: return {};
        }
    }

    void addServerHello(VELNodeProtocol& node, DataView body, std::int64_t bodyOffset) const
    {
        const auto hello = TLSDissector::parseServerHello(body, bodyOffset);
        if (!hello) return;
        constexpr std::int64_t start = TLSHandshakeMessage::headerLength;
        addField(node, "Version", versionName(hello->supportedVersion.value_or(hello->legacyVersion)), {start, 2});
        addField(node, "Random", {}, {start + 2, 32});
        addField(node, "Session ID", std::to_string(hello->sessionIDLength), {start + 34, hello->sessionIDLength + 1});
        addField(node, "Cipher Suite", cipherSuiteName(hello->cipherSuite), {hello->cipherSuiteOffset + start, 2});
        if (hello->supportedVersion == 0x0304) {
            addHeading(node, localized("Encrypted handshake/application data (TLS 1.3 — keys required, Phase B)"), {0, 0});
        }
    }

    Data bytes_;
    DataView payload_;  ///< bytes_
    const Bundle& bundle_;
};

}  // namespace

VELNodeList TLSDissector::nodes(const Data& payload, const Bundle& bundle)
{
    return std::make_shared<const TreeBuilder>(payload, bundle)->tree();
}

}  // namespace sealscope
