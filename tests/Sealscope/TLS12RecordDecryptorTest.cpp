// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLS12RecordDecryptor.h"

#include "harness/Hex.h"
#include "tests/Sealscope/SealRecords.h"

#include <gtest/gtest.h>
#include <openssl/core_names.h>
#include <openssl/kdf.h>
#include <openssl/params.h>
#include <set>

namespace sealscope {
namespace {

using Direction = TCPSegment::Direction;
using DirectionKeys = TLS12RecordDecryptor::DirectionKeys;
constexpr auto aesGCM = AEADCipher::aesGCM;
constexpr auto chaCha20Poly1305 = AEADCipher::chaCha20Poly1305;

TEST(TLS12RecordDecryptor, KnowsThirteenSuites)
{
    const std::set<std::uint16_t> withSHA384{0x009D, 0x009F, 0x00A1, 0xC02C, 0xC030};
    const std::set<std::uint16_t> withSHA256{0x009C, 0x009E, 0x00A0, 0xC02B, 0xC02F};
    const std::set<std::uint16_t> withChaCha20{0xCCA8, 0xCCA9, 0xCCAA};
    for (int suite = 0; suite <= 0xFFFF; ++suite) {
        const auto codePoint = static_cast<std::uint16_t>(suite);
        std::optional<TLS12SuiteParameters> expected;
        if (withSHA256.contains(codePoint)) expected = TLS12SuiteParameters{aesGCM, 16, 4, false};
        if (withSHA384.contains(codePoint)) expected = TLS12SuiteParameters{aesGCM, 32, 4, true};
        if (withChaCha20.contains(codePoint)) expected = TLS12SuiteParameters{chaCha20Poly1305, 32, 12, false};
        ASSERT_EQ(TLS12RecordDecryptor::suiteParameters(codePoint), expected) << std::hex << suite;
    }
}

/// The key block as libcrypto's own TLS 1.2 PRF expands it (RFC 5246 §6.3).
Data keyBlock(const char* digest, DataView masterSecret, DataView serverRandom, DataView clientRandom, std::size_t length)
{
    const std::unique_ptr<EVP_KDF, decltype(&EVP_KDF_free)> algorithm(EVP_KDF_fetch(nullptr, "TLS1-PRF", nullptr), EVP_KDF_free);
    const std::unique_ptr<EVP_KDF_CTX, decltype(&EVP_KDF_CTX_free)> context(EVP_KDF_CTX_new(algorithm.get()), EVP_KDF_CTX_free);
    const auto bytes = [](const char* name, DataView value) {
        return OSSL_PARAM_construct_octet_string(name, const_cast<std::uint8_t*>(value.data()), static_cast<std::size_t>(value.size()));
    };
    const OSSL_PARAM parameters[] = {OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, const_cast<char*>(digest), 0),
                                     bytes(OSSL_KDF_PARAM_SECRET, masterSecret),
                                     bytes(OSSL_KDF_PARAM_SEED, DataView(std::string_view("key expansion"))),
                                     bytes(OSSL_KDF_PARAM_SEED, serverRandom),
                                     bytes(OSSL_KDF_PARAM_SEED, clientRandom),
                                     OSSL_PARAM_construct_end()};
    std::vector<std::uint8_t> block(length);
    if (EVP_KDF_derive(context.get(), block.data(), length, parameters) != 1) throw std::runtime_error("no key block");
    return Data(std::move(block));
}

TEST(TLS12RecordDecryptor, ChoosesTheHash)
{
    // RFC 4231 §4.3.
    const Data key = Data::fromText("Jefe");
    const Data message = Data::fromText("what do ya want for nothing?");
    EXPECT_EQ(hexText(viewOf(TLS12RecordDecryptor::hmac(key, message, false))),
              "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
    EXPECT_EQ(hexText(viewOf(TLS12RecordDecryptor::hmac(key, message, true))),
              "af45d2e376484031617f78d2b58a6b1b9c7ef464f5a01b47e42ec3736322445e8e2240ca5e69e2c78b3239ecfab21649");
}

TEST(TLS12RecordDecryptor, CutsTheKeyBlockByDirection)
{
    const Data clientRandom = patternBytes(32, 1);
    const Data serverRandom = patternBytes(32, 2);
    const Data masterSecret = patternBytes(48, 3);
    struct Case {
        std::uint16_t suite;
        const char* digest;
        std::int64_t keyLength;
        std::int64_t ivLength;
    };
    for (const auto& [suite, digest, keyLength, ivLength] :
         {Case{0xC02F, "SHA256", 16, 4}, Case{0xC030, "SHA384", 32, 4}, Case{0xCCA8, "SHA256", 32, 12}, Case{0x009C, "SHA256", 16, 4}}) {
        const Data block = keyBlock(digest, masterSecret, serverRandom, clientRandom, static_cast<std::size_t>(2 * (keyLength + ivLength)));
        for (const Direction direction : {Direction::clientToServer, Direction::serverToClient}) {
            const int second = direction == Direction::serverToClient ? 1 : 0;
            const auto keys = TLS12RecordDecryptor::directionKeys(direction, *TLS12RecordDecryptor::suiteParameters(suite), clientRandom,
                                                                  serverRandom, masterSecret);
            ASSERT_TRUE(keys);
            EXPECT_EQ(keys->key.bytes(), block.view().sub(second * keyLength, keyLength)) << std::hex << suite;
            EXPECT_EQ(viewOf(keys->fixedIV), block.view().sub(2 * keyLength + second * ivLength, ivLength)) << std::hex << suite;
        }
    }
}

TEST(TLS12RecordDecryptor, BuildsNonceAndAdditionalData)
{
    constexpr std::uint64_t sequence = 0x0102030405060708;
    EXPECT_EQ(DataView(TLS12RecordDecryptor::sequenceBytes(sequence)), hex("01 02 03 04 05 06 07 08"));
    EXPECT_EQ(DataView(TLS12RecordDecryptor::additionalData(sequence, 23, 0x0303, 0x1234)), hex("0102030405060708 17 0303 1234"));
    EXPECT_EQ(DataView(std::span<const std::uint8_t>(TLS12RecordDecryptor::chaChaNonce(hex("A0A1A2A3 FFFFFFFFFFFFFFFF"), sequence))),
              hex("A0A1A2A3 FEFDFCFBFAF9F8F7"));
    EXPECT_EQ(DataView(std::span<const std::uint8_t>(TLS12RecordDecryptor::chaChaNonce(hex("A0A1A2A3 FFFFFFFFFFFFFF"), sequence))),
              hex("A0A1A2A3 FFFFFFFFFFFFFF"));
    EXPECT_EQ(DataView(std::span<const std::uint8_t>(TLS12RecordDecryptor::chaChaNonce(hex("A0A1A2A3 FFFFFFFFFFFFFFFF FF"), sequence))),
              hex("A0A1A2A3 FFFFFFFFFFFFFFFF FF"));
}

DirectionKeys keysFor(AEADCipher cipher)
{
    const Data key = patternBytes(cipher == aesGCM ? 16 : 32, 11);
    const Data iv = patternBytes(cipher == aesGCM ? 4 : 12, 12);
    return {.key = SymmetricKey(key), .fixedIV = SecretBytes(iv.view().begin(), iv.view().end())};
}

TEST(TLS12RecordDecryptor, OpensFromTheLeastLengthOn)
{
    for (const AEADCipher cipher : {aesGCM, chaCha20Poly1305}) {
        const DirectionKeys keys = keysFor(cipher);
        TLS12Record record = sealTLS12(keys, cipher, 7, 23, {});
        EXPECT_EQ(record.payload.size(), cipher == aesGCM ? 24 : 16);
        EXPECT_EQ(TLS12RecordDecryptor::decrypt(record, keys, 7, cipher), Data{}) << "an empty plaintext";
        EXPECT_EQ(TLS12RecordDecryptor::decrypt(record, keys, 8, cipher), std::nullopt) << "another sequence number";
        record.version = 0x0302;
        EXPECT_EQ(TLS12RecordDecryptor::decrypt(record, keys, 7, cipher), std::nullopt) << "another version in the header";
        for (std::int64_t length = 0; length < record.payload.size(); ++length) {
            TLS12Record cut = sealTLS12(keys, cipher, 7, 23, {});
            cut.payload = cut.payload.sub(0, length);
            EXPECT_EQ(TLS12RecordDecryptor::decrypt(cut, keys, 7, cipher), std::nullopt) << length << " bytes";
        }
    }
}

TEST(TLS12RecordDecryptor, RefusesAnIVThatMakesNoNonce)
{
    DirectionKeys keys = keysFor(chaCha20Poly1305);
    const TLS12Record record = sealTLS12(keys, chaCha20Poly1305, 0, 23, Data{1, 2, 3});
    keys.fixedIV.pop_back();
    EXPECT_EQ(TLS12RecordDecryptor::decrypt(record, keys, 0, chaCha20Poly1305), std::nullopt);
    keys = keysFor(aesGCM);
    keys.fixedIV.clear();
    EXPECT_EQ(TLS12RecordDecryptor::decrypt(record, keys, 0, aesGCM), std::nullopt);
}

constexpr std::uint8_t changeCipherSpec = 20, alert = 21, handshake = 22, applicationData = 23;

TLS12Record clear(std::uint8_t contentType) { return {.contentType = contentType, .payload = Data{1}, .packetIds = {}}; }

TEST(TLS12RecordDecryptor, CountsEveryRecordAfterTheChangeOfCipher)
{
    for (const AEADCipher cipher : {aesGCM, chaCha20Poly1305}) {
        const DirectionKeys keys = keysFor(cipher);
        const auto sealed = [&](std::uint64_t sequence, std::uint8_t type, std::string_view text) {
            TLS12Record record = sealTLS12(keys, cipher, sequence, type, DataView(text));
            record.packetIds = {static_cast<std::int64_t>(sequence)};
            record.timestamp = static_cast<double>(sequence);
            return record;
        };
        TLS12Record damaged = sealed(3, applicationData, "damaged");
        damaged.payload = joined({damaged.payload.sub(0, damaged.payload.size() - 1), Data{0}});
        const std::vector<TLS12Record> records{
            clear(handshake),
            clear(alert),
            sealed(0, applicationData, "before the change"),
            clear(changeCipherSpec),
            sealed(0, handshake, "Finished"),
            sealed(1, applicationData, "one"),
            sealed(2, alert, "alerts count"),
            damaged,
            sealed(4, applicationData, "four"),
            clear(changeCipherSpec),
            sealed(6, applicationData, "six"),
            sealed(0, applicationData, "the counter does not start again"),
            sealed(8, applicationData, ""),
        };
        std::vector<std::string> opened;
        for (const TLS12DecryptedRecord& record : TLS12RecordDecryptor::decryptDirection(records, keys, cipher)) {
            ASSERT_EQ(record.packetIds.size(), 1u);
            opened.push_back(std::to_string(record.packetIds[0]) + " at " + std::to_string(static_cast<int>(record.timestamp)) + " " +
                             std::string(record.plaintext.view().text()));
        }
        EXPECT_EQ(opened, (std::vector<std::string>{"1 at 1 one", "4 at 4 four", "6 at 6 six", "8 at 8 "}));
        EXPECT_TRUE(TLS12RecordDecryptor::decryptDirection({sealed(0, applicationData, "no change at all")}, keys, cipher).empty());
    }
}

}  // namespace
}  // namespace sealscope
