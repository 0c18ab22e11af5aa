// SPDX-License-Identifier: Apache-2.0
#include "app/session/Session.h"
#include "harness/CaptureFile.h"
#include "harness/Certificates.h"
#include "harness/Hex.h"
#include "harness/OpenSSLPointers.h"
#include "harness/TLSSession.h"
#include "harness/TempDirectory.h"
#include "tests/cli/Program.h"

#include <algorithm>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/provider.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

namespace sealscope::cli {

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using testing::HasSubstr;
using Direction = TCPSegment::Direction;

/// A connection as a capture that lacks the server's segment in whose middle a byte of its data lies.
std::string withoutSegment(const TempDirectory& directory, const TLSSession& session, std::int64_t byte)
{
    auto segments = tcpSegments(session.flights);
    std::int64_t at = 0;
    std::erase_if(segments, [&](const PlannedSegment& segment) {
        if (segment.direction != Direction::serverToClient) return false;
        const std::int64_t start = at;
        at += segment.payload.size();
        return start <= byte && byte < at;
    });
    return directory.write("capture.pcap", pcapFile(packets(segments)));
}

TEST(ReachCommand, FillsGapsAsItIsTold)
{
    const std::string plaintext(patternBytes(200'000).view().text());
    struct Case {
        TLSSessionOptions options;
        std::int64_t lost;  ///< bytes of content, as far as is known
        const char* mark;
        bool isExact;
        const char* says;
    };
    const Case cases[] = {
        {{.version = 0x0303, .suites = "ECDHE-RSA-AES128-GCM-SHA256"},
         16'384,
         "\n[16384 bytes lost]\n",
         true,
         "records, 183,616 bytes, 1 lost, 1 gap of 16,413 bytes"},
        {{.version = 0x0304}, 16'384, "\n[16384 bytes lost]\n", true, "records, 183,616 bytes, 1 lost, 1 gap of 16,406 bytes"},
        {{.version = 0x0303, .suites = "ECDHE-RSA-AES128-SHA256"},
         16'399,
         "\n[up to 16399 bytes lost]\n",
         false,
         "records, 183,616 bytes, 1 lost, 1 gap of 16,453 bytes"},
    };
    for (const auto& [options, lost, mark, isExact, says] : cases) {
        const TempDirectory directory;
        const TLSSession session = runTLS(options, {clientSends("GET"), serverSends(patternBytes(200'000))});
        const std::string capture = withoutSegment(directory, session, 60'000);
        const std::string keyLog = directory.write("keys.txt", session.keyLog);
        const auto filled = [&](const char* how) {
            const std::string pcap = directory.file(std::string(how) + ".pcap");
            const ProgramResult result = sealscope({"decrypt", "--json", "--force", "-k", keyLog, "--gaps", how, "--output",
                                                    directory.path().string(), "--pcap", pcap, capture});
            EXPECT_EQ(result.errors, "");
            const json row = jsonLines(result.output).at(0);
            const json gap = row["reason"]["server"]["gaps"].at(0);
            EXPECT_EQ(row["reason"]["probe"], "TLSReach");
            EXPECT_EQ(gap["plaintextBytes"], lost);
            EXPECT_EQ(gap["isExact"], isExact);
            EXPECT_EQ(gap["isLost"], true);
            EXPECT_EQ(gap["records"], 1);
            EXPECT_TRUE(gap["byteRange"][0] < 60'000 && 60'000 < gap["byteRange"][1]) << gap;
            EXPECT_EQ(row["serverPlaintextBytes"], 200'000 - 16'384);
            std::string file(readFile(directory.path() / "stream-0-server.bin").view().text());
            EXPECT_EQ(row["serverFilledBytes"], static_cast<std::int64_t>(file.size()) - (200'000 - 16'384)) << how;
            const auto opened = Session::open({.files = {pcap}});
            return std::tuple(std::move(file), std::string((*opened)->stream(0).serverToClientData.whole().view().text()),
                              (*opened)->summary(0).missingBytes);
        };
        const auto [skipped, skippedPackets, skippedMissing] = filled("skip");
        ASSERT_EQ(skipped.size(), 200'000u - 16'384u);
        const auto start = static_cast<std::size_t>(std::ranges::mismatch(skipped, plaintext).in1 - skipped.begin());
        EXPECT_TRUE(skipped == std::string(plaintext).erase(start, 16'384));
        EXPECT_TRUE(skippedPackets == skipped);
        EXPECT_EQ(skippedMissing, 0);

        const auto [zeros, zeroPackets, zerosMissing] = filled("zeros");
        EXPECT_TRUE(zeros == (isExact ? std::string(plaintext).replace(start, 16'384, 16'384, '\0') : skipped));
        EXPECT_TRUE(zeroPackets == zeros);
        EXPECT_EQ(zerosMissing, 0);

        const auto [marked, markedPackets, markedMissing] = filled("mark");
        EXPECT_TRUE(marked == std::string(skipped).insert(start, mark));
        EXPECT_EQ(markedMissing, lost) << "tools show segments that were lost";

        EXPECT_THAT(sealscope({"streams", "-k", keyLog, capture}).output, HasSubstr(says));
    }
}

// All bytes are there, and one of them is not what was sent: what stands behind its record opens all the same, and only what the
// TLS plug-in cannot open goes by another name.
TEST(ReachCommand, GoesOnBehindWhatWasChanged)
{
    const std::string plaintext(patternBytes(80'000).view().text());
    for (const std::uint16_t version : {0x0304, 0x0303}) {
        const TempDirectory directory;
        const TLSSession session =
            runTLS({.version = version}, {clientSends("GET"), serverSends(Data::fromText(plaintext)), clientSends("bye")});
        auto segments = tcpSegments(session.flights);
        const std::string keyLog = directory.write("keys.txt", session.keyLog),
                          whole = directory.write("whole.pcap", pcapFile(packets(segments)));
        std::int64_t at = 0;
        for (PlannedSegment& segment : segments) {
            if (segment.direction != Direction::serverToClient) continue;
            at += segment.payload.size();
            if (at < 30'000) continue;
            std::vector<std::uint8_t> bytes(segment.payload.view().begin(), segment.payload.view().end());
            bytes[bytes.size() / 2] ^= 1;
            segment.payload = Data(std::move(bytes));
            break;
        }
        const std::string changed = directory.write("changed.pcap", pcapFile(packets(segments)));
        const auto decrypted = [&](const std::string& capture) {
            const ProgramResult result =
                sealscope({"decrypt", "--json", "--force", "-k", keyLog, "--gaps", "mark", "--output", directory.path().string(), capture});
            EXPECT_EQ(result.errors, "");
            EXPECT_EQ(readFile(directory.path() / "stream-0-client.bin").view().text(), "GETbye");
            return std::pair(jsonLines(result.output).at(0), std::string(readFile(directory.path() / "stream-0-server.bin").view().text()));
        };
        const auto [wholeRow, all] = decrypted(whole);
        EXPECT_TRUE(all == plaintext);
        EXPECT_EQ(wholeRow["reason"]["probe"], "TLS");
        EXPECT_EQ(wholeRow["verdict"], "decrypted");
        const auto [row, rest] = decrypted(changed);
        EXPECT_TRUE(rest == std::string(plaintext).replace(16'384, 16'384, "\n[16384 bytes not decrypted]\n")) << version;
        EXPECT_EQ(row["reason"]["probe"], "TLSReach");
        EXPECT_EQ(row["serverPlaintextBytes"], 80'000 - 16'384);
        EXPECT_EQ(row["reason"]["server"]["gaps"].at(0)["isLost"], false);
    }
}

TEST(ReachCommand, TellsWhoseSecretsWereFoundByTrying)
{
    const TempDirectory directory;
    const TLSSession session = runTLS({.version = 0x0304}, {clientSends("GET"), serverSends(patternBytes(100'000)), clientSends("bye")});
    const TLSSession other = runTLS({.version = 0x0304, .seed = 2}, {});
    auto segments = tcpSegments(session.flights);
    segments.erase(segments.begin(), segments.begin() + 20);
    const std::string capture = directory.write("late.pcap", pcapFile(packets(segments)));
    const std::string keyLog = directory.write("keys.txt", session.keyLog + other.keyLog);
    const std::string random = hexText(session.wire(Direction::clientToServer).view().sub(11, 8));
    EXPECT_THAT(sealscope({"streams", "-k", keyLog, capture}).output,
                HasSubstr("the Client Hello is missing, and the secrets of client random " + random + "… were found by trying"));
    const auto search = [&](const std::string& secrets) {
        return jsonLines(sealscope({"streams", "--json", "-k", secrets, capture}).output).at(0)["reason"]["search"];
    };
    EXPECT_TRUE(search(keyLog).is_null());
    // In vain it is told as well, by the one that tries.
    const std::string others = directory.write("others.txt", other.keyLog);
    const std::string tooLate = "the capture starts after the Client Hello; start capturing before the connection opens";
    EXPECT_THAT(sealscope({"streams", "-k", others, capture}).output,
                HasSubstr(tooLate + "; the secrets of 1 connection in the key log were tried, and none opens a record\n"));
    EXPECT_EQ(search(others), nlohmann::json({{"candidates", 1}, {"tried", 1}}));
    const std::string strict = sealscope({"streams", "--reach", "strict", "-k", others, capture}).output;
    EXPECT_THAT(strict, HasSubstr(tooLate + '\n'));
}

// A key log has a line for each of two connections, of which the second resumes the first's session. One line is enough, in whatever
// order they are asked for, and also where the TLS plug-in opens the first and leaves nothing of it to others.
TEST(ReachCommand, OpensAResumedSessionWithTheSecretOfTheFirst)
{
    const TempDirectory directory;
    const fs::path folder = fs::path(SEALSCOPE_SOURCE_DIR) / "tests/captures/openssl-tls12-resumption";
    const std::string capture = (folder / "capture.pcap").string();
    std::string lines(readFile(folder / "keylog.txt").view().text());
    lines.erase(lines.rfind("CLIENT_RANDOM"));
    const std::string keyLog = directory.write("keys.txt", lines);
    const std::string output = directory.file("plain");
    EXPECT_EQ(sealscope({"decrypt", "-k", keyLog, "--stream", "1", "--output", output, capture}).status, 0);
    for (const char* name : {"stream-1-client.bin", "stream-1-server.bin"})
        EXPECT_EQ(readFile(fs::path(output) / name), readFile(folder / name)) << name;
    EXPECT_THAT(sealscope({"follow", "-k", keyLog, "--stream", "1", "--json", capture}).output, HasSubstr("\"isDecrypted\":true"));
    const auto verdicts = [&](const char* reach) {
        const auto rows = jsonLines(sealscope({"streams", "--reach", reach, "-k", keyLog, "--json", capture}).output);
        return std::pair(rows.at(0)["verdict"].get<std::string>(), rows.at(1)["verdict"].get<std::string>());
    };
    EXPECT_EQ(verdicts("full"), std::pair(std::string("decrypted"), std::string("decrypted")));
    EXPECT_EQ(verdicts("strict"), std::pair(std::string("decrypted"), std::string("noKeyMaterial")));
}

std::string pemOf(EVP_PKEY* key, const char* passphrase)
{
    const std::unique_ptr<BIO, decltype(&BIO_free_all)> pem(BIO_new(BIO_s_mem()), BIO_free_all);
    PEM_write_bio_PKCS8PrivateKey(pem.get(), key, passphrase ? EVP_aes_128_cbc() : nullptr, passphrase, passphrase ? 4 : 0, nullptr,
                                  nullptr);
    char* text = nullptr;
    const long length = BIO_get_mem_data(pem.get(), &text);
    return {text, static_cast<std::size_t>(length)};
}

/// The key under one cipher, its certificate under another.
std::string pkcs12Of(EVP_PKEY* key, const Data& certificate, int keyCipher, int cipher)
{
    const std::uint8_t* next = certificate.data();
    const std::unique_ptr<X509, decltype(&X509_free)> parsed(d2i_X509(nullptr, &next, static_cast<long>(certificate.size())), X509_free);
    const std::unique_ptr<PKCS12, decltype(&PKCS12_free)> store(
        PKCS12_create("pass", "server", key, parsed.get(), nullptr, keyCipher, cipher, 0, 0, 0), PKCS12_free);
    std::uint8_t* bytes = nullptr;
    const int length = i2d_PKCS12(store.get(), &bytes);
    std::string made(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(std::max(length, 0)));
    OPENSSL_free(bytes);
    return made;
}

TEST(PrivateKeys, OpenWhatWasEncryptedToTheirCertificates)
{
    // What old programs write has a cipher of old.
    using Provider = std::unique_ptr<OSSL_PROVIDER, decltype(&OSSL_PROVIDER_unload)>;
    const Provider usual(OSSL_PROVIDER_load(nullptr, "default"), OSSL_PROVIDER_unload),
        old(OSSL_PROVIDER_load(nullptr, "legacy"), OSSL_PROVIDER_unload);
    const CertificateOptions rsa{.key = CertificateKey::rsa2048};
    const auto chain = CertificateChain::make(rsa);
    const std::unique_ptr<BIO, decltype(&BIO_free_all)> text(BIO_new_mem_buf(chain->privateKeyPEM.data(), -1), BIO_free_all);
    const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(PEM_read_bio_PrivateKey(text.get(), nullptr, nullptr, nullptr),
                                                                  EVP_PKEY_free);
    const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> other(EVP_RSA_gen(2048), EVP_PKEY_free);
    const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> curve(EVP_EC_gen("P-256"), EVP_PKEY_free);

    const TempDirectory directory;
    const TLSSession session =
        runTLS({.version = 0x0303, .suites = "AES128-GCM-SHA256", .certificates = {rsa}}, {clientSends("request"), serverSends("reply")});
    const TLSSession forward =
        runTLS({.version = 0x0303, .suites = "ECDHE-RSA-AES128-GCM-SHA256", .certificates = {rsa}}, {serverSends("reply")});
    const std::string capture = directory.write("capture.pcap", pcapFile(packets(tcpSegments(session.flights))));
    const TLSSession next =
        runTLS({.version = 0x0303, .suites = "AES128-GCM-SHA256", .certificates = {rsa}, .seed = 2}, {serverSends("x")});
    const std::string both = directory.write(
        "both.pcap",
        pcapFile(packets(merged({tcpSegments(session.flights), tcpSegments(next.flights, {.client = endpoint("192.0.2.3", 50'000)})}))));
    const std::string secret = directory.write("forward.pcap", pcapFile(packets(tcpSegments(forward.flights))));
    const std::string right = directory.write("right.pem", pemOf(key.get(), nullptr));
    const std::string encrypted = directory.write("encrypted.pem", pemOf(key.get(), "pass"));
    const std::string store =
        directory.write("store.p12", pkcs12Of(key.get(), chain->certificates.front(), NID_aes_128_cbc, NID_aes_128_cbc));
    const std::string oldStore =
        directory.write("old.p12", pkcs12Of(key.get(), chain->certificates.front(), NID_pbe_WithSHA1And3_Key_TripleDES_CBC,
                                            NID_pbe_WithSHA1And40BitRC2_CBC));
    const std::string wrong = directory.write("wrong.pem", pemOf(other.get(), nullptr));
    const std::string elliptic = directory.write("elliptic.pem", pemOf(curve.get(), nullptr));
    const std::string passphrase = directory.write("passphrase.txt", std::string("pass\n")),
                      noPassphrase = directory.write("other.txt", std::string("word\n"));

    struct Case {
        const char* name;
        std::string capture;
        std::vector<std::string> options;
        const char* verdict;  ///< none: an error
        std::string says;
    };
    const Case cases[] = {
        {"PEM", capture, {right}, "decrypted", "client 1 of 1 record, 7 bytes; server 1 of 1 record, 5 bytes"},
        {"one of two", capture, {wrong, "--private-key", right}, "decrypted", "server 1 of 1 record, 5 bytes"},
        {"encrypted PEM", capture, {encrypted, "--passphrase-file", passphrase}, "decrypted", ""},
        {"PKCS #12", capture, {store, "--passphrase-file", passphrase}, "decrypted", ""},
        {"PKCS #12 of old", capture, {oldStore, "--passphrase-file", passphrase}, "decrypted", ""},
        {"more than it may open", both, {right, "--most-key-exchanges", "1"}, "noKeyMaterial", "the private key was not tried"},
        {"another's",
         capture,
         {wrong},
         "noKeyMaterial",
         "the private key does not belong to the server's certificate, which is for example.org"},
        {"of no use",
         secret,
         {right},
         "noKeyMaterial",
         "a private key does not open this connection, whose key exchange encrypts nothing to it"},
        {"a wrong passphrase", capture, {encrypted, "--passphrase-file", noPassphrase}, nullptr, "the passphrase does not open it"},
        {"a wrong passphrase of a store", capture, {store, "--passphrase-file", noPassphrase}, nullptr, "the passphrase does not open it"},
        {"another kind of key", capture, {elliptic}, nullptr, "not an RSA key; no other opens a connection"},
        {"no key", capture, {capture}, nullptr, "neither a private key in PEM nor PKCS #12"},
        {"no file", capture, {directory.file("missing")}, nullptr, "No such file or directory"},
    };
    for (const auto& [name, file, options, verdict, says] : cases) {
        std::vector<std::string> arguments{"streams", "--json", file, "--private-key"};
        arguments.insert(arguments.end(), options.begin(), options.end());
        const ProgramResult result = sealscope(arguments);
        ASSERT_EQ(result.status, verdict ? 0 : 1) << name << ": " << result.errors;
        EXPECT_EQ(result.errors, verdict ? "" : fmt::format("sealscope: --private-key {}: {}\n", options.front(), says)) << name;
        if (!verdict) continue;
        const auto rows = jsonLines(result.output);
        const auto row = std::ranges::find_if(rows, [&](const json& each) { return each["verdict"] == verdict; });
        ASSERT_NE(row, rows.end()) << name << result.output;
        EXPECT_THAT((*row)["reason"]["sentence"].get<std::string>(), HasSubstr(says)) << name;
    }

    // A terminal asks, and shows nothing of the answer.
    const std::string shown = sealscopeOnTerminal({"streams", "--private-key", encrypted, capture}, 200, {}, "pass\n");
    EXPECT_THAT(shown, HasSubstr("passphrase of " + encrypted + ": \n"));
    EXPECT_THAT(shown, HasSubstr("server 1 of 1 record, 5 bytes"));
    EXPECT_THAT(sealscopeOnTerminal({"streams", "--private-key", encrypted, capture}, 200, {}, "\x03"), Not(HasSubstr("record")))
        << "and ends where its user wants";

    // What the key opened opens without it when the secrets travel in the capture.
    const std::string carrying = directory.file("carrying.pcapng");
    EXPECT_EQ(sealscope({"decrypt", "--private-key", right, "--inject-secrets", carrying, capture}).status, 0);
    EXPECT_EQ(jsonLines(sealscope({"streams", "--json", "--reach", "strict", carrying}).output).at(0)["verdict"], "decrypted");
}

}  // namespace

}  // namespace sealscope::cli
