// SPDX-License-Identifier: Apache-2.0
#include "interpreters/TLSReach/ReachMessages.h"

#include "Sealscope/TLSApplicationProtocol.h"
#include "Sealscope/TLSDissector.h"
#include "Sealscope/TLSLists.h"
#include "Sealscope/TLSNames.h"
#include "Sealscope/TLSStreamParser.h"
#include "host/VELDependencies/VELPlugInBundle.h"
#include "platform/Base64.h"

#include <algorithm>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <utility>

namespace sealscope {

namespace {

// Message types that the names beside the TLS plug-in leave out (RFC 8446 §4, RFC 6066 §8).
constexpr std::uint8_t helloRequest = 0, endOfEarlyData = 5, certificateStatus = 22, keyUpdate = 24;

constexpr std::uint16_t earlyDataExtension = 42;

using Rows = std::vector<DetailRow>;

std::string nameOf(std::uint8_t type)
{
    switch (type) {
    case helloRequest: return "Hello Request";
    case endOfEarlyData: return "End Of Early Data";
    case certificateStatus: return "Certificate Status";
    case keyUpdate: return "Key Update";
    default: return handshakeSummaryName(type);
    }
}

Rows extensionRows(DataView extensions)
{
    Rows rows;
    std::vector<std::string> names;
    forEachExtension(extensions, 0, [&](const TLSExtension& extension) {
        names.push_back(extensionName(extension.extType, plugInBundle()));
        return true;
    });
    if (!names.empty()) rows.push_back({"Extensions", fmt::format("{}", fmt::join(names, ", "))});
    return rows;
}

Rows encryptedExtensionsRows(DataView body)
{
    Rows rows;
    if (auto protocol = TLSApplicationProtocol::ofEncryptedExtensions(body)) rows.push_back({"ALPN", *std::move(protocol)});
    std::ranges::move(extensionRows(body), std::back_inserter(rows));
    return rows;
}

/// RFC 8446 §4.4.2: the message in the shape of TLS 1.2, without context and extensions.
std::vector<std::uint8_t> certificateListOf(const std::vector<DataView>& certificates)
{
    std::vector<std::uint8_t> list;
    const auto putLength = [&](std::int64_t length) {
        list.insert(list.end(),
                    {static_cast<std::uint8_t>(length >> 16), static_cast<std::uint8_t>(length >> 8), static_cast<std::uint8_t>(length)});
    };
    std::int64_t total = 0;
    for (const DataView certificate : certificates) total += 3 + certificate.size();
    putLength(total);
    for (const DataView certificate : certificates) {
        putLength(certificate.size());
        list.insert(list.end(), certificate.begin(), certificate.end());
    }
    return list;
}

/// RFC 8446 §4.6.1: lifetime (4), age (4), nonce, ticket, extensions.
Rows ticketRows(DataView body)
{
    const std::int64_t ticketAt = 9 + body.u8(8);
    const std::int64_t ticketLength = body.u16(ticketAt);
    Rows rows{{"Lifetime", fmt::format("{} s", body.u32(0))}, {"Ticket", fmt::format("{} bytes", ticketLength)}};
    const DataView extensions = body.from(ticketAt + 2 + ticketLength);
    forEachExtension(extensions, 0, [&](const TLSExtension& extension) {
        if (extension.extType == earlyDataExtension)
            rows.push_back({"Early Data", fmt::format("up to {} bytes", extensions.u32(extension.bodyOffset))});
        return true;
    });
    return rows;
}

using Form = ReachMessages::Form;

Rows rowsOf(const AssembledMessage& message, Form form)
{
    const bool isTLS13 = form == Form::TLS13;
    const DataView body = message.body;
    if (message.type == keyUpdate) return {{"Asks for an update", body.u8(0) == 1 ? "yes" : "no"}};
    const auto type = handshakeTypeOf(message.type);
    if (!type) return {};
    switch (*type) {
    case TLSHandshakeType::encryptedExtensions: return encryptedExtensionsRows(body);
    case TLSHandshakeType::certificate:
        if (isTLS13)
            return TLSStreamParser::handshakeSummary(message.type, certificateListOf(ReachMessages::certificates(body, form)), 0).second;
        break;
    case TLSHandshakeType::certificateVerify:
        return {{"Signature Algorithm", fmt::format("0x{:04X}", body.u16(0))}, {"Signature", fmt::format("{} bytes", body.u16(2))}};
    case TLSHandshakeType::finished: return {{"Verify Data", fmt::format("{} bytes", body.size())}};
    case TLSHandshakeType::newSessionTicket:
        if (isTLS13) return ticketRows(body);
        return {{"Lifetime", fmt::format("{} s", body.u32(0))}, {"Ticket", fmt::format("{} bytes", body.u16(4))}};
    case TLSHandshakeType::certificateRequest:
        if (isTLS13) return extensionRows(body.from(1 + body.u8(0)));
        return {};
    default: break;
    }
    return TLSStreamParser::handshakeSummary(message.type, body, 0).second;
}

std::string summaryOf(const AssembledMessage& message)
{
    const auto type = handshakeTypeOf(message.type);
    if (type == TLSHandshakeType::clientHello || type == TLSHandshakeType::serverHello)
        return TLSStreamParser::handshakeSummary(message.type, message.body, 0).first;
    return nameOf(message.type);
}

}  // namespace

std::vector<DataView> ReachMessages::certificates(DataView body, Form form)
{
    std::vector<DataView> list;
    if (form == Form::upToTLS12) {
        forEachCertificate(body, 0, [&](DataView der, std::int64_t) {
            list.push_back(der);
            return true;
        });
        return list;
    }
    // Context, then entries of a certificate and its extensions each.
    DataView entries = body.from(1 + body.u8(0));
    entries = entries.sub(3, entries.u24(0));
    while (entries.size() >= 3) {
        const DataView der = entries.sub(3, entries.u24(0));
        if (der.size() != entries.u24(0)) break;
        list.push_back(der);
        entries = entries.from(3 + der.size());
        entries = entries.from(2 + entries.u16(0));
    }
    return list;
}

std::string ReachMessages::pem(const std::vector<DataView>& certificates)
{
    constexpr std::size_t lineLength = 64;             // RFC 7468 §2
    constexpr std::int64_t shortestCertificate = 100;  // none that has a key is as short
    std::string text;
    for (const DataView der : certificates) {
        if (der.size() < shortestCertificate) continue;
        const auto summary = TLSDissector::certSummary(der);
        // A name is an attacker's text; a comment ends with its line.
        std::string subject = summary && summary->subjectCN ? *summary->subjectCN : std::string("no common name");
        std::ranges::replace_if(subject, [](char character) { return static_cast<unsigned char>(character) < ' ' || character == 0x7F; }, '?');
        text += fmt::format("# subject: {}\n-----BEGIN CERTIFICATE-----\n", subject);
        const std::string encoded = base64(der);
        for (std::size_t at = 0; at < encoded.size(); at += lineLength) text += encoded.substr(at, lineLength) + '\n';
        text += "-----END CERTIFICATE-----\n";
    }
    return text;
}

StreamMessage ReachMessages::message(const AssembledMessage& message, Form form, TCPSegment::Direction direction, const TCPStream& stream)
{
    StreamMessage shown{.direction = direction,
                        .kind = StreamMessageKind::handshake,
                        .summary = summaryOf(message),
                        .detail = {{"TLS", "decrypted"}},
                        .isDecrypted = true};
    std::ranges::move(rowsOf(message, form), std::back_inserter(shown.detail));
    shown.byteRange = ByteRange{message.records.front().lower, message.records.back().upper};
    PacketIdCollector packets(shown.packetIds);
    std::optional<double> first;
    for (const ByteRange record : message.records) {
        const ByteLocation location = stream.locate(record, direction);
        for (const std::int64_t packetId : location.packetIds) packets.add(packetId);
        if (location.timestamp) first = std::min(first.value_or(*location.timestamp), *location.timestamp);
    }
    shown.timestamp = first.value_or(0);
    if (message.type == std::to_underlying(TLSHandshakeType::certificate)) {
        std::string text = pem(certificates(message.body, form));
        if (!text.empty()) shown.attributes.push_back({certificatesKey, std::move(text)});
    }
    return shown;
}

}  // namespace sealscope
