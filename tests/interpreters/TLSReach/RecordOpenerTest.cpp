// SPDX-License-Identifier: Apache-2.0
#include "interpreters/TLSReach/RecordOpener.h"

#include "harness/Hex.h"
#include "interpreters/TLSReach/ReachPlaintext.h"
#include "interpreters/TLSReach/ReachSuite.h"
#include "interpreters/TLSReach/RecordAEAD.h"
#include "platform/HKDF.h"
#include "platform/HMAC.h"
#include "tests/interpreters/TLSReach/Opened.h"

#include <array>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <memory>
#include <openssl/evp.h>
#include <openssl/provider.h>
#include <zlib.h>

namespace sealscope {
namespace {

using Bytes = std::vector<std::uint8_t>;

RecordKeys keysOf(const ReachSuite& suite, std::int64_t ivLength)
{
    const auto secret = [](std::int64_t length, std::uint8_t first) {
        SecretBytes bytes(static_cast<std::size_t>(length));
        for (std::uint8_t& byte : bytes) byte = first += 7;
        return bytes;
    };
    return {.macKey = secret(digestSize(suite.mac), 1), .key = secret(suite.keyLength, 2), .iv = secret(ivLength, 3)};
}

/// Encrypts as libcrypto does, its old ciphers included.
class Encryption {
public:
    Encryption(const char* cipher, const SecretBytes& key)
    {
        for (const char* const name : {"legacy", "default"}) providers_.emplace_back(OSSL_PROVIDER_load(library_.get(), name));
        cipher_.reset(EVP_CIPHER_fetch(library_.get(), cipher, nullptr));
        EVP_EncryptInit_ex2(context_.get(), cipher_.get(), key.data(), nullptr, nullptr);
        EVP_CIPHER_CTX_set_padding(context_.get(), 0);
    }
    void setIV(DataView iv) { EVP_EncryptInit_ex2(context_.get(), nullptr, nullptr, iv.data(), nullptr); }
    Bytes of(DataView plaintext)
    {
        Bytes bytes(static_cast<std::size_t>(plaintext.size()));
        int written = 0;
        EXPECT_EQ(EVP_EncryptUpdate(context_.get(), bytes.data(), &written, plaintext.data(), static_cast<int>(plaintext.size())), 1);
        return bytes;
    }

private:
    template <auto free> struct Release {
        void operator()(auto* object) const { free(object); }
    };
    std::unique_ptr<OSSL_LIB_CTX, Release<OSSL_LIB_CTX_free>> library_{OSSL_LIB_CTX_new()};
    std::vector<std::unique_ptr<OSSL_PROVIDER, Release<OSSL_PROVIDER_unload>>> providers_;
    std::unique_ptr<EVP_CIPHER, Release<EVP_CIPHER_free>> cipher_;
    std::unique_ptr<EVP_CIPHER_CTX, Release<EVP_CIPHER_CTX_free>> context_{EVP_CIPHER_CTX_new()};
};

/// Content and its MAC (RFC 5246 §6.2.3.1, RFC 6101 §5.2.3.1).
Bytes withMAC(const Bytes& content, const ReachSuite& suite, std::uint16_t version, const SecretBytes& key, std::uint16_t sequence,
              std::uint8_t type = 23)
{
    const auto high = [](std::size_t number) { return static_cast<std::uint8_t>(number >> 8); };
    const auto low = [](std::size_t number) { return static_cast<std::uint8_t>(number); };
    const std::size_t length = content.size();
    Bytes bytes = content;
    SecretBytes mac;
    if (version == 0x0300) {
        const Bytes number{0, 0, 0, 0, 0, 0, high(sequence), low(sequence)}, rest{type, high(length), low(length)};
        const std::size_t padding = suite.mac == HashFunction::md5 ? 48 : 40;
        const SecretBytes inner =
            digest(suite.mac, {viewOf(key), Bytes(padding, 0x36), DataView(number), DataView(rest), DataView(content)});
        mac = digest(suite.mac, {viewOf(key), Bytes(padding, 0x5C), viewOf(inner)});
    } else {
        Bytes message{0, 0, 0, 0, 0, 0, high(sequence), low(sequence), type, 3, low(version), high(length), low(length)};
        message.insert(message.end(), content.begin(), content.end());
        mac = hmac(suite.mac, viewOf(key), message);
    }
    bytes.insert(bytes.end(), mac.begin(), mac.end());
    return bytes;
}

std::string opened(RecordOpener& opener, std::uint64_t sequence, std::uint16_t version, const Bytes& body, DataView before,
                   std::int64_t position)
{
    const auto length = static_cast<std::uint16_t>(body.size());
    ProtectedRecord record{
        .header = {23, 3, static_cast<std::uint8_t>(version), static_cast<std::uint8_t>(length >> 8), static_cast<std::uint8_t>(length)},
        .body = ScatteredView(DataView(body)),
        .bytesBefore = before,
        .followsAuthentic = true,
        .offsetUnderKey = position};
    Bytes plaintext(20'000);
    const auto result = opener.open(sequence, record, plaintext.data());
    return result ? std::string(DataView(plaintext).sub(0, result->length).text()) : "nothing";
}

// What no library at hand negotiates any more, sealed by hand: two records each, and each under a wrong number and with a byte turned.
TEST(RecordOpener, OpensOldSuites)
{
    struct Case {
        const char* suite;
        const char* cipher;
    };
    const Case cases[] = {
        {"TLS_RSA_WITH_SEED_CBC_SHA", "SEED-CBC"},
        {"TLS_RSA_WITH_DES_CBC_SHA", "DES-CBC"},
        {"TLS_RSA_WITH_3DES_EDE_CBC_SHA", "DES-EDE3-CBC"},
        {"TLS_RSA_WITH_ARIA_128_CBC_SHA256", "ARIA-128-CBC"},
        {"TLS_RSA_WITH_ARIA_256_CBC_SHA384", "ARIA-256-CBC"},
        {"TLS_RSA_WITH_CAMELLIA_256_CBC_SHA", "CAMELLIA-256-CBC"},
        {"TLS_RSA_WITH_RC4_128_SHA", "RC4"},
        {"TLS_RSA_WITH_RC4_128_MD5", "RC4"},
        {"TLS_RSA_WITH_NULL_MD5", nullptr},
    };
    for (const auto& [name, cipherName] : cases) {
        const auto suite = ReachSuite::ofName(name);
        ASSERT_TRUE(suite) << name;
        const bool isCBC = suite->protection == RecordProtection::cbc;
        const std::int64_t block = isCBC ? blockSize(suite->bulk) : 0;
        for (const std::uint16_t version : {0x0300, 0x0301, 0x0303}) {
            const RecordKeys keys = keysOf(*suite, block);
            const auto opener = makeRecordOpener(*suite, version, MACPlace::inside, keys);
            ASSERT_TRUE(opener) << name;
            std::optional<Encryption> encryption;
            if (cipherName) encryption.emplace(cipherName, keys.key);
            Bytes before(keys.iv.begin(), keys.iv.end());
            std::int64_t position = 5;
            for (std::uint8_t sequence = 0; sequence < 2; ++sequence) {
                const std::string said = sequence == 0 ? "first record" : "the second, which is longer than a block";
                Bytes sealed = withMAC({said.begin(), said.end()}, *suite, version, keys.macKey, sequence);
                if (isCBC) {
                    const auto padding = static_cast<std::uint8_t>(block - static_cast<std::int64_t>(sealed.size()) % block);
                    sealed.insert(sealed.end(), padding, static_cast<std::uint8_t>(padding - 1));
                    encryption->setIV(before);
                }
                if (encryption) sealed = encryption->of(sealed);
                const DataView chained = DataView(before);
                const Bytes lastBlock(sealed.end() - std::min<std::ptrdiff_t>(block, std::ssize(sealed)), sealed.end());
                Bytes body = sealed;
                if (isCBC && version > 0x0301) body.insert(body.begin(), before.begin(), before.end());
                EXPECT_EQ(opened(*opener, sequence + 1u, version, body, chained, position), "nothing") << name << version;
                Bytes turned = body;
                turned[turned.size() / 2] ^= 1;
                EXPECT_EQ(opened(*opener, sequence, version, turned, chained, position), "nothing") << name << version;
                EXPECT_EQ(opened(*opener, sequence, version, body, chained, position), said) << name << version << ' ' << int{sequence};
                position += 5 + static_cast<std::int64_t>(body.size());
                before = lastBlock;
            }
        }
    }
}

TEST(RecordOpener, UndoesCompression)
{
    const auto suite = ReachSuite::ofName("TLS_RSA_WITH_NULL_SHA");
    const RecordKeys keys = keysOf(*suite, 0);
    const auto opener = inflating(makeRecordOpener(*suite, 0x0303, MACPlace::inside, keys), nullptr);
    z_stream stream{};
    ASSERT_EQ(deflateInit(&stream, 6), Z_OK);
    std::vector<Bytes> bodies;
    const std::string said = "the same text, the same text, the same text";
    for (std::uint8_t sequence = 0; sequence < 3; ++sequence) {
        Bytes compressed(200);
        stream.next_in = reinterpret_cast<std::uint8_t*>(const_cast<char*>(said.data()));
        stream.avail_in = static_cast<unsigned>(said.size());
        stream.next_out = compressed.data();
        stream.avail_out = 200;
        ASSERT_EQ(deflate(&stream, Z_SYNC_FLUSH), Z_OK);
        compressed.resize(200 - stream.avail_out);
        bodies.push_back(withMAC(compressed, *suite, 0x0303, keys.macKey, sequence));
    }
    deflateEnd(&stream);
    EXPECT_EQ(opened(*opener, 0, 0x0303, bodies[0], {}, 0), said);
    EXPECT_EQ(opened(*opener, 2, 0x0303, bodies[2], {}, 0), "nothing") << "what a lost record said is missing in front";
    EXPECT_EQ(opened(*opener, 1, 0x0303, bodies[1], {}, 0), said);

    // What grows beyond measure is asked about, and ends where the answer is no.
    ASSERT_EQ(deflateInit(&stream, 9), Z_OK);
    std::int64_t asked = 0;
    const auto bounded = inflating(makeRecordOpener(*suite, 0x0303, MACPlace::inside, keys), [&](std::int64_t bytes) {
        asked += bytes;
        return asked < 40'000;
    });
    std::string zeros(16'384, '\0');
    for (std::uint8_t sequence = 0; sequence < 5; ++sequence) {
        Bytes compressed(200);
        stream.next_in = reinterpret_cast<std::uint8_t*>(zeros.data());
        stream.avail_in = static_cast<unsigned>(zeros.size());
        stream.next_out = compressed.data();
        stream.avail_out = 200;
        ASSERT_EQ(deflate(&stream, Z_SYNC_FLUSH), Z_OK);
        compressed.resize(200 - stream.avail_out);
        const Bytes body = withMAC(compressed, *suite, 0x0303, keys.macKey, sequence);
        EXPECT_EQ(opened(*bounded, sequence, 0x0303, body, {}, 0), sequence < 2 ? zeros : "nothing") << int{sequence};
    }
    deflateEnd(&stream);
    EXPECT_GE(asked, 40'000);
}

// A compressed record opens behind all that were before it; what is far behind the first megabytes is opened anew from places between.
TEST(RecordOpener, OpensCompressedRecordsAnew)
{
    const auto suite = ReachSuite::ofName("TLS_RSA_WITH_RC4_128_SHA");
    const RecordKeys keys = keysOf(*suite, 0);
    Encryption encryption("RC4", keys.key);
    z_stream stream{};
    ASSERT_EQ(deflateInit(&stream, 1), Z_OK);
    constexpr std::uint16_t count = 2'500;
    std::string said;
    Bytes captured;
    for (std::uint16_t sequence = 0; sequence < count; ++sequence) {
        const bool isAlert = sequence % 100 == 99;
        std::string content;
        for (int i = 0; std::ssize(content) < (isAlert ? 2 : 16'000); ++i) content += fmt::format("{} times {}\n", i * sequence, i);
        if (!isAlert) said += content;
        Bytes compressed(20'000);
        stream.next_in = reinterpret_cast<std::uint8_t*>(content.data());
        stream.avail_in = static_cast<unsigned>(content.size());
        stream.next_out = compressed.data();
        stream.avail_out = 20'000;
        ASSERT_EQ(deflate(&stream, Z_SYNC_FLUSH), Z_OK);
        compressed.resize(20'000 - stream.avail_out);
        const std::uint8_t type = isAlert ? 21 : 23;
        const Bytes body = encryption.of(withMAC(compressed, *suite, 0x0303, keys.macKey, sequence, type));
        captured.insert(captured.end(), {type, 3, 3, static_cast<std::uint8_t>(body.size() >> 8), static_cast<std::uint8_t>(body.size())});
        captured.insert(captured.end(), body.begin(), body.end());
    }
    deflateEnd(&stream);

    const DataView bytes(captured);
    ReachPlaintext plaintext(StreamData(Data(bytes)), {});
    const std::shared_ptr<RecordOpener> opener = inflating(makeRecordOpener(*suite, 0x0303, MACPlace::inside, keys), nullptr);
    std::uint64_t sequence = 0;
    for (std::int64_t header = 0; header < bytes.size(); ++sequence) {
        ProtectedRecord record{.offsetUnderKey = header + 5};
        std::copy_n(captured.begin() + header, 5, record.header.begin());
        const ByteRange body{header + 5, header + 5 + bytes.u16(header + 3)};
        record.body = ScatteredView(bytes.sub(body.lower, body.size()));
        const auto content = opener->open(sequence, record, plaintext.room(PlaintextReader::largestRecord));
        ASSERT_TRUE(content) << sequence;
        if (content->type == 23) plaintext.add(content->length, body, {opener, sequence, body.lower});
        header = body.upper;
    }
    plaintext.end();
    ASSERT_EQ(plaintext.size(), std::ssize(said));
    EXPECT_FALSE(plaintext.lendsForLong());
    const DataView expected{std::string_view(said)};
    for (const std::int64_t start : {std::int64_t{0}, plaintext.size() - 100, plaintext.size() / 2, plaintext.size() / 3})
        for (std::int64_t offset = start; offset < plaintext.size();) {
            const DataView here = plaintext.stretch(offset);
            ASSERT_TRUE(here == expected.sub(offset, here.size())) << offset;
            offset += here.size();
        }
}

TEST(RecordOpener, OpensWithTheOldNonce)
{
    // draft-agl-tls-chacha20poly1305-04 §7
    OldChaCha20Poly1305 cipher(hex("4290bcb154173531f314af57f3be3b5006da371ece272afa1b5dbdd1100a1007"));
    std::array<std::uint8_t, 10> plaintext{};
    EXPECT_TRUE(cipher.open(hex("cd7cf67be39c794a"), hex("87e229d4500845a079c0"), ScatteredView(hex("e3e446f7ede9a19b62a4")),
                            hex("677dabf4e3d24b876bb284753896e1d6"), plaintext.data()));
    EXPECT_EQ(hexText(DataView(plaintext)), "86d09974840bded2a5ca");
    EXPECT_FALSE(cipher.open(hex("cd7cf67be39c794b"), hex("87e229d4500845a079c0"), ScatteredView(hex("e3e446f7ede9a19b62a4")),
                             hex("677dabf4e3d24b876bb284753896e1d6"), plaintext.data()));
}

// Up to draft 19 labels began otherwise, and up to draft 24 nothing but the ciphertext was authenticated.
TEST(RecordOpener, OpensDraftsOfTLS13)
{
    const auto suite = ReachSuite::of(0x1301);
    struct Case {
        std::uint16_t version;
        std::string_view prefix;
        bool authenticatesHeader;
    };
    for (const auto& [version, prefix, authenticatesHeader] :
         {Case{0x7F13, "TLS 1.3, ", false}, Case{0x7F15, "tls13 ", false}, Case{0x7F16, "tls13 ", false}, Case{0x7F1A, "tls13 ", true},
          Case{0x7F12, "TLS 1.3, ", false}, Case{0x7F14, "tls13 ", false}, Case{0x7F17, "tls13 ", false}, Case{0x7F18, "tls13 ", false},
          Case{0x7F19, "tls13 ", true}, Case{0x0304, "tls13 ", true}}) {
        const SecretBytes secret(32, 9);
        const auto expanded = [&](std::string_view label, std::uint8_t length) {
            Bytes info{0, length, static_cast<std::uint8_t>(prefix.size() + label.size())};
            for (const std::string_view part : {prefix, label}) info.insert(info.end(), part.begin(), part.end());
            info.push_back(0);
            SecretBytes output(length);
            HMAC keyed(HashFunction::sha256, viewOf(secret));
            EXPECT_TRUE(hkdfExpand(keyed, info, output));
            return output;
        };
        const SecretBytes key = expanded("key", 16), iv = expanded("iv", 12);
        Bytes inner{'x', 'y', 23, 0, 0}, tag(16);
        const Bytes header{23, 3, 3, 0, 21};
        const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
        int written = 0;
        EVP_EncryptInit_ex2(context.get(), EVP_aes_128_gcm(), key.data(), iv.data(), nullptr);
        if (authenticatesHeader) EVP_EncryptUpdate(context.get(), nullptr, &written, header.data(), 5);
        EVP_EncryptUpdate(context.get(), inner.data(), &written, inner.data(), 5);
        EVP_EncryptFinal_ex(context.get(), tag.data(), &written);
        EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_GET_TAG, 16, tag.data());
        inner.insert(inner.end(), tag.begin(), tag.end());
        const auto opener = makeTLS13Opener(*suite, TLS13Draft::of(version), viewOf(secret));
        EXPECT_EQ(opened(*opener, 0, 0x0303, inner, {}, 0), "xy") << version;
        EXPECT_EQ(opened(*opener, 1, 0x0303, inner, {}, 0), "nothing") << version;

        // Behind hellos: up to draft 21 the server's has neither session ID nor compression, and its version stands in front.
        const std::string random(64, '1'), said = fmt::format("{:04x}", version);
        const std::string body =
            version != 0x0304 && version <= 0x7F15 ? said + random + "13010000" : "0303" + random + "00130100" + "0006002b0002" + said;
        const auto hello = [](int type, const std::string& content) {
            return hex(fmt::format("160303{:04x}{:02x}{:06x}{}", content.size() / 2 + 4, type, content.size() / 2, content));
        };
        const Data sealed = joined({hello(2, body), Data(header), Data(inner)});
        const auto probe = probeWith("SERVER_TRAFFIC_SECRET_0 " + random + ' ' + hexText(viewOf(secret)));
        const TCPStream stream = vectorStream(hello(1, "0303" + random + "00" + "00021301" + "0100"), sealed);
        EXPECT_EQ(sealscope::opened(*probe, stream, TCPSegment::Direction::serverToClient).plaintext, "xy") << version;
        EXPECT_EQ(probe->report(stream, ReportDepth::hellos)->version, version);
    }
}

TEST(ReachSuite, ReadsItsParametersOffTheName)
{
    EXPECT_EQ(ReachSuite::of(0xC09C)->protection, RecordProtection::ccm);
    EXPECT_EQ(ReachSuite::of(0xC0A0)->tagLength, 8);
    EXPECT_EQ(ReachSuite::of(0xC028)->prf, HashFunction::sha384);
    EXPECT_EQ(ReachSuite::of(0x002F)->prf, HashFunction::sha256);
    EXPECT_TRUE(ReachSuite::of(0x003C)->isRSAKeyExchange);
    EXPECT_FALSE(ReachSuite::of(0xC013)->isRSAKeyExchange);
    EXPECT_TRUE(ReachSuite::of(0x1305)->isTLS13);
    EXPECT_EQ(ReachSuite::name(0xC077), "TLS_ECDHE_RSA_WITH_CAMELLIA_256_CBC_SHA384");
    EXPECT_EQ(ReachSuite::name(0xC063), "TLS_ECDH_RSA_WITH_ARIA_256_GCM_SHA384");
    EXPECT_EQ(ReachSuite::name(0xC070), "TLS_ECDHE_PSK_WITH_ARIA_128_CBC_SHA256");
    EXPECT_EQ(ReachSuite::name(0xC09B), "TLS_ECDHE_PSK_WITH_CAMELLIA_256_CBC_SHA384");
    EXPECT_FALSE(ReachSuite::of(0x0003)) << "an export suite";
    EXPECT_FALSE(ReachSuite::of(0x0A0A));
}

}  // namespace
}  // namespace sealscope
