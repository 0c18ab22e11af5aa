// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Data.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace sealscope {

/// One entry of a Certificate message in its TLS 1.2 form (RFC 5246 §7.4.2).
struct TLSCertEntry {
    Data der;
    std::int64_t offsetInSegment = 0;  ///< of the DER bytes, in the caller's coordinates
    std::int64_t length = 0;           ///< bytes
    bool operator==(const TLSCertEntry&) const = default;
};

/// What is shown of an X.509 certificate (RFC 5280 §4.1).
struct CertSummary {
    std::optional<std::string> subjectCN;
    std::optional<std::string> issuerCN;
    std::optional<std::string> notBefore;  ///< ISO 8601 in UTC, "2025-03-01T12:00:00Z"
    std::optional<std::string> notAfter;
    std::optional<std::string> serial;  ///< content bytes as upper-case hexadecimal pairs joined with ":"
    std::vector<std::string> sans;      ///< subject alternative names that are text, in certificate order
    bool operator==(const CertSummary&) const = default;
};

}  // namespace sealscope
