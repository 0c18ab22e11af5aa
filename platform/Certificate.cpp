// SPDX-License-Identifier: Apache-2.0
// libcrypto's own certificate type decodes the public key, builds canonical names and looks extensions up while it reads,
// which takes ten times as long as reading does. The ASN.1 of a certificate is therefore described here once more, with
// names and key left as they stand, for libcrypto's decoder. What it accepts is what libcrypto's type accepts, and beyond
// that names with a VisibleString or with text that is not well-formed.
#include "platform/Certificate.h"

#include "platform/ErrorQueueMark.h"
#include "platform/UTF8.h"

#include <algorithm>
#include <openssl/asn1t.h>
#include <openssl/x509v3.h>
#include <span>

namespace sealscope {

namespace {

// RFC 5280 §4.1 and Appendix A.1. A stack field holds the elements of a SEQUENCE OF or SET OF.
struct NameAttribute {
    ASN1_OBJECT* type;
    ASN1_TYPE* value;  ///< of any type: one that is no text loses itself, not the certificate
};
struct PublicKeyInfo {
    X509_ALGOR* algorithm;
    ASN1_BIT_STRING* key;
};
struct ToBeSigned {
    ASN1_INTEGER* version;
    ASN1_INTEGER* serialNumber;
    X509_ALGOR* signature;
    OPENSSL_STACK* issuer;  ///< of stacks of NameAttribute
    X509_VAL* validity;
    OPENSSL_STACK* subject;
    PublicKeyInfo* publicKeyInfo;
    ASN1_BIT_STRING* issuerUniqueID;
    ASN1_BIT_STRING* subjectUniqueID;
    STACK_OF(X509_EXTENSION) * extensions;
};

}  // namespace

struct Certificate::Content {
    ToBeSigned* toBeSigned;
    X509_ALGOR* signatureAlgorithm;
    ASN1_BIT_STRING* signature;
};

namespace {

using CertificateContent = Certificate::Content;

// clang-format off
ASN1_SEQUENCE(NameAttribute) = {
    ASN1_SIMPLE(NameAttribute, type, ASN1_OBJECT),
    ASN1_SIMPLE(NameAttribute, value, ASN1_ANY)
} static_ASN1_SEQUENCE_END(NameAttribute)

ASN1_ITEM_TEMPLATE(RelativeName) = ASN1_EX_TEMPLATE_TYPE(ASN1_TFLG_SET_OF, 0, RelativeName, NameAttribute)
static_ASN1_ITEM_TEMPLATE_END(RelativeName)

ASN1_ITEM_TEMPLATE(Name) = ASN1_EX_TEMPLATE_TYPE(ASN1_TFLG_SEQUENCE_OF, 0, Name, RelativeName)
static_ASN1_ITEM_TEMPLATE_END(Name)

ASN1_SEQUENCE(PublicKeyInfo) = {
    ASN1_SIMPLE(PublicKeyInfo, algorithm, X509_ALGOR),
    ASN1_SIMPLE(PublicKeyInfo, key, ASN1_BIT_STRING)
} static_ASN1_SEQUENCE_END(PublicKeyInfo)

ASN1_SEQUENCE(ToBeSigned) = {
    ASN1_EXP_OPT(ToBeSigned, version, ASN1_INTEGER, 0),
    ASN1_SIMPLE(ToBeSigned, serialNumber, ASN1_INTEGER),
    ASN1_SIMPLE(ToBeSigned, signature, X509_ALGOR),
    ASN1_SIMPLE(ToBeSigned, issuer, Name),
    ASN1_SIMPLE(ToBeSigned, validity, X509_VAL),
    ASN1_SIMPLE(ToBeSigned, subject, Name),
    ASN1_SIMPLE(ToBeSigned, publicKeyInfo, PublicKeyInfo),
    ASN1_IMP_OPT(ToBeSigned, issuerUniqueID, ASN1_BIT_STRING, 1),
    ASN1_IMP_OPT(ToBeSigned, subjectUniqueID, ASN1_BIT_STRING, 2),
    ASN1_EXP_SEQUENCE_OF_OPT(ToBeSigned, extensions, X509_EXTENSION, 3)
} static_ASN1_SEQUENCE_END(ToBeSigned)

ASN1_SEQUENCE(CertificateContent) = {
    ASN1_SIMPLE(CertificateContent, toBeSigned, ToBeSigned),
    ASN1_SIMPLE(CertificateContent, signatureAlgorithm, X509_ALGOR),
    ASN1_SIMPLE(CertificateContent, signature, ASN1_BIT_STRING)
} static_ASN1_SEQUENCE_END(CertificateContent)
    // clang-format on

    DataView bytesOf(const ASN1_STRING* string)
{
    return {ASN1_STRING_get0_data(string), ASN1_STRING_length(string)};
}

/// The content bytes of an object identifier.
std::span<const std::uint8_t> identifierOf(const ASN1_OBJECT* type) { return {OBJ_get0_data(type), OBJ_length(type)}; }

/// Calls `visit` with every attribute of a name, in the order of the certificate.
template <class Visit> void forEachAttribute(const OPENSSL_STACK* name, Visit visit)
{
    for (int i = 0; i < OPENSSL_sk_num(name); ++i) {
        const auto* const relativeName = static_cast<const OPENSSL_STACK*>(OPENSSL_sk_value(name, i));
        for (int j = 0; j < OPENSSL_sk_num(relativeName); ++j) {
            visit(*static_cast<const NameAttribute*>(OPENSSL_sk_value(relativeName, j)));
        }
    }
}

std::string latin1Text(DataView bytes)
{
    std::string text;
    for (const std::uint8_t byte : bytes) utf8::append(text, byte);
    return text;
}

/// Text whose characters take `width` bytes each, most significant first.
std::optional<std::string> wideText(DataView bytes, std::int64_t width)
{
    if (bytes.size() % width != 0) return std::nullopt;
    std::string text;
    for (std::int64_t offset = 0; offset < bytes.size(); offset += width) {
        const char32_t scalar = width == 2 ? bytes.u16(offset) : bytes.u32(offset);
        if (scalar > 0x10FFFF || (scalar >= 0xD800 && scalar <= 0xDFFF)) return std::nullopt;
        utf8::append(text, scalar);
    }
    return text;
}

/// A name's value as text, when it is of a text type and well-formed.
std::optional<std::string> textOf(const ASN1_TYPE* value)
{
    const auto bytesOfString = [&] { return bytesOf(value->value.asn1_string); };
    switch (value->type) {
    case V_ASN1_UTF8STRING: return utf8::decoded(bytesOfString());
    case V_ASN1_PRINTABLESTRING:
    case V_ASN1_IA5STRING:
    case V_ASN1_NUMERICSTRING:
    case V_ASN1_VISIBLESTRING:
        // These have seven bits. Who fills the eighth has written UTF-8 or, in older certificates, Latin-1.
        if (auto text = utf8::decoded(bytesOfString())) return text;
        return latin1Text(bytesOfString());
    // Nobody writes the shift sequences of T.61; what stands there is Latin-1.
    case V_ASN1_TELETEXSTRING: return latin1Text(bytesOfString());
    case V_ASN1_BMPSTRING: return wideText(bytesOfString(), 2);
    case V_ASN1_UNIVERSALSTRING: return wideText(bytesOfString(), 4);
    default: return std::nullopt;
    }
}

std::string dottedText(const ASN1_OBJECT* type)
{
    char text[80];
    const int length = OBJ_obj2txt(text, sizeof text, type, 1);
    if (length < static_cast<int>(sizeof text)) return text;
    std::string longText(static_cast<std::size_t>(length) + 1, '\0');
    OBJ_obj2txt(longText.data(), length + 1, type, 1);
    longText.pop_back();
    return longText;
}

std::optional<std::chrono::sys_seconds> timeOf(const ASN1_TIME* time)
{
    using namespace std::chrono;
    tm fields{};
    if (ASN1_TIME_to_tm(time, &fields) != 1) return std::nullopt;
    const auto date = year(fields.tm_year + 1900) / (fields.tm_mon + 1) / fields.tm_mday;
    return sys_days(date) + hours(fields.tm_hour) + minutes(fields.tm_min) + seconds(fields.tm_sec);
}

}  // namespace

void Certificate::Release::operator()(Content* content) const
{
    ASN1_item_free(reinterpret_cast<ASN1_VALUE*>(content), ASN1_ITEM_rptr(CertificateContent));
}

std::optional<Certificate> Certificate::fromDER(DataView der)
{
    if (der.size() > longestDER) return std::nullopt;
    const ErrorQueueMark mark;
    const unsigned char* end = der.data();
    auto* const content =
        reinterpret_cast<Content*>(ASN1_item_d2i(nullptr, &end, static_cast<long>(der.size()), ASN1_ITEM_rptr(CertificateContent)));
    if (!content) return std::nullopt;
    Certificate certificate(content);
    if (end != der.end()) return std::nullopt;
    return certificate;
}

std::optional<std::string> Certificate::subjectCommonName() const
{
    std::optional<std::string> commonName;
    forEachAttribute(content_->toBeSigned->subject, [&](const NameAttribute& attribute) {
        static constexpr std::uint8_t identifier[] = {0x55, 0x04, 0x03};  // 2.5.4.3
        if (!std::ranges::equal(identifierOf(attribute.type), identifier)) return;
        if (auto text = textOf(attribute.value)) commonName = std::move(text);
    });
    return commonName;
}

namespace {

std::vector<Certificate::Attribute> attributesOf(const OPENSSL_STACK* name)
{
    std::vector<Certificate::Attribute> attributes;
    forEachAttribute(name,
                     [&](const NameAttribute& attribute) { attributes.push_back({dottedText(attribute.type), textOf(attribute.value)}); });
    return attributes;
}

}  // namespace

std::vector<Certificate::Attribute> Certificate::subject() const { return attributesOf(content_->toBeSigned->subject); }

std::vector<Certificate::Attribute> Certificate::issuer() const { return attributesOf(content_->toBeSigned->issuer); }

std::optional<std::chrono::sys_seconds> Certificate::notBefore() const
{
    const ErrorQueueMark mark;
    return timeOf(content_->toBeSigned->validity->notBefore);
}

std::optional<std::chrono::sys_seconds> Certificate::notAfter() const
{
    const ErrorQueueMark mark;
    return timeOf(content_->toBeSigned->validity->notAfter);
}

Data Certificate::serialNumber() const
{
    // libcrypto keeps sign and magnitude; an INTEGER has one encoding, so that encoding it again gives the bytes back.
    unsigned char* encoded = nullptr;
    const int length = i2d_ASN1_INTEGER(content_->toBeSigned->serialNumber, &encoded);
    const std::unique_ptr<unsigned char, decltype([](unsigned char* bytes) { OPENSSL_free(bytes); })> owner(encoded);
    const unsigned char* bytes = encoded;
    long contentLength = 0;
    int tag = 0;
    int tagClass = 0;
    if (length <= 0 || (ASN1_get_object(&bytes, &contentLength, &tag, &tagClass, length) & 0x80) != 0) return {};
    return Data(DataView(bytes, contentLength));
}

std::vector<std::string> Certificate::alternativeNames() const
{
    std::vector<std::string> texts;
    const auto* const extensions = content_->toBeSigned->extensions;
    for (int i = 0; i < sk_X509_EXTENSION_num(extensions); ++i) {
        X509_EXTENSION* const extension = sk_X509_EXTENSION_value(extensions, i);
        static constexpr std::uint8_t identifier[] = {0x55, 0x1D, 0x11};  // 2.5.29.17
        if (!std::ranges::equal(identifierOf(X509_EXTENSION_get_object(extension)), identifier)) continue;

        const ErrorQueueMark mark;
        const DataView value = bytesOf(X509_EXTENSION_get_data(extension));
        const unsigned char* bytes = value.data();
        const std::unique_ptr<GENERAL_NAMES, decltype([](GENERAL_NAMES* names) { GENERAL_NAMES_free(names); })> names(
            d2i_GENERAL_NAMES(nullptr, &bytes, static_cast<long>(value.size())));
        for (int j = 0; j < sk_GENERAL_NAME_num(names.get()); ++j) {
            const GENERAL_NAME* const name = sk_GENERAL_NAME_value(names.get(), j);
            if (name->type != GEN_DNS && name->type != GEN_EMAIL && name->type != GEN_URI) continue;
            if (auto text = utf8::decoded(bytesOf(name->d.ia5))) texts.push_back(*std::move(text));
        }
        return texts;  // there is one such extension at most (RFC 5280 §4.2)
    }
    return texts;
}

}  // namespace sealscope
