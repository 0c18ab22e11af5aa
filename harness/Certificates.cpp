// SPDX-License-Identifier: Apache-2.0
#include "harness/Certificates.h"

#include "harness/DeterministicRandom.h"
#include "harness/OpenSSLPointers.h"

#include <fmt/format.h>
#include <map>
#include <mutex>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

namespace sealscope {

namespace {

/// A key by kind and use; generating RSA keys is slow, so each exists once.
EVP_PKEY* key(CertificateKey kind, int use)
{
    static std::map<std::pair<CertificateKey, int>, EVPKeyPointer> keys;
    EVPKeyPointer& found = keys[{kind, use}];
    if (!found) {
        RandomSequence sequence(0x5EA1 + static_cast<std::uint64_t>(kind) * 100 + static_cast<std::uint64_t>(use));
        const DeterministicRandom random(sequence);
        switch (kind) {
        case CertificateKey::rsa2048: found.reset(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", std::size_t{2048})); break;
        case CertificateKey::ecdsaP256: found.reset(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256")); break;
        case CertificateKey::ecdsaP384: found.reset(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-384")); break;
        case CertificateKey::ed25519: found.reset(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519")); break;
        }
        check(found != nullptr, "generating a key");
    }
    return found.get();
}

void addAttribute(X509_NAME* name, const NameAttribute& attribute)
{
    const int type = attribute.stringTag == 0 ? MBSTRING_UTF8 : attribute.stringTag;
    const auto* value = reinterpret_cast<const unsigned char*>(attribute.value.data());
    check(X509_NAME_add_entry_by_txt(name, attribute.field.c_str(), type, value, static_cast<int>(attribute.value.size()), -1, 0) == 1,
          "adding a name attribute");
}

void addExtension(X509* certificate, int kind, const std::string& value)
{
    X509V3_CTX context;
    X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
    const OpenSSLPointer<X509_EXTENSION, X509_EXTENSION_free> extension(X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str()));
    check(extension && X509_add_ext(certificate, extension.get(), -1) == 1, "adding an extension");
}

enum class Role : std::uint8_t { leaf, authority };

/// A certificate signed by its issuer, or by itself when `issuer` is null.
X509Pointer sign(const CertificateOptions& options, EVP_PKEY* ownKey, X509* issuer, EVP_PKEY* issuerKey, Role role)
{
    X509Pointer certificate(X509_new());
    check(certificate != nullptr && X509_set_version(certificate.get(), X509_VERSION_3) == 1, "making a certificate");

    BIGNUM* number = nullptr;
    check(BN_hex2bn(&number, options.serial.c_str()) != 0, "reading a serial number");
    const BIGNUMPointer serial(number);
    check(BN_to_ASN1_INTEGER(serial.get(), X509_get_serialNumber(certificate.get())) != nullptr, "setting a serial number");

    check(ASN1_TIME_set_string_X509(X509_getm_notBefore(certificate.get()), options.notBefore.c_str()) == 1, "setting notBefore");
    check(ASN1_TIME_set_string_X509(X509_getm_notAfter(certificate.get()), options.notAfter.c_str()) == 1, "setting notAfter");
    for (const NameAttribute& attribute : options.subject) addAttribute(X509_get_subject_name(certificate.get()), attribute);
    check(X509_set_issuer_name(certificate.get(), X509_get_subject_name(issuer ? issuer : certificate.get())) == 1, "setting the issuer");
    check(X509_set_pubkey(certificate.get(), ownKey) == 1, "setting the key");

    addExtension(certificate.get(), NID_basic_constraints, role == Role::authority ? "critical,CA:TRUE" : "CA:FALSE");
    if (!options.alternativeNames.empty())
        addExtension(certificate.get(), NID_subject_alt_name, fmt::format("{}", fmt::join(options.alternativeNames, ",")));

    EVP_PKEY* signingKey = issuer ? issuerKey : ownKey;
    const EVP_MD* digest = EVP_PKEY_is_a(signingKey, "ED25519") ? nullptr : EVP_sha256();
    check(X509_sign(certificate.get(), signingKey, digest) > 0, "signing a certificate");
    return certificate;
}

Data der(X509* certificate)
{
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(i2d_X509(certificate, nullptr)));
    unsigned char* end = bytes.data();
    i2d_X509(certificate, &end);
    return Data(std::move(bytes));
}

std::string pem(EVP_PKEY* privateKey)
{
    const BIOPointer memory(BIO_new(BIO_s_mem()));
    check(PEM_write_bio_PrivateKey(memory.get(), privateKey, nullptr, nullptr, 0, nullptr, nullptr) == 1, "writing a key");
    char* text = nullptr;
    const long length = BIO_get_mem_data(memory.get(), &text);
    return {text, static_cast<std::size_t>(length)};
}

std::shared_ptr<const CertificateChain> build(const CertificateOptions& options)
{
    RandomSequence sequence(0xCE27);
    const DeterministicRandom random(sequence);
    auto chain = std::make_shared<CertificateChain>();

    // From the root down; authorities have ECDSA keys of their own.
    std::vector<X509Pointer> authorities;
    for (int level = 0; level < options.authorities; ++level) {
        CertificateOptions authority;
        authority.subject = {
            {"C", "ZZ"}, {"O", "Example Trust"}, {"CN", level == 0 ? "Example Root" : fmt::format("Example Authority {}", level)}};
        authority.alternativeNames.clear();
        authority.serial = fmt::format("{:X}", 0xA0 + level);
        X509* issuer = level == 0 ? nullptr : authorities.back().get();
        authorities.push_back(
            sign(authority, key(CertificateKey::ecdsaP256, 1 + level), issuer, key(CertificateKey::ecdsaP256, level), Role::authority));
    }
    const X509Pointer leaf = sign(options, key(options.key, 0), authorities.empty() ? nullptr : authorities.back().get(),
                                  key(CertificateKey::ecdsaP256, options.authorities), Role::leaf);

    chain->certificates.push_back(der(leaf.get()));
    for (std::size_t level = authorities.size(); level-- > (options.sendsRoot ? 0U : 1U);)
        chain->certificates.push_back(der(authorities[level].get()));
    chain->privateKeyPEM = pem(key(options.key, 0));
    return chain;
}

std::string cacheKey(const CertificateOptions& options)
{
    std::string text = fmt::format("{}|{}|{}|{}|{}|{}|{}", static_cast<int>(options.key), options.serial, options.notBefore,
                                   options.notAfter, options.authorities, options.sendsRoot, fmt::join(options.alternativeNames, ","));
    for (const NameAttribute& attribute : options.subject)
        text += fmt::format("|{}={}:{}:{}", attribute.field, attribute.stringTag, attribute.value.size(), attribute.value);
    return text;
}

}  // namespace

std::shared_ptr<const CertificateChain> CertificateChain::make(const CertificateOptions& options)
{
    static std::mutex mutex;
    static std::map<std::string, std::shared_ptr<const CertificateChain>> chains;
    const std::lock_guard lock(mutex);
    std::shared_ptr<const CertificateChain>& chain = chains[cacheKey(options)];
    if (!chain) chain = build(options);
    return chain;
}

Data makeCertificate(const CertificateOptions& options) { return CertificateChain::make(options)->certificates.front(); }

}  // namespace sealscope
