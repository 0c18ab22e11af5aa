// SPDX-License-Identifier: Apache-2.0
// The tree of a payload's fields. A node's range counts from its parent's, so that each builder below knows its own node
// alone: a record's fields lie at 0, 1 and 3 wherever the record is.
#include "Sealscope/TLSDissector.h"
#include "Sealscope/TLSNames.h"
#include "Sealscope/TLSWalk.h"
#include "host/VELModels/VELNode.h"
#include "platform/LocalizedFormat.h"

#include <fmt/compile.h>
#include <fmt/ranges.h>

namespace sealscope {

namespace {

std::uint16_t clamped(std::int64_t number) { return static_cast<std::uint16_t>(std::clamp<std::int64_t>(number, 0, 65535)); }

std::string joined(const std::vector<std::string>& texts) { return fmt::format("{}", fmt::join(texts, ", ")); }

/// Bytes of a node: where they begin within the parent's, and how many there are.
struct Range {
    std::int64_t location = 0;
    std::int64_t length = 0;
};

class TreeBuilder {
public:
    TreeBuilder(DataView payload, const Bundle& bundle) : payload_(payload), bundle_(bundle) {}

    VELNodeList tree() const
    {
        const auto root = VELNode::nodeWithName(localized("TLS"));
        root->setHeaderLocations(0);
        root->setHeaderLengths(clamped(payload_.size()));
        forEachRecord(payload_, [&](const TLSRecord& record) {
            addRecord(*root, record);
            return true;
        });
        if (root->children().empty()) addNote(*root, "No TLS records");
        return {root};
    }

private:
    std::string localized(std::string_view text) const { return std::string(bundle_.localizedString(text, localizationTable)); }

    std::string localized(std::string_view format, std::int64_t argument) const
    {
        return fillLocalizedFormat(bundle_.localizedString(format, localizationTable), format, {static_cast<std::uint64_t>(argument)});
    }

    VELNodeProtocol& add(VELNodeProtocol& parent, std::shared_ptr<VELNodeProtocol> child, Range range) const
    {
        VELNodeProtocol& node = *child;
        node.setHeaderLocations(clamped(range.location));
        node.setHeaderLengths(clamped(range.length));
        parent.addChild(std::move(child));
        return node;
    }

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

    void addRecord(VELNodeProtocol& root, const TLSRecord& record) const
    {
        const std::int64_t length = record.isTruncated ? payload_.size() - record.recordOffset : record.endOffset() - record.recordOffset;
        VELNodeProtocol& node = addHeading(root, localized("TLS Record"), {record.recordOffset, length});
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
        case TLSHandshakeType::certificate: return addCertificates(node, body);
        default: return;
        }
    }

    void addClientHello(VELNodeProtocol& node, DataView body, std::int64_t bodyOffset) const
    {
        const auto hello = TLSDissector::parseClientHello(body, bodyOffset);
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
        VELNodeProtocol& extensions =
            addHeading(node, localized("Extensions"), {hello->extensionsOffset + start, body.size() - hello->extensionsOffset});
        for (const TLSExtension& extension : hello->extensions) {
            const std::int64_t headerOffset = extension.bodyOffset - hello->bodyBaseOffset - 4;
            addNamed(extensions, extensionName(extension.extType, bundle_), extensionText(*hello, extension),
                     {headerOffset - hello->extensionsOffset, extension.length + 4});
        }
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

    void addCertificates(VELNodeProtocol& parent, DataView body) const
    {
        std::vector<Range> entries;
        forEachCertificate(body, 0, [&](DataView der, std::int64_t offset) {
            entries.push_back({offset, der.size()});
            return true;
        });
        VELNodeProtocol& node =
            addField(parent, "Certificates", std::to_string(entries.size()), {TLSHandshakeMessage::headerLength, body.size()});
        std::int64_t number = 0;
        for (const Range& entry : entries) {
            VELNodeProtocol& certificate = addHeading(node, localized("Certificate %u", ++number), entry);
            addCertificateSummary(certificate, body.sub(entry.location, entry.length));
        }
    }

    void addCertificateSummary(VELNodeProtocol& node, DataView der) const
    {
        auto summary = TLSDissector::certSummary(der);
        if (!summary) return;
        const auto addPresent = [&](std::string_view label, std::optional<std::string>& value) {
            if (value) addField(node, label, *std::move(value), {0, der.size()});
        };
        addPresent("Subject", summary->subjectCN);
        addPresent("Issuer", summary->issuerCN);
        addPresent("Not Before", summary->notBefore);
        addPresent("Not After", summary->notAfter);
        addPresent("Serial", summary->serial);
        if (!summary->sans.empty()) addField(node, "Subject Alt Names", joined(summary->sans), {0, der.size()});
    }

    DataView payload_;
    const Bundle& bundle_;
};

}  // namespace

VELNodeList TLSDissector::nodes(DataView payload, const Bundle& bundle) { return TreeBuilder(payload, bundle).tree(); }

}  // namespace sealscope
