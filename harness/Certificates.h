// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Data.h"

#include <memory>
#include <string>
#include <vector>

namespace sealscope {

/// One attribute of a distinguished name (RFC 5280 §4.1.2.4).
struct NameAttribute {
    std::string field;  ///< "CN", "O", "C", … or a dotted object identifier
    std::string value;  ///< UTF-8, or the content bytes as they stand when `stringTag` is given
    int stringTag = 0;  ///< universal tag of the ASN.1 string: 12 UTF8, 19 Printable, 20 Teletex, 22 IA5, 28 Universal, 30 BMP; 0: the
                        ///< narrowest that fits
};

enum class CertificateKey : std::uint8_t { rsa2048, ecdsaP256, ecdsaP384, ed25519 };

/// What a certificate says. Keys are the same in every process, so equal options give equal certificates.
struct CertificateOptions {
    CertificateKey key = CertificateKey::ecdsaP256;
    std::vector<NameAttribute> subject = {{"CN", "example.org"}};
    /// "DNS:example.org", "email:a@example.org", "URI:https://example.org/", "IP:192.0.2.1", "RID:1.2.3",
    /// "otherName:1.2.3;UTF8:text"; empty for no extension (RFC 5280 §4.2.1.6).
    std::vector<std::string> alternativeNames = {"DNS:example.org"};
    std::string serial = "1001";                ///< hexadecimal, "-" in front for a negative number
    std::string notBefore = "20240101000000Z";  ///< UTCTime is chosen up to 2049, GeneralizedTime after (RFC 5280 §4.1.2.5)
    std::string notAfter = "20491231235959Z";
    int authorities = 1;     ///< how many certificates above it, the self-signed root among them; 0: self-signed
    bool sendsRoot = false;  ///< the chain ends with the root, which peers usually leave out
};

/// A certificate with its key and the certificates above it.
class CertificateChain {
public:
    /// Made once per process and kept; throws std::runtime_error when libcrypto refuses.
    static std::shared_ptr<const CertificateChain> make(const CertificateOptions& options);

    std::vector<Data> certificates;  ///< DER, the leaf first, as a server sends them
    std::string privateKeyPEM;       ///< of the leaf
};

/// The leaf alone, in DER.
Data makeCertificate(const CertificateOptions& options);

}  // namespace sealscope
