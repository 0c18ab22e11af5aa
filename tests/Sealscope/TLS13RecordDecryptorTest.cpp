// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLS13RecordDecryptor.h"

#include "harness/Hex.h"
#include "tests/Sealscope/SealRecords.h"

#include <gtest/gtest.h>

namespace sealscope {
namespace {

constexpr auto aesGCM = AEADCipher::aesGCM;
constexpr std::uint8_t alert = 21, handshake = 22, applicationData = 23;
const TLS13SuiteParameters aes128 = *TLS13RecordDecryptor::suiteParameters(0x1301);

TEST(TLS13RecordDecryptor, KnowsThreeSuites)
{
    for (int suite = 0; suite <= 0xFFFF; ++suite) {
        const auto codePoint = static_cast<std::uint16_t>(suite);
        std::optional<TLS13SuiteParameters> expected;
        if (suite == 0x1301) expected = TLS13SuiteParameters{aesGCM, 16, 12, HashFunction::sha256};
        if (suite == 0x1302) expected = TLS13SuiteParameters{aesGCM, 32, 12, HashFunction::sha384};
        if (suite == 0x1303) expected = TLS13SuiteParameters{AEADCipher::chaCha20Poly1305, 32, 12, HashFunction::sha256};
        ASSERT_EQ(TLS13RecordDecryptor::suiteParameters(codePoint), expected) << std::hex << suite;
    }
}

TEST(TLS13RecordDecryptor, BuildsLabelsAndNonces)
{
    const auto label = [](std::uint16_t length, std::string_view text, DataView context) {
        const auto bytes = TLS13RecordDecryptor::hkdfLabel(length, text, context);
        return Data(DataView(std::span(bytes)));
    };
    EXPECT_EQ(label(16, "key", {}), hex("0010 09 746c733133206b6579 00"));
    EXPECT_EQ(label(12, "iv", {}), hex("000C 08 746c733133206976 00"));
    EXPECT_EQ(label(0x1234, "", hex("AABB")), hex("1234 06 746c73313320 02 AABB"));

    constexpr std::uint64_t sequence = 0x0102030405060708;
    EXPECT_EQ(DataView(std::span<const std::uint8_t>(TLS13RecordDecryptor::recordNonce(hex("A0A1A2A3 FFFFFFFFFFFFFFFF"), sequence))),
              hex("A0A1A2A3 FEFDFCFBFAF9F8F7"));
    EXPECT_EQ(DataView(std::span<const std::uint8_t>(TLS13RecordDecryptor::recordNonce(hex("FFFFFFFFFFFFFFFF"), sequence))),
              hex("FEFDFCFBFAF9F8F7"));
    EXPECT_EQ(DataView(std::span<const std::uint8_t>(TLS13RecordDecryptor::recordNonce(hex("FFFFFFFFFFFFFF"), sequence))),
              hex("FFFFFFFFFFFFFF"));
}

// The traces of RFC 8448. Secrets of the simple handshake (section 3), and the early secret of the resumed one (section 4).
const Data clientHandshakeSecret = hex("b3eddb126e067f35a780b3abf45e2d8f3b1a950738f52e9600746a0e27a55a21");
const Data serverHandshakeSecret = hex("b67b7d690cc16c4e75e54213cb2d37b4e9c912bcded9105d42befd59d391ad38");
const Data clientApplicationSecret = hex("9e40646ce79a7f9dc05af8889bce6552875afa0b06df0087f792ebb7c17504a5");
const Data serverApplicationSecret = hex("a11af9f05531f856ad47116b45a950328204b4f44bfb6b3a4b4f1f3fcb631643");
const Data clientEarlySecret = hex("3fbbe6a60deb66c30a32795aba0eff7eaa10105586e7be5c09678d63b6caab62");

TEST(TLS13RecordDecryptor, DerivesTheKeysOfRFC8448)
{
    struct Case {
        const char* name;
        Data secret;
        const char* key;
        const char* iv;
    };
    const Case cases[] = {
        {"client handshake", clientHandshakeSecret, "dbfaa693d1762c5b666af5d950258d01", "5bd3c71b836e0b76bb73265f"},
        {"server handshake", serverHandshakeSecret, "3fce516009c21727d0f2e4e86ee403bc", "5d313eb2671276ee13000b30"},
        {"client application", clientApplicationSecret, "17422dda596ed5d9acd890e3c63f5051", "5b78923dee08579033e523d9"},
        {"server application", serverApplicationSecret, "9f02283b6c9c07efc26bb9f2ac92e356", "cf782b88dd83549aadf1e984"},
        {"client early", clientEarlySecret, "920205a5b7bf2115e6fc5c2942834f54", "6d475f0993c8e564610db2b9"},
    };
    for (const auto& [name, secret, key, iv] : cases) {
        const auto keys = TLS13RecordDecryptor::trafficKeys(secret, aes128);
        EXPECT_EQ(hexText(keys.key.bytes()), key) << name;
        EXPECT_EQ(hexText(viewOf(keys.iv)), iv) << name;
    }
}

TLS13CipherRecord captured(const Data& bytes)
{
    return {.header = bytes.sub(0, 5), .body = bytes.sub(5, bytes.size() - 5), .packetIds = {}, .timestamp = 0};
}

/// "22 0014…" a record: inner type and content.
std::vector<std::string> opened(const std::vector<TLS13CipherRecord>& records, std::optional<DataView> handshakeSecret,
                                DataView applicationSecret, std::uint16_t suite = 0x1301)
{
    std::vector<std::string> texts;
    const auto decrypted = TLS13RecordDecryptor::decryptRecords(records, handshakeSecret, applicationSecret, suite);
    if (!decrypted) return {"nothing"};
    for (const TLS13DecryptedRecord& record : *decrypted)
        texts.push_back(std::to_string(record.innerType) + " " + hexText(record.plaintext));
    return texts;
}

const std::string fiftyBytes = "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f202122232425262728292a2b2c2d2e2f3031";

const Data clientFinished = hex("17030300 35 75ec4dc238cce60b298044a71e219c56cc77b0517fe9b93c7a4bfc44d87f38f80338ac98fc46deb384bd1caeacab"
                                "6867d726c40546");
const Data clientData = hex("17030300 43 a23f7054b62c94d0affafe8228ba55cbefacea42f914aa66bcab3f2b9819a8a5b46b395bd54a9a20441e2b62974e1f5a"
                            "6292a2977014bd1e3deae63aeebb21694915e4");
const Data clientClose = hex("17030300 13 c9872760655666b74d7ff1153efd6db6d0b0e3");
const Data serverTicket = hex("17030300 de 3a6b8f90414a97d6959c3487680de5134a2b240e6cffac116e95d41d6af8f6b580dcf3d11d63c758db289a0159402"
                              "52f55713e061dc13e078891a38efbcf5753ad8ef170ad3c7353d16d9da773b9ca7f2b9fa1b6c0d4a3d03f75e09c30ba1e62972ac4"
                              "6f75f7b981be63439b2999ce13064615139891d5e4c5b406f16e3fc181a77ca475840025db2f0a77f81b5ab05b94c01346755f69"
                              "232c86519d86cbeeac87aac347d143f9605d64f650db4d023e70e952ca49fe5137121c74bc2697687e248746d6df353005f3bce1"
                              "8696129c8153556b3b6c6779b37bf15985684f");
const Data serverData = hex("17030300 43 2e937e11ef4ac740e538ad36005fc4a46932fc3225d05f82aa1b36e30efaf97d90e6dffc602dcb501a59a8fcc49c4bf2"
                            "e5f0a21c0047c2abf332540dd032e167c2955d");
const Data serverClose = hex("17030300 13 b58fd67166ebf599d24720cfbe7efa7a8864a9");
const Data earlyData = hex("17030300 17 ab1df420e75c457a7cc5d2844f76d5aee4b4edbf049be0");

TEST(TLS13RecordDecryptor, OpensTheRecordsOfRFC8448)
{
    const std::vector<TLS13CipherRecord> client{captured(clientFinished), captured(clientData), captured(clientClose)};
    EXPECT_EQ(opened(client, clientHandshakeSecret, clientApplicationSecret),
              (std::vector<std::string>{"22 14000020a8ec436d677634ae525ac1fcebe11a039ec17694fac6e98527b642f2edd5ce61", "23 " + fiftyBytes,
                                        "21 0100"}));
    const std::vector<TLS13CipherRecord> server{captured(serverTicket), captured(serverData), captured(serverClose)};
    const auto texts = opened(server, std::nullopt, serverApplicationSecret);
    ASSERT_EQ(texts.size(), 3u);
    EXPECT_TRUE(texts[0].starts_with("22 040000c90000001e")) << "NewSessionTicket: " << texts[0];
    EXPECT_EQ(texts[1], "23 " + fiftyBytes);
    EXPECT_EQ(texts[2], "21 0100");
    EXPECT_EQ(opened({captured(earlyData)}, std::nullopt, clientEarlySecret), (std::vector<std::string>{"23 414243444546"}));
}

TEST(TLS13RecordDecryptor, SplitsInnerPlaintext)
{
    struct Case {
        Data bytes;
        std::optional<std::pair<std::uint8_t, Data>> expected;
    };
    const Case cases[] = {
        {{}, std::nullopt},
        {hex("00"), std::nullopt},
        {hex("0000000000"), std::nullopt},
        {hex("17"), std::pair(applicationData, Data{})},
        {hex("1700000000"), std::pair(applicationData, Data{})},
        {hex("010216"), std::pair(handshake, hex("0102"))},
        {hex("00001500"), std::pair(alert, hex("0000"))},
    };
    for (const auto& [bytes, expected] : cases) {
        const auto inner = TLS13RecordDecryptor::innerPlaintext(bytes);
        ASSERT_EQ(inner.has_value(), expected.has_value()) << hexText(bytes);
        if (!inner) continue;
        EXPECT_EQ(inner->first, expected->first) << hexText(bytes);
        EXPECT_EQ(expected->second, inner->second) << hexText(bytes);
    }
}

/// Records of a direction under the secrets of the trace, as a peer would send them.
class Direction {
public:
    Direction& underHandshakeKeys(DataView innerPlaintext) { return add(handshakeKeys_, handshakeSequence_, innerPlaintext); }
    Direction& underApplicationKeys(DataView innerPlaintext) { return add(applicationKeys_, applicationSequence_, innerPlaintext); }
    Direction& add(TLS13CipherRecord record)
    {
        records_.push_back(std::move(record));
        return *this;
    }
    const std::vector<TLS13CipherRecord>& records() const { return records_; }
    std::vector<std::string> opened(bool withHandshakeSecret = true) const
    {
        return sealscope::opened(records_, withHandshakeSecret ? std::optional<DataView>(serverHandshakeSecret) : std::nullopt,
                                 serverApplicationSecret);
    }

private:
    Direction& add(const TLS13TrafficKeys& keys, std::uint64_t& sequence, DataView innerPlaintext)
    {
        return add(sealTLS13(keys, aesGCM, sequence++, innerPlaintext));
    }

    TLS13TrafficKeys handshakeKeys_ = TLS13RecordDecryptor::trafficKeys(serverHandshakeSecret, aes128);
    TLS13TrafficKeys applicationKeys_ = TLS13RecordDecryptor::trafficKeys(serverApplicationSecret, aes128);
    std::uint64_t handshakeSequence_ = 0;
    std::uint64_t applicationSequence_ = 0;
    std::vector<TLS13CipherRecord> records_;
};

using Texts = std::vector<std::string>;

TEST(TLS13RecordDecryptor, ChangesKeysAtTheFirstRecordThatTheHandshakeKeysDoNotOpen)
{
    Direction direction;
    direction.underHandshakeKeys(hex("0816")).underHandshakeKeys(hex("0b16")).underHandshakeKeys(hex("1416"));
    direction.underApplicationKeys(hex("0416")).underApplicationKeys(hex("6117")).underApplicationKeys(hex("010015"));
    EXPECT_EQ(direction.opened(), (Texts{"22 08", "22 0b", "22 14", "22 04", "23 61", "21 0100"}));
    EXPECT_EQ(direction.opened(false), Texts{}) << "without the handshake secret";
    EXPECT_EQ(sealscope::opened(direction.records(), serverHandshakeSecret, clientApplicationSecret), (Texts{"22 08", "22 0b", "22 14"}))
        << "with another application secret";
    EXPECT_EQ(sealscope::opened(direction.records(), serverHandshakeSecret, serverApplicationSecret, 0x1304), Texts{"nothing"});
    // No way leads back to the handshake keys.
    direction.underHandshakeKeys(hex("0016"));
    direction.underApplicationKeys(hex("6217"));
    EXPECT_EQ(direction.opened().size(), 6u);
}

TEST(TLS13RecordDecryptor, AFinishedMessageBindsNobodyToItsKeys)
{
    // 20 and 32 bytes: what the handshake keys protect last. Whatever comes then is opened by the key that opens it.
    const Data finished = joined({hex("14000020"), patternBytes(32), hex("16")});
    Direction direction;
    direction.underHandshakeKeys(finished)
        .underHandshakeKeys(hex("0416"))
        .underApplicationKeys(hex("6117"))
        .underHandshakeKeys(hex("0416"));
    EXPECT_EQ(direction.opened().size(), 3u);
    EXPECT_EQ(direction.opened().back(), "23 61");
    Direction zeros;
    zeros.underHandshakeKeys(finished).underApplicationKeys(hex("0000")).underApplicationKeys(hex("6117"));
    EXPECT_EQ(zeros.opened().size(), 1u);
    Direction nothing;
    nothing.underHandshakeKeys(finished).add(captured(joined({hex("1703030020"), patternBytes(32)}))).underApplicationKeys(hex("6117"));
    EXPECT_EQ(nothing.opened().size(), 1u);
}

TEST(TLS13RecordDecryptor, EndsWhereARecordDoesNotOpen)
{
    const auto withTouched = [](TLS13CipherRecord record) {
        record.body = joined({record.body.sub(0, record.body.size() - 1), Data{0}});
        return record;
    };
    Direction other;
    other.underApplicationKeys(hex("6117")).underApplicationKeys(hex("6217"));
    struct Case {
        const char* name;
        TLS13CipherRecord record;
    };
    TLS13CipherRecord withoutBody = captured(hex("1703030000"));
    TLS13CipherRecord tooShort = captured(joined({hex("170303000f"), patternBytes(15)}));
    for (const auto& [name, record] : {Case{"touched", withTouched(other.records()[1])}, Case{"a record left out", other.records()[0]},
                                       Case{"15 bytes", tooShort}, Case{"no bytes", withoutBody}}) {
        Direction direction;
        direction.underHandshakeKeys(hex("0816")).underApplicationKeys(hex("6117")).add(record).underApplicationKeys(hex("6217"));
        EXPECT_EQ(direction.opened(), (Texts{"22 08", "23 61"})) << name;
    }
    Direction shortInHandshake;
    shortInHandshake.underHandshakeKeys(hex("0816")).add(tooShort).underHandshakeKeys(hex("0b16"));
    EXPECT_EQ(shortInHandshake.opened(), Texts{"22 08"}) << "the end comes in either phase";
}

TEST(TLS13RecordDecryptor, TreatsARecordOfZerosAsOneThatDoesNotOpen)
{
    Direction inApplication;
    inApplication.underApplicationKeys(hex("6117")).underApplicationKeys(hex("0000")).underApplicationKeys(hex("6217"));
    EXPECT_EQ(inApplication.opened(false), Texts{"23 61"});

    // In the handshake it ends the phase, whose sequence number then no longer matters.
    Direction inHandshake;
    inHandshake.underHandshakeKeys(hex("0816")).underHandshakeKeys(hex("00")).underApplicationKeys(hex("6117"));
    EXPECT_EQ(inHandshake.opened(), Texts{"22 08"});

    Direction empty;
    empty.underApplicationKeys({}).underApplicationKeys(hex("6117"));
    EXPECT_EQ(empty.records()[0].body.size(), 16);
    EXPECT_EQ(empty.opened(false), Texts{}) << "a body of 16 bytes opens, and holds no inner type";
}

TEST(TLS13RecordDecryptor, DropsPadding)
{
    Direction direction;
    direction.underApplicationKeys(hex("170000000000000000"))
        .underApplicationKeys(joined({hex("6117"), Data(std::vector<std::uint8_t>(16'000))}));
    EXPECT_EQ(direction.opened(false), (Texts{"23 ", "23 61"}));
}

}  // namespace
}  // namespace sealscope
