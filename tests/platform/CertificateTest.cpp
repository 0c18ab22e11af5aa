// SPDX-License-Identifier: Apache-2.0
#include "platform/Certificate.h"

#include "harness/Certificates.h"
#include "harness/Hex.h"
#include "harness/OpenSSLPointers.h"
#include "platform/UTF8.h"
#include "tests/support/Printers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/x509v3.h>
#include <random>
#include <set>

namespace sealscope {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// One DER value: tag, length in the shortest form, content.
Data der(std::uint8_t tag, const Data& content)
{
    std::vector<std::uint8_t> header{tag};
    const std::int64_t size = content.size();
    if (size >= 0x80) header.push_back(size >= 0x100 ? 0x82 : 0x81);
    if (size >= 0x100) header.push_back(static_cast<std::uint8_t>(size >> 8));
    header.push_back(static_cast<std::uint8_t>(size));
    return joined({Data(std::move(header)), content});
}
Data sequence(const std::vector<Data>& values) { return der(0x30, joined(values)); }

/// A relative name of one attribute of the type 2.5.4.`type`.
Data attribute(std::uint8_t type, std::uint8_t tag, const Data& value)
{
    return der(0x31, sequence({der(0x06, Data{0x55, 0x04, type}), der(tag, value)}));
}
Data commonName(std::string_view text) { return attribute(3, 0x0C, Data::fromText(text)); }

/// A certificate put together by hand, so that each field can hold what no library writes.
struct Parts {
    Data serial = hex("02 01 05");
    Data issuer = sequence({commonName("Issuer")});
    Data notBefore = der(0x17, Data::fromText("240101000000Z"));
    Data notAfter = der(0x18, Data::fromText("20500101000000Z"));
    Data subject = sequence({commonName("Subject")});
    Data extensions;  ///< [3] included; empty for none
};

Data certificate(const Parts& parts)
{
    const Data algorithm = sequence({der(0x06, hex("2b6570"))});  // Ed25519
    const Data toBeSigned =
        sequence({hex("a0 03 02 01 02"), parts.serial, algorithm, parts.issuer, sequence({parts.notBefore, parts.notAfter}), parts.subject,
                  sequence({algorithm, der(0x03, joined({hex("00"), patternBytes(32)}))}), parts.extensions});
    return sequence({toBeSigned, algorithm, der(0x03, joined({hex("00"), patternBytes(64)}))});
}

/// The extension list with subject alternative names, which are given with their context tags.
Data alternativeNames(const Data& names, std::uint8_t lastArc = 0x11)
{
    return der(0xA3, sequence({sequence({der(0x06, Data{0x55, 0x1D, lastArc}), der(0x04, der(0x30, names))})}));
}

std::string text(const std::optional<std::chrono::sys_seconds>& time)
{
    return time ? std::to_string(time->time_since_epoch().count()) : "nothing";
}

TEST(Certificate, ReadsTheLastCommonNameThatIsText)
{
    struct Case {
        const char* name;
        Data subject;
        std::optional<std::string> expected;
    };
    const Case cases[] = {
        {"an empty name", sequence({}), std::nullopt},
        {"no common name", sequence({attribute(10, 0x0C, Data::fromText("Org"))}), std::nullopt},
        {"the last of two", sequence({commonName("first"), commonName("last"), attribute(10, 0x0C, Data::fromText("Org"))}), "last"},
        {"two in one relative name",
         sequence(
             {der(0x31, joined({sequence({hex("06 03 55 04 03"), hex("0c 01 61")}), sequence({hex("06 03 55 04 03"), hex("0c 01 62")})}))}),
         "b"},
        {"the last is no text", sequence({commonName("first"), attribute(3, 0x03, hex("00 41"))}), "first"},
        {"an empty text is a text", sequence({commonName("")}), ""},
        {"UTF-8", sequence({commonName("Größe 日本")}), "Größe 日本"},
        {"ill-formed UTF-8", sequence({attribute(3, 0x0C, hex("61 ff"))}), std::nullopt},
        {"an embedded NUL", sequence({attribute(3, 0x0C, hex("61 00 62"))}), std::string("a\0b", 3)},
        {"PrintableString", sequence({attribute(3, 0x13, Data::fromText("a.example"))}), "a.example"},
        {"PrintableString with Latin-1", sequence({attribute(3, 0x13, hex("47 72 fc 6e"))}), "Grün"},
        {"PrintableString with UTF-8", sequence({attribute(3, 0x13, Data::fromText("Grün"))}), "Grün"},
        {"IA5String", sequence({attribute(3, 0x16, Data::fromText("a@b"))}), "a@b"},
        {"NumericString", sequence({attribute(3, 0x12, Data::fromText("12 3"))}), "12 3"},
        {"VisibleString", sequence({attribute(3, 0x1A, Data::fromText("seen"))}), "seen"},
        {"TeletexString is Latin-1", sequence({attribute(3, 0x14, hex("c3 bc"))}), "Ã¼"},
        {"BMPString", sequence({attribute(3, 0x1E, hex("0041 00fc 65e5"))}), "Aü日"},
        {"BMPString with a surrogate", sequence({attribute(3, 0x1E, hex("d83d de00"))}), std::nullopt},
        {"UniversalString", sequence({attribute(3, 0x1C, hex("0001f600 00000041"))}), "😀A"},
        {"UniversalString beyond Unicode", sequence({attribute(3, 0x1C, hex("00110000"))}), std::nullopt},
        {"OCTET STRING", sequence({attribute(3, 0x04, Data::fromText("text"))}), std::nullopt},
        {"others beside an INTEGER", sequence({commonName("a"), attribute(3, 0x02, hex("2a")), attribute(5, 0x02, hex("01"))}), "a"},
        {"beside NULL, BOOLEAN and a SEQUENCE",
         sequence({commonName("a"), attribute(3, 0x05, {}), attribute(3, 0x01, hex("ff")), attribute(3, 0x30, hex("0c0178"))}), "a"},
    };
    for (const auto& [name, subject, expected] : cases) {
        const auto read = Certificate::fromDER(certificate({.subject = subject}));
        ASSERT_TRUE(read) << name;
        EXPECT_EQ(read->subjectCommonName(), expected) << name;
    }
}

TEST(Certificate, ListsTheIssuersAttributes)
{
    const auto read = Certificate::fromDER(certificate(
        {.issuer = sequence({attribute(6, 0x13, Data::fromText("ZZ")), commonName("CA"),
                             der(0x31, sequence({hex("06 0a 09 92 26 89 93 f2 2c 64 01 19"), hex("16 03 6f 72 67")})),
                             attribute(3, 0x0C, hex("ff")),
                             // 2.25.(2^128 - 1), longer than any buffer of a sensible size
                             der(0x31, sequence({hex("06 14 69 83 ffffffff ffffffff ffffffff ffffffff ff 7f"), hex("0c 00")}))})}));
    ASSERT_TRUE(read);
    using Attribute = Certificate::Attribute;
    EXPECT_THAT(read->issuer(),
                ElementsAre(Attribute{"2.5.4.6", "ZZ"}, Attribute{"2.5.4.3", "CA"}, Attribute{"0.9.2342.19200300.100.1.25", "org"},
                            Attribute{"2.5.4.3", std::nullopt}, Attribute{"2.25.340282366920938463463374607431768211455", ""}));
}

TEST(Certificate, ReadsTimesAsSecondsOfUTC)
{
    struct Case {
        const char* name;
        std::uint8_t tag;
        const char* content;
        std::string expected;  ///< seconds since 1970
    };
    const Case cases[] = {
        {"UTCTime", 0x17, "240101000000Z", "1704067200"},
        {"UTCTime of the last century", 0x17, "500101000000Z", "-631152000"},
        {"UTCTime without seconds", 0x17, "2401010000Z", "1704067200"},
        {"UTCTime with an offset", 0x17, "240101020000+0200", "1704067200"},
        {"GeneralizedTime", 0x18, "20500101000000Z", "2524608000"},
        {"a leap day", 0x18, "20240229235959Z", "1709251199"},
        {"GeneralizedTime with a fraction", 0x18, "20500101000000.75Z", "2524608000"},
        {"GeneralizedTime with an offset", 0x18, "20491231190000-0500", "2524608000"},
        {"the last second of all", 0x18, "99991231235959Z", "253402300799"},
        {"year 0", 0x18, "00000101000000Z", "-62167219200"},
        {"an offset out of the calendar", 0x18, "99991231235959-0100", "nothing"},
        {"31 February", 0x17, "240231000000Z", "nothing"},
        {"29 February of another year", 0x17, "230229000000Z", "nothing"},
        {"month 13", 0x17, "241301000000Z", "nothing"},
        {"hour 24", 0x17, "240101240000Z", "nothing"},
        {"letters", 0x17, "24O101000000Z", "nothing"},
        {"nothing", 0x17, "", "nothing"},
    };
    for (const auto& [name, tag, content, expected] : cases) {
        const auto read = Certificate::fromDER(certificate({.notBefore = der(tag, Data::fromText(content))}));
        ASSERT_TRUE(read) << name;
        EXPECT_EQ(text(read->notBefore()), expected) << name;
        EXPECT_EQ(text(read->notAfter()), "2524608000") << name;
    }
    EXPECT_FALSE(Certificate::fromDER(certificate({.notAfter = hex("02 01 05")}))) << "a number is no time";
}

TEST(Certificate, GivesTheSerialNumberAsEncoded)
{
    for (const char* content :
         {"00", "05", "7f", "00 80", "80", "ff", "ff 7f", "00 ff ff", "81 00 00 00 00", "0102030405060708090a0b0c0d0e0f10111213141516"}) {
        const auto read = Certificate::fromDER(certificate({.serial = der(0x02, hex(content))}));
        ASSERT_TRUE(read) << content;
        EXPECT_EQ(read->serialNumber(), hex(content));
    }
    EXPECT_FALSE(Certificate::fromDER(certificate({.serial = hex("02 00")}))) << "an empty number";
    EXPECT_FALSE(Certificate::fromDER(certificate({.serial = hex("02 02 00 05")}))) << "a number not in its shortest form";
}

TEST(Certificate, ListsAlternativeNamesThatAreText)
{
    struct Case {
        const char* name;
        Data extensions;
        std::vector<std::string> expected;
    };
    const Data dns = hex("82 01 61");
    const Case cases[] = {
        {"none", {}, {}},
        {"an empty list", alternativeNames({}), {}},
        {"kinds in order",
         alternativeNames(joined({hex("86 03 783a79"), dns, hex("87 04 c0000201"), hex("81 03 624063"), hex("88 03 2a0304"),
                                  der(0xA4, sequence({commonName("directory")})), hex("a0 08 06 02 2a03 a0 02 0c00")})),
         {"x:y", "a", "b@c"}},
        {"a name that is no text", alternativeNames(joined({hex("82 02 61ff"), dns})), {"a"}},
        {"an embedded NUL", alternativeNames(hex("82 03 610062")), {std::string("a\0b", 3)}},
        {"an empty name", alternativeNames(joined({hex("82 00"), dns})), {"", "a"}},
        {"another extension", alternativeNames(dns, 0x12), {}},
        {"a list that is none", alternativeNames(hex("82 05 61")), {}},
    };
    for (const auto& [name, extensions, expected] : cases) {
        const auto read = Certificate::fromDER(certificate({.extensions = extensions}));
        ASSERT_TRUE(read) << name;
        EXPECT_EQ(read->alternativeNames(), expected) << name;
    }
}

TEST(Certificate, IsAllOfTheBytesOrNone)
{
    const Data whole = certificate({});
    ASSERT_TRUE(Certificate::fromDER(whole));
    for (std::int64_t size = 0; size < whole.size(); ++size) EXPECT_FALSE(Certificate::fromDER(whole.sub(0, size))) << size;
    EXPECT_FALSE(Certificate::fromDER(joined({whole, hex("00")}))) << "bytes behind it";
    EXPECT_FALSE(Certificate::fromDER(Data(std::vector<std::uint8_t>(Certificate::longestDER + 1, 0x30))));
    EXPECT_EQ(ERR_peek_error(), 0) << "what is no certificate leaves no error behind";
}

TEST(Certificate, AgreesWithLibcryptosOwnReader)
{
    const Data good[] = {
        makeCertificate({.subject = {{"C", "ZZ"}, {"O", "Größe", 12}, {"CN", "a.example"}, {"CN", "b.example"}},
                         .alternativeNames = {"DNS:a.example", "IP:192.0.2.1", "email:a@example.org", "otherName:1.2.3;UTF8:x"},
                         .serial = "-80FF"}),
        makeCertificate({.key = CertificateKey::ed25519,
                         .subject = {{"CN", std::string("\0A\0\xFC", 4), 30}},
                         .alternativeNames = {},
                         .authorities = 0}),
        makeCertificate({.key = CertificateKey::rsa2048}),
    };
    std::mt19937 random(11);
    int accepted = 0;
    for (int round = 0; round < 4'000; ++round) {
        const Data& source = good[round % std::size(good)];
        std::vector<std::uint8_t> bytes(source.view().begin(), source.view().end());
        for (std::uint32_t changes = random() % 3; changes > 0; --changes)
            bytes[random() % bytes.size()] = static_cast<std::uint8_t>(random() % 2 == 0 ? random() : 1U << random() % 8);

        ERR_clear_error();
        const unsigned char* end = bytes.data();
        const X509Pointer expected(d2i_X509(nullptr, &end, static_cast<long>(bytes.size())));
        const auto read = Certificate::fromDER(bytes);
        if (!expected || end != bytes.data() + bytes.size()) {
            // The values of names are the one thing that libcrypto is stricter about.
            const std::set<int> aboutTexts{ASN1_R_INVALID_UTF8STRING,  ASN1_R_INVALID_BMPSTRING_LENGTH, ASN1_R_INVALID_UNIVERSALSTRING_LENGTH,
                                           ASN1_R_ILLEGAL_CHARACTERS,  ASN1_R_MSTRING_WRONG_TAG,        ASN1_R_MSTRING_NOT_UNIVERSAL};
            const int reason = ERR_GET_REASON(ERR_peek_error());
            EXPECT_TRUE(!read || aboutTexts.contains(reason)) << ERR_reason_error_string(ERR_peek_error()) << ' ' << hexText(bytes);
            continue;
        }
        ++accepted;
        ASSERT_TRUE(read) << hexText(bytes);

        ASN1_INTEGER* serial = X509_get_serialNumber(expected.get());
        std::vector<std::uint8_t> encoded(static_cast<std::size_t>(i2d_ASN1_INTEGER(serial, nullptr)));
        unsigned char* encodedEnd = encoded.data();
        i2d_ASN1_INTEGER(serial, &encodedEnd);
        EXPECT_EQ(der(0x02, read->serialNumber()), DataView(encoded)) << hexText(bytes);

        const auto seconds = [](const ASN1_TIME* time) -> std::string {
            tm fields{};
            return ASN1_TIME_to_tm(time, &fields) == 1 ? std::to_string(timegm(&fields)) : "nothing";
        };
        EXPECT_EQ(text(read->notBefore()), seconds(X509_get0_notBefore(expected.get()))) << hexText(bytes);
        EXPECT_EQ(text(read->notAfter()), seconds(X509_get0_notAfter(expected.get()))) << hexText(bytes);
        EXPECT_EQ(read->issuer().size(), X509_NAME_entry_count(X509_get_issuer_name(expected.get()))) << hexText(bytes);

        std::vector<std::string> names;
        const OpenSSLPointer<GENERAL_NAMES, GENERAL_NAMES_free> list(
            static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(expected.get(), NID_subject_alt_name, nullptr, nullptr)));
        for (int i = 0; i < sk_GENERAL_NAME_num(list.get()); ++i) {
            int kind = 0;
            const auto* value = static_cast<const ASN1_STRING*>(GENERAL_NAME_get0_value(sk_GENERAL_NAME_value(list.get(), i), &kind));
            if (kind != GEN_DNS && kind != GEN_EMAIL && kind != GEN_URI) continue;
            const DataView content(ASN1_STRING_get0_data(value), ASN1_STRING_length(value));
            if (utf8::isWellFormed(content)) names.emplace_back(content.text());
        }
        EXPECT_EQ(read->alternativeNames(), names) << hexText(bytes);
    }
    EXPECT_GT(accepted, 1'000);
}

}  // namespace
}  // namespace sealscope
