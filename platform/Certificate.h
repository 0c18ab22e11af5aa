// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Data.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace sealscope SEALSCOPE_API {

/// An X.509 certificate taken apart (RFC 5280 §4.1). Nothing is verified: no chain, no signature, no dates. Texts are UTF-8
/// as the certificate has them, control characters and NUL included. Not copyable; any thread may read it.
class Certificate {
public:
    /// Longer ones, ten times what TLS libraries accept as a whole chain, are not read: their parts take many times their bytes.
    static constexpr std::int64_t longestDER = 1 << 20;

    /// One attribute of a distinguished name (RFC 5280 §4.1.2.4).
    struct Attribute {
        std::string type;                 ///< object identifier in dotted decimal, "2.5.4.3" for a common name
        std::optional<std::string> text;  ///< nothing when the value is of no text type, or no well-formed text of its type
        bool operator==(const Attribute&) const = default;
    };

    /// The certificate that the bytes are, from the first to the last; nothing when they are none. Texts inside names do not
    /// matter for that: a certificate with a name that is no text still has everything else.
    static std::optional<Certificate> fromDER(DataView der);

    /// The last of the subject's common names that are text.
    std::optional<std::string> subjectCommonName() const;
    // The attributes of both names in the order of the certificate.
    std::vector<Attribute> subject() const;
    std::vector<Attribute> issuer() const;
    // Nothing for a time that no calendar has, such as one on 31 February, or one beyond the years 0 to 9999.
    std::optional<std::chrono::sys_seconds> notBefore() const;
    std::optional<std::chrono::sys_seconds> notAfter() const;
    /// The content bytes of the serial number as encoded: a leading 00 stays, a negative number is in two's complement.
    Data serialNumber() const;
    /// The subject alternative names of the kinds dNSName, rfc822Name and URI that are well-formed text, in the order of the
    /// certificate (RFC 5280 §4.2.1.6).
    std::vector<std::string> alternativeNames() const;

    struct Content;

private:
    struct Release {
        void operator()(Content* content) const;
    };
    explicit Certificate(Content* content) : content_(content) {}
    std::unique_ptr<Content, Release> content_;
};

}  // namespace sealscope SEALSCOPE_API
