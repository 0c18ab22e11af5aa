// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Sealscope/TLSCertificate.h"
#include "Sealscope/TLSHandshake.h"
#include "Sealscope/TLSRecord.h"
#include "tests/support/Printers.h"

#include <ostream>

// How GoogleTest shows the plug-in's records when an expectation fails.
namespace sealscope {

inline void PrintTo(const TLSRecord& record, std::ostream* out)
{
    *out << fmt::format("type {} version {:04x} @{} body @{}+{}{}", record.contentType, record.version(), record.recordOffset,
                        record.bodyOffset, record.declaredLength, record.isTruncated ? " truncated" : "");
}
inline void PrintTo(const TLSHandshakeMessage& message, std::ostream* out)
{
    *out << fmt::format("type {} body @{}+{}{}", message.handshakeType, message.bodyOffset, message.length,
                        message.isTruncated ? " truncated" : "");
}
inline void PrintTo(const TLSExtension& extension, std::ostream* out)
{
    *out << fmt::format("extension {:04x} @{}+{}", extension.extType, extension.bodyOffset, extension.length);
}
inline void PrintTo(const TLSCertEntry& entry, std::ostream* out)
{
    *out << fmt::format("certificate @{}+{} {}", entry.offsetInSegment, entry.length, hexText(entry.der));
}
inline void PrintTo(const CertSummary& summary, std::ostream* out)
{
    const auto text = [](const std::optional<std::string>& value) { return value ? '"' + *value + '"' : "nothing"; };
    *out << fmt::format("subject {} issuer {} from {} to {} serial {} names {}", text(summary.subjectCN), text(summary.issuerCN),
                        text(summary.notBefore), text(summary.notAfter), text(summary.serial), summary.sans);
}

}  // namespace sealscope
