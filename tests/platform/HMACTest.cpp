// SPDX-License-Identifier: Apache-2.0
#include "platform/HMAC.h"

#include "harness/Hex.h"
#include "platform/HKDF.h"

#include <gtest/gtest.h>

namespace sealscope {
namespace {

Data repeated(std::uint8_t byte, std::size_t count) { return Data(std::vector<std::uint8_t>(count, byte)); }

std::string hexOf(const SecretBytes& bytes) { return hexText(viewOf(bytes)); }

TEST(HMAC, GivesTheCodesOfRFC4231)
{
    struct Case {
        const char* name;
        Data key;
        Data message;
        const char* sha256;
        const char* sha384;
    };
    const Case cases[] = {
        {"1: a short key", repeated(0x0B, 20), Data::fromText("Hi There"),
         "b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7",
         "afd03944d84895626b0825f4ab46907f15f9dadbe4101ec682aa034c7cebc59cfaea9ea9076ede7f4af152e8b2fa9cb6"},
        {"2: a key shorter than the code", Data::fromText("Jefe"), Data::fromText("what do ya want for nothing?"),
         "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843",
         "af45d2e376484031617f78d2b58a6b1b9c7ef464f5a01b47e42ec3736322445e8e2240ca5e69e2c78b3239ecfab21649"},
        {"3: key and message longer than 64 bytes together", repeated(0xAA, 20), repeated(0xDD, 50),
         "773ea91e36800e46854db8ebd09181a72959098b3ef8c122d9635514ced565fe",
         "88062608d3e6ad8a0aa2ace014c8a86f0aa635d947ac9febe83ef4e55966144b2a5ab39dc13814b94e3ab6e101a34f27"},
        {"4: another key length", hex("0102030405060708090a0b0c0d0e0f10111213141516171819"), repeated(0xCD, 50),
         "82558a389a443c0ea4cc819899f2083a85f0faa3e578f8077a2e3ff46729665b",
         "3e8a69b7783c25851933ab6290af6ca77a9981480850009cc5577c6e1f573b4e6801dd23c4a7d679ccf8a386c674cffb"},
        {"6: a key longer than a block", repeated(0xAA, 131), Data::fromText("Test Using Larger Than Block-Size Key - Hash Key First"),
         "60e431591ee0b67f0d8a26aacbf5b77f8e0bc6213728c5140546040f0ee37f54",
         "4ece084485813e9088d2c63a041bc5b44f9ef1012a2b588f3cd11f05033ac4c60c2ef6ab4030fe8296248df163f44952"},
        {"7: key and message longer than a block", repeated(0xAA, 131),
         Data::fromText("This is a test using a larger than block-size key and a larger than block-size data. "
                        "The key needs to be hashed before being used by the HMAC algorithm."),
         "9b09ffa71b942fcb27635fbcd5b0e944bfdc63644f0713938a7f51535c3a35e2",
         "6617178e941f020d351e2f254e8fd32c602420feb0b8fb9adccebb82461e99c5a678cc31e799176d3860e6110c46523e"},
    };
    for (const auto& [name, key, message, sha256, sha384] : cases) {
        EXPECT_EQ(hexOf(hmac(HashFunction::sha256, key, message)), sha256) << name;
        EXPECT_EQ(hexOf(hmac(HashFunction::sha384, key, message)), sha384) << name;
    }
}

TEST(HMAC, AnEmptyKeyIsAKeyOfItsOwn)
{
    // HMAC-SHA-256 of nothing under an empty key, as RFC 2104 pads it with zeros.
    EXPECT_EQ(hexOf(hmac(HashFunction::sha256, {}, {})), "b613679a0814d9ec772f95d778c35fc5ff1697c493715653c6c712144292c5ad");
}

TEST(HMAC, ServesManyMessagesUnderOneKey)
{
    HMAC keyed(HashFunction::sha256, Data::fromText("Jefe"));
    for (int round = 0; round < 3; ++round) {
        SecretBytes code(32);
        keyed.update(DataView(std::string_view("what do ya want ")));
        keyed.update(DataView(std::string_view("for nothing?")));
        keyed.finish(code);
        EXPECT_EQ(hexOf(code), "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843") << "message " << round;
    }
}

TEST(HKDF, ExpandsAsInRFC5869)
{
    struct Case {
        const char* name;
        Data pseudoRandomKey;
        Data info;
        const char* output;
    };
    const Case cases[] = {
        {"A.1", hex("077709362c2e32df0ddc3f0dc47bba6390b6c73bb50f9c3122ec844ad7c2b3e5"), hex("f0f1f2f3f4f5f6f7f8f9"),
         "3cb25f25faacd57a90434f64d0362f2a2d2d0a90cf1a5a4c5db02d56ecc4c5bf34007208d5b887185865"},
        {"A.2, three blocks", hex("06a6b88c5853361a06104c9ceb35b45cef760014904671014a193f40c15fc244"),
         hex("b0b1b2b3b4b5b6b7b8b9babbbcbdbebfc0c1c2c3c4c5c6c7c8c9cacbcccdcecfd0d1d2d3d4d5d6d7"
             "d8d9dadbdcdddedfe0e1e2e3e4e5e6e7e8e9eaebecedeeeff0f1f2f3f4f5f6f7f8f9fafbfcfdfeff"),
         "b11e398dc80327a1c8e7f78c596a49344f012eda2d4efad8a050cc4c19afa97c59045a99cac7827271cb41c65e590e09"
         "da3275600c2f09b8367793a9aca3db71cc30c58179ec3e87c14c01d5c1f3434f1d87"},
        {"A.3, no info",
         hex("19ef24a32c717b167f33a91d6f648bdf96596776afdb6377ac434c1c293ccb04"),
         {},
         "8da4e775a563c18f715f802a063c5a31b8a11f5c5ee1879ec3454e5f3c738d2d9d201395faa4b61a96c8"},
    };
    for (const auto& [name, pseudoRandomKey, info, expected] : cases) {
        HMAC keyed(HashFunction::sha256, pseudoRandomKey);
        SecretBytes output(std::string_view(expected).size() / 2);
        EXPECT_TRUE(hkdfExpand(keyed, info, output)) << name;
        EXPECT_EQ(hexOf(output), expected) << name;
    }
}

TEST(HKDF, RefusesMoreThanItsCounterCanCount)
{
    HMAC keyed(HashFunction::sha256, Data::fromText("key"));
    SecretBytes most(255 * 32);
    EXPECT_TRUE(hkdfExpand(keyed, {}, most));
    SecretBytes tooMuch(255 * 32 + 1);
    EXPECT_FALSE(hkdfExpand(keyed, {}, tooMuch));
}

}  // namespace
}  // namespace sealscope
