// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSProtocolAnalyzer.h"

#include "Sealscope/TLSLists.h"
#include "Sealscope/TLSNames.h"
#include "host/VELDependencies/VELPlugInBundle.h"

#include <algorithm>
#include <charconv>
#include <utility>

namespace sealscope {

namespace {

/// Appends items to a summary line, ", " between them.
class ItemList {
public:
    explicit ItemList(std::string& line) : line_(line), start_(line.size()) {}
    std::string& next() { return line_ += line_.size() == start_ ? ": " : ", "; }

private:
    std::string& line_;
    std::size_t start_;
};

void appendNumber(std::string& text, std::uint8_t number)
{
    char digits[3];
    text.append(digits, std::to_chars(std::begin(digits), std::end(digits), number).ptr);
}

DataView bodyOf(const TLSRecord& record, DataView payload) { return payload.sub(record.bodyOffset, record.declaredLength); }

DataView bodyOf(const TLSHandshakeMessage& message, DataView payload) { return payload.sub(message.bodyOffset, message.length); }

bool isCompleteClientHello(const TLSHandshakeMessage& message)
{
    return message.handshakeType == std::to_underlying(TLSHandshakeType::clientHello) && !message.isTruncated;
}

void appendAlert(ItemList& items, const TLSRecord& record, DataView payload)
{
    std::string& line = items.next() += "Alert";
    // The payload bounds an alert, not its record: a shorter one shows what follows it.
    if (!payload.holds(record.bodyOffset, 2)) return;
    ((line += " (") += alertLevelName(payload[record.bodyOffset])) += ", ";
    appendNumber(line, payload[record.bodyOffset + 1]);
    line += ')';
}

void appendHandshakeMessages(ItemList& items, const TLSRecord& record, DataView payload)
{
    if (record.isTruncated) {
        items.next() += "Handshake (continued)";
        return;
    }
    forEachHandshakeMessage(bodyOf(record, payload), record.bodyOffset, [&](const TLSHandshakeMessage& message) {
        std::string& line = items.next() += handshakeSummaryName(message.handshakeType);
        if (!isCompleteClientHello(message)) return true;
        const auto serverName = TLSDissector::clientHelloServerName(bodyOf(message, payload));
        if (serverName && !serverName->empty()) ((line += " (") += *serverName) += ')';
        return true;
    });
}

void appendRecord(ItemList& items, const TLSRecord& record, DataView payload)
{
    const auto type = contentTypeOf(record.contentType);
    if (!type) return;
    switch (*type) {
    case TLSContentType::alert: return appendAlert(items, record, payload);
    case TLSContentType::handshake: return appendHandshakeMessages(items, record, payload);
    case TLSContentType::changeCipherSpec:
    case TLSContentType::applicationData: items.next() += contentTypeName(*type);
    }
}

/// Name of the first record's version; "TLS" without a complete record header.
std::string firstVersionName(DataView payload) { return payload.size() < TLSRecord::headerLength ? "TLS" : versionName(payload.u16(1)); }

/// "TLS 1.2: Server Hello, Change Cipher Spec".
std::string summaryLine(DataView payload)
{
    std::string line = firstVersionName(payload);
    ItemList items(line);
    forEachRecord(payload, [&](const TLSRecord& record) {
        appendRecord(items, record, payload);
        return true;
    });
    return line;
}

/// The server name in the payload's first complete Client Hello, whether it has one or not.
std::optional<std::string> serverName(DataView payload)
{
    std::optional<std::string> name;
    forEachRecord(payload, [&](const TLSRecord& record) {
        if (record.contentType != std::to_underlying(TLSContentType::handshake) || record.isTruncated) return true;
        bool isFound = false;
        forEachHandshakeMessage(bodyOf(record, payload), record.bodyOffset, [&](const TLSHandshakeMessage& message) {
            if (!isCompleteClientHello(message)) return true;
            const DataView body = bodyOf(message, payload);
            isFound = TLSDissector::isClientHello(body);
            if (isFound) name = TLSDissector::clientHelloServerName(body);
            return !isFound;
        });
        return !isFound;
    });
    return name;
}

}  // namespace

std::unique_ptr<VELPluginAnalyzerProtocol> TLSProtocolAnalyzer::create(DataView data, const std::any&)
{
    if (!TLSDissector::looksLikeTLS(data)) return nullptr;
    auto analyzer = std::make_unique<TLSProtocolAnalyzer>();
    analyzer->tlsSize = static_cast<std::uint16_t>(std::min<std::int64_t>(data.size(), 65535));
    return analyzer;
}

const VELAnalyzerClass& TLSProtocolAnalyzer::analyzerClass()
{
    static const VELAnalyzerClass type{"TLSProtocolAnalyzer", &create, VELStreamInterpreting::type<TLSProtocolAnalyzer>()};
    return type;
}

std::optional<std::string> TLSProtocolAnalyzer::protocolInfo(DataView data) const { return summaryLine(data); }

VELNodeList TLSProtocolAnalyzer::protocolNodes(DataView data) const { return TLSDissector::nodes(Data(data), plugInBundle()); }

std::optional<VELValue> TLSProtocolAnalyzer::value(std::string_view key, DataView data) const
{
    if (key == "tlsServerName") {
        auto name = serverName(data);
        return name ? std::optional<VELValue>(*std::move(name)) : std::nullopt;
    }
    if (key == "tlsVersion") return firstVersionName(data);
    if (key == "tlsSize") return static_cast<std::int64_t>(tlsSize);
    return std::nullopt;
}

}  // namespace sealscope
