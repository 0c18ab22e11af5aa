// SPDX-License-Identifier: Apache-2.0
#include "platform/AEAD.h"

#include "harness/Hex.h"

#include <gtest/gtest.h>
#include <openssl/err.h>

namespace sealscope {
namespace {

constexpr auto aesGCM = AEADAlgorithm::aesGCM;
constexpr auto chaCha20Poly1305 = AEADAlgorithm::chaCha20Poly1305;

/// The plaintext, or nothing when the opener refuses.
std::optional<Data> opened(AEADOpener& opener, DataView nonce, DataView additionalData, DataView ciphertext, DataView tag)
{
    std::vector<std::uint8_t> plaintext(static_cast<std::size_t>(ciphertext.size()));
    if (!opener.open(nonce, additionalData, ciphertext, tag, plaintext.data())) return std::nullopt;
    return Data(std::move(plaintext));
}

struct Vector {
    const char* name;
    AEADAlgorithm algorithm;
    Data key;
    Data nonce;
    Data additionalData;
    Data plaintext;
    Data ciphertext;
    Data tag;
};

/// AES-GCM: the test cases of the mode's submission to NIST (McGrew and Viega), by their numbers. ChaCha20-Poly1305: RFC 8439.
const std::vector<Vector>& vectors()
{
    static const Data longPlaintext = hex("d9313225f88406e5a55909c5aff5269a86a7a9531534f7da2e4c303d8a318a72"
                                          "1c3c0c95956809532fcf0e2449a6b525b16aedf5aa0de657ba637b391aafd255");
    static const Data key = hex("feffe9928665731c6d6a8f9467308308");
    static const Data nonce = hex("cafebabefacedbaddecaf888");
    static const Data header = hex("feedfacedeadbeeffeedfacedeadbeefabaddad2");
    static const std::vector<Vector> all = {
        {"1: nothing",
         aesGCM,
         hex("00000000000000000000000000000000"),
         hex("000000000000000000000000"),
         {},
         {},
         {},
         hex("58e2fccefa7e3061367f1d57a4e7455a")},
        {"2: one block",
         aesGCM,
         hex("00000000000000000000000000000000"),
         hex("000000000000000000000000"),
         {},
         hex("00000000000000000000000000000000"),
         hex("0388dace60b6a392f328c2b971b2fe78"),
         hex("ab6e47d42cec13bdf53a67b21257bddf")},
        {"3: four blocks",
         aesGCM,
         key,
         nonce,
         {},
         longPlaintext,
         hex("42831ec2217774244b7221b784d0d49ce3aa212f2c02a4e035c17e2329aca12e"
             "21d514b25466931c7d8f6a5aac84aa051ba30b396a0aac973d58e091473f5985"),
         hex("4d5c2af327cd64a62cf35abd2ba6fab4")},
        {"4: additional data, a broken block", aesGCM, key, nonce, header, longPlaintext.sub(0, 60),
         hex("42831ec2217774244b7221b784d0d49ce3aa212f2c02a4e035c17e2329aca12e"
             "21d514b25466931c7d8f6a5aac84aa051ba30b396a0aac973d58e091"),
         hex("5bc94fbc3221a5db94fae95ae7121a47")},
        {"6: a nonce of 60 bytes", aesGCM, key,
         hex("9313225df88406e555909c5aff5269aa6a7a9538534f7da1e4c303d2a318a728"
             "c3c0c95156809539fcf0e2429a6b525416aedbf5a0de6a57a637b39b"),
         header, longPlaintext.sub(0, 60),
         hex("8ce24998625615b603a033aca13fb894be9112a5c3a211a8ba262a3cca7e2ca7"
             "01e4a9a4fba43c90ccdcb281d48c7c6fd62875d2aca417034c34aee5"),
         hex("619cc5aefffe0bfa462af43c1699d050")},
        {"10: a key of 24 bytes", aesGCM, hex("feffe9928665731c6d6a8f9467308308feffe9928665731c"), nonce, header, longPlaintext.sub(0, 60),
         hex("3980ca0b3c00e841eb06fac4872a2757859e1ceaa6efd984628593b40ca1e19c"
             "7d773d00c144c525ac619d18c84a3f4718e2448b2fe324d9ccda2710"),
         hex("2519498e80f1478f37ba55bd6d27618c")},
        {"16: a key of 32 bytes", aesGCM, hex("feffe9928665731c6d6a8f9467308308feffe9928665731c6d6a8f9467308308"), nonce, header,
         longPlaintext.sub(0, 60),
         hex("522dc1f099567d07f47f37a32a84427d643a8cdcbfe5c0c97598a2bd2555d1aa"
             "8cb08e48590dbb3da7b08b1056828838c5f61e6393ba7a0abcc9f662"),
         hex("76fc6ece0f4e1768cddf8853bb2d551b")},
        {"RFC 8439 2.8.2", chaCha20Poly1305, hex("808182838485868788898a8b8c8d8e8f909192939495969798999a9b9c9d9e9f"),
         hex("070000004041424344454647"), hex("50515253c0c1c2c3c4c5c6c7"),
         Data::fromText("Ladies and Gentlemen of the class of '99: If I could offer you only one tip for the future, "
                        "sunscreen would be it."),
         hex("d31a8d34648e60db7b86afbc53ef7ec2a4aded51296e08fea9e2b5a736ee62d63dbea45e8ca9671282fafb69da92728b"
             "1a71de0a9e060b2905d6a5b67ecd3b3692ddbd7f2d778b8c9803aee328091b58fab324e4fad675945585808b4831d7bc"
             "3ff4def08e4b7a9de576d26586cec64b6116"),
         hex("1ae10b594f09e26a7e902ecbd0600691")},
    };
    return all;
}

TEST(AEAD, OpensPublishedVectors)
{
    for (const auto& [name, algorithm, key, nonce, additionalData, plaintext, ciphertext, tag] : vectors()) {
        AEADOpener opener(algorithm, key);
        EXPECT_EQ(opened(opener, nonce, additionalData, ciphertext, tag), plaintext) << name;
        // A context serves again, also after a message that it refused.
        EXPECT_EQ(opened(opener, nonce, additionalData, ciphertext, hex("00000000000000000000000000000000")), std::nullopt) << name;
        EXPECT_EQ(opened(opener, nonce, additionalData, ciphertext, tag), plaintext) << name << ", once more";
    }
}

TEST(AEAD, OpensWhatLiesInPieces)
{
    for (const auto& [name, algorithm, key, nonce, additionalData, plaintext, ciphertext, tag] : vectors()) {
        AEADOpener opener(algorithm, key);
        for (const std::int64_t length : {1, 7, 16, 17, 31}) {
            // A prefix that is not meant, an empty piece, and pieces of one length.
            const DataView whole = ciphertext;
            std::vector<DataView> pieces{nonce.view().sub(0, 5), {}};
            for (std::int64_t at = 0; at < whole.size(); at += length) pieces.push_back(whole.sub(at, length));
            pieces.push_back(tag);
            const ScatteredView all(pieces);
            std::vector<std::uint8_t> opened(static_cast<std::size_t>(whole.size()));
            EXPECT_TRUE(opener.open(nonce, additionalData, all.sub(5, whole.size()), tag, opened.data())) << name << ", " << length;
            EXPECT_EQ(DataView(opened), plaintext) << name << ", " << length;
            std::vector<std::uint8_t> behind(16);
            all.from(5 + whole.size()).copy(behind);
            EXPECT_EQ(DataView(behind), tag) << name << ", " << length;
        }
    }
}

Data withFlippedBit(const Data& bytes, std::int64_t at)
{
    std::vector<std::uint8_t> changed(bytes.view().begin(), bytes.view().end());
    changed[static_cast<std::size_t>(at)] ^= 1;
    return Data(std::move(changed));
}

TEST(AEAD, RefusesWhatWasTouched)
{
    for (const auto& [name, algorithm, key, nonce, additionalData, plaintext, ciphertext, tag] : vectors()) {
        AEADOpener opener(algorithm, key);
        for (std::int64_t i = 0; i < nonce.size(); ++i)
            EXPECT_FALSE(opened(opener, withFlippedBit(nonce, i), additionalData, ciphertext, tag)) << name << ", nonce byte " << i;
        for (std::int64_t i = 0; i < additionalData.size(); ++i)
            EXPECT_FALSE(opened(opener, nonce, withFlippedBit(additionalData, i), ciphertext, tag)) << name << ", header byte " << i;
        for (std::int64_t i = 0; i < ciphertext.size(); ++i)
            EXPECT_FALSE(opened(opener, nonce, additionalData, withFlippedBit(ciphertext, i), tag)) << name << ", byte " << i;
        for (std::int64_t i = 0; i < tag.size(); ++i)
            EXPECT_FALSE(opened(opener, nonce, additionalData, ciphertext, withFlippedBit(tag, i))) << name << ", tag byte " << i;
        EXPECT_EQ(ERR_peek_error(), 0u) << name << ": libcrypto's error queue, which others may read, is as it was";
    }
}

TEST(AEAD, GoesOnWithAnotherKey)
{
    // From every key to every other: of another length, after a nonce of another length, after a key that is none.
    const auto opens = [](AEADOpener& opener, const Vector& vector) {
        return opened(opener, vector.nonce, vector.additionalData, vector.ciphertext, vector.tag) == vector.plaintext;
    };
    for (const Vector& first : vectors()) {
        for (const Vector& second : vectors()) {
            if (first.algorithm != second.algorithm) continue;
            AEADOpener opener(first.algorithm, first.key);
            EXPECT_TRUE(opens(opener, first)) << first.name;
            opener.setKey(second.key);
            EXPECT_TRUE(opens(opener, second)) << first.name << ", then " << second.name;
            EXPECT_EQ(opens(opener, first), first.key == second.key) << first.name << " with the key of " << second.name;
            opener.setKey(hex("00"));
            EXPECT_FALSE(opens(opener, second)) << second.name << " without a key";
            opener.setKey(first.key);
            EXPECT_TRUE(opens(opener, first)) << first.name << " in the end";
        }
    }
}

TEST(AEAD, RefusesLengthsThatTheAlgorithmDoesNotTake)
{
    const Data tag = hex("58e2fccefa7e3061367f1d57a4e7455a");
    const auto zeros = [](std::size_t count) { return Data(std::vector<std::uint8_t>(count)); };
    struct Case {
        const char* name;
        AEADAlgorithm algorithm;
        std::size_t keySize;
        std::size_t nonceSize;
    };
    const Case cases[] = {
        {"no key", aesGCM, 0, 12},
        {"an AES key of 17 bytes", aesGCM, 17, 12},
        {"an AES key of 64 bytes", aesGCM, 64, 12},
        {"a GCM nonce of 11 bytes", aesGCM, 16, 11},
        {"no nonce", aesGCM, 16, 0},
        {"a GCM nonce beyond all measure", aesGCM, 16, 100'000},
        {"a ChaCha20 key of 16 bytes", chaCha20Poly1305, 16, 12},
        {"a ChaCha20 nonce of 8 bytes", chaCha20Poly1305, 32, 8},
        {"a ChaCha20 nonce of 16 bytes", chaCha20Poly1305, 32, 16},
    };
    for (const auto& [name, algorithm, keySize, nonceSize] : cases) {
        AEADOpener opener(algorithm, zeros(keySize));
        EXPECT_FALSE(opened(opener, zeros(nonceSize), {}, {}, tag)) << name;
    }
    AEADOpener opener(aesGCM, zeros(16));
    EXPECT_FALSE(opened(opener, zeros(12), {}, {}, tag.sub(0, 12))) << "a tag cut short";
    EXPECT_TRUE(opened(opener, zeros(12), {}, {}, tag)) << "the same key with everything right";
    EXPECT_EQ(ERR_peek_error(), 0u);
}

}  // namespace
}  // namespace sealscope
