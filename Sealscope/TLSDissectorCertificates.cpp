// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSDissector.h"
#include "Sealscope/TLSLists.h"
#include "Sealscope/TLSNodeBuilding.h"
#include "platform/Certificate.h"

#include <fmt/compile.h>
#include <utility>

namespace sealscope {

namespace {

/// "2025-03-01T12:00:00Z".
std::string iso8601(std::chrono::sys_seconds time)
{
    using namespace std::chrono;
    const auto day = floor<days>(time);
    const year_month_day date(day);
    const hh_mm_ss clock(time - day);
    return fmt::format(FMT_COMPILE("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z"), static_cast<int>(date.year()),
                       static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()), clock.hours().count(),
                       clock.minutes().count(), clock.seconds().count());
}

/// "01:00:FF".
std::string colonSeparated(DataView bytes)
{
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(static_cast<std::size_t>(bytes.size()) * 3);
    for (const std::uint8_t byte : bytes) {
        if (!text.empty()) text += ':';
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

std::optional<std::string> issuerCommonName(const Certificate& certificate)
{
    for (Certificate::Attribute& attribute : certificate.issuer()) {
        if (attribute.type == "2.5.4.3" && attribute.text) return std::move(attribute.text);
    }
    return std::nullopt;
}

void addSummary(VELNodeProtocol& node, DataView der, const Bundle& bundle)
{
    auto summary = TLSDissector::certSummary(der);
    if (!summary) return;
    const auto addField = [&](std::string_view label, std::string value) {
        nodes::add(node, VELNode::nodeWithName(nodes::localized(bundle, label), VELValue(std::move(value))), {0, der.size()});
    };
    const auto addPresent = [&](std::string_view label, std::optional<std::string>& value) {
        if (value) addField(label, *std::move(value));
    };
    addPresent("Subject", summary->subjectCN);
    addPresent("Issuer", summary->issuerCN);
    addPresent("Not Before", summary->notBefore);
    addPresent("Not After", summary->notAfter);
    addPresent("Serial", summary->serial);
    if (!summary->sans.empty()) addField("Subject Alt Names", nodes::joined(summary->sans));
}

}  // namespace

std::vector<TLSCertEntry> TLSDissector::parseCertificates(DataView body, std::int64_t baseOffset)
{
    std::vector<TLSCertEntry> entries;
    forEachCertificate(body, baseOffset, [&](DataView der, std::int64_t offset) {
        entries.push_back({Data(der), offset, der.size()});
        return true;
    });
    return entries;
}

std::optional<CertSummary> TLSDissector::certSummary(DataView der)
{
    const auto certificate = Certificate::fromDER(der);
    if (!certificate) return std::nullopt;
    return CertSummary{.subjectCN = certificate->subjectCommonName(),
                       .issuerCN = issuerCommonName(*certificate),
                       .notBefore = certificate->notBefore().transform(iso8601),
                       .notAfter = certificate->notAfter().transform(iso8601),
                       .serial = colonSeparated(certificate->serialNumber()),
                       .sans = certificate->alternativeNames()};
}

void TLSDissector::addCertificateNodes(VELNodeProtocol& handshakeNode, DataView body, std::int64_t bodyOffset, const Bundle& bundle)
{
    const std::vector<TLSCertEntry> entries = parseCertificates(body, bodyOffset);
    auto list = VELNode::nodeWithName(nodes::localized(bundle, "Certificates"), VELValue(std::to_string(entries.size())));
    VELNodeProtocol& node = nodes::add(handshakeNode, std::move(list), {TLSHandshakeMessage::headerLength, body.size()});
    std::int64_t number = 0;
    for (const TLSCertEntry& entry : entries) {
        auto certificate = VELNode::nodeWithName(nodes::localized(bundle, "Certificate %u", ++number));
        addSummary(nodes::add(node, std::move(certificate), {entry.offsetInSegment - bodyOffset, entry.length}), entry.der, bundle);
    }
}

}  // namespace sealscope
