// SPDX-License-Identifier: Apache-2.0
#include "interpreters/TLSReach/ReachProbe.h"

#include "harness/Hex.h"
#include "harness/TLSRecordSealer.h"
#include "interpreters/TLSReach/ReachConnection.h"
#include "tests/interpreters/TLSReach/Opened.h"
#include "tests/interpreters/TLSReach/RFC8448.h"

#include <algorithm>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

namespace sealscope {
namespace {

using Action = TLSStep::Action;
using Bytes = std::vector<std::uint8_t>;
using Direction = TCPSegment::Direction;
using Stop = TLSDirectionReport::Stop;
constexpr Direction client = Direction::clientToServer;
constexpr Direction server = Direction::serverToClient;
constexpr Direction directions[] = {client, server};

TLSSessionOptions with(TLSSessionOptions options, auto change)
{
    change(options);
    return options;
}

TEST(ReachProbe, ReadsHellosThatAreSpreadAndDrafts)
{
    const std::vector<TLSStep> steps{clientSends("request"), serverSends("reply")};
    const TLSSession spread = runTLS({.version = 0x0303, .handshakeRecordLength = 50}, steps);
    EXPECT_EQ(opened(*probeWith(spread.keyLog), vectorStream(spread.flights), server).plaintext, "reply");
    // The last draft is the standard but for its number.
    TLSSession draft = runTLS({.version = 0x0304}, steps);
    for (TLSFlight& flight : draft.flights) {
        std::vector<std::uint8_t> bytes(flight.wire.view().begin(), flight.wire.view().end());
        const Bytes said{0, 43, 0, 2, 3, 4};
        if (const auto at = std::ranges::search(bytes, said); !at.empty()) std::ranges::copy(Bytes{0x7F, 28}, at.begin() + 4);
        flight.wire = Data(std::move(bytes));
    }
    const auto probe = probeWith(draft.keyLog);
    EXPECT_EQ(probe->report(vectorStream(draft.flights), ReportDepth::hellos)->version, 0x7F1C);
    for (const Direction direction : directions)
        EXPECT_EQ(opened(*probe, vectorStream(draft.flights), direction).plaintext, draft.plaintext(direction).view().text());
}

TEST(ReachProbe, FollowsTheKeysOfTLS13)
{
    const TLSSessionOptions tls13{.version = 0x0304, .clientCertificate = CertificateOptions{}, .allowsPostHandshakeAuthentication = true};
    const std::vector<TLSStep> steps{clientSends("one"),
                                     serverSends("two"),
                                     clientDoes(Action::updateKey),
                                     clientSends("three"),
                                     serverDoes(Action::updateBothKeys),
                                     serverSends("four"),
                                     clientSends("five"),
                                     serverDoes(Action::requestClientCertificate),
                                     clientSends("six"),
                                     serverSends("seven"),
                                     serverDoes(Action::sendTicket),
                                     serverDoes(Action::updateKey),
                                     serverSends("eight")};
    const TLSSession session = runTLS(tls13, steps);
    const auto probe = probeWith(session.keyLog);
    for (const Direction direction : directions)
        EXPECT_EQ(opened(*probe, vectorStream(session.flights), direction).plaintext, session.plaintext(direction).view().text());

    // Early data, accepted and refused, with its secret and without.
    const TLSSession first = runTLS({.version = 0x0304, .maximumEarlyData = 1'000}, {clientSends("hello"), serverSends("hello")});
    for (const std::uint32_t accepts : {1'000u, 0u}) {
        const TLSSession second =
            runTLS({.version = 0x0304, .resume = first.resumption, .earlyData = Data::fromText("early bird"), .maximumEarlyData = accepts},
                   {clientSends("late"), serverSends("reply")});
        const Opened all = opened(*probeWith(second.keyLog), vectorStream(second.flights), client);
        EXPECT_TRUE(all.plaintext.ends_with("late")) << accepts;
        EXPECT_EQ(all.plaintext.starts_with("early bird"), second.acceptedEarlyData || all.plaintext.size() > 4) << accepts;
        std::string without = second.keyLog;
        const std::size_t line = without.find("CLIENT_EARLY_TRAFFIC_SECRET");
        if (line != std::string::npos) without.erase(line, without.find('\n', line) + 1 - line);
        EXPECT_EQ(opened(*probeWith(without), vectorStream(second.flights), client).plaintext, "late") << accepts;
    }
}

TEST(ReachProbe, FollowsRenegotiationAndResumption)
{
    for (const char* suite : {"ECDHE-RSA-AES128-GCM-SHA256", "ECDHE-RSA-AES128-SHA256", "ECDHE-ECDSA-CHACHA20-POLY1305"}) {
        const TLSSession session = runTLS({.version = 0x0303, .suites = suite},
                                          {clientSends("a"), serverSends("b"), clientDoes(Action::renegotiate), clientSends("c"),
                                           serverSends("d"), clientDoes(Action::renegotiate), serverSends("e"), clientSends("f")});
        const auto probe = probeWith(session.keyLog);
        for (const Direction direction : directions)
            EXPECT_EQ(opened(*probe, vectorStream(session.flights), direction).plaintext, session.plaintext(direction).view().text())
                << suite;
    }
}

/// The key log without the lines of labels that begin so.
std::string without(std::string keyLog, std::string_view label)
{
    for (std::size_t at = 0; (at = keyLog.find(label, at)) != std::string::npos;) keyLog.erase(at, keyLog.find('\n', at) + 1 - at);
    return keyLog;
}

SecretBytes secretOf(std::string_view text) { return {text.begin(), text.end()}; }

std::shared_ptr<const ReachProbe> probeWithKeys(std::vector<PrivateKey> keys, std::string_view keyLog = {})
{
    return std::make_shared<const ReachProbe>(
        std::make_shared<const KeyLogSources>(SecretText(keyLog), std::vector<std::string>(), std::move(keys)));
}

TEST(ReachProbe, OpensWithTheServersKey)
{
    const NoKeyLogs noOthers;
    const std::vector<TLSStep> steps{clientSends("request"), serverSends("reply")};
    const CertificateOptions rsa{.key = CertificateKey::rsa2048};
    const auto key = PrivateKey::read(DataView(CertificateChain::make(rsa)->privateKeyPEM), std::nullopt);
    ASSERT_TRUE(key);
    for (const char* suite : {"AES128-SHA", "AES256-GCM-SHA384", "AES128-SHA256"}) {
        for (const bool isExtended : {true, false}) {
            for (const std::uint16_t version : {0x0303, 0x0302, 0x0301}) {
                if (version < 0x0303 && std::string_view(suite) != "AES128-SHA") continue;
                const TLSSessionOptions options{
                    .version = version, .suites = suite, .certificates = {rsa}, .usesExtendedMasterSecret = isExtended};
                const TLSSession first = runTLS(options, steps);
                const auto probe = probeWithKeys({*key});
                for (const Direction direction : directions)
                    EXPECT_EQ(opened(*probe, vectorStream(first.flights), direction).plaintext, first.plaintext(direction).view().text())
                        << suite << ' ' << isExtended << ' ' << version;
                // Whoever resumes the session has no key exchange to be opened.
                for (const bool usesTickets : {true, false}) {
                    const TLSSession begun = runTLS(with(options, [&](auto& o) { o.usesTickets = usesTickets; }), steps);
                    const TLSSession resumed = runTLS(with(options,
                                                           [&](auto& o) {
                                                               o.usesTickets = usesTickets;
                                                               o.resume = begun.resumption;
                                                               o.seed = 2;
                                                           }),
                                                      steps);
                    ASSERT_TRUE(resumed.isResumed);
                    EXPECT_EQ(opened(*probe, vectorStream(begun.flights), server).plaintext, "reply");
                    EXPECT_EQ(opened(*probe, vectorStream(resumed.flights), server).plaintext, "reply") << suite << usesTickets << version;
                }
            }
        }
    }
    const TLSSession session = runTLS({.version = 0x0303, .suites = "AES128-SHA", .certificates = {rsa}}, steps);
    const TCPStream stream = vectorStream(session.flights);
    const auto withoutKey = [&](const PrivateKey& held) {
        const auto secrets = ReachSecrets::of("");
        secrets->privateKeys = {held};
        return ReachConnection(stream, secrets).privateKeyReport().value();
    };
    using Use = TLSPrivateKeyReport::Use;
    EXPECT_EQ(withoutKey(*key), (TLSPrivateKeyReport{Use::fits, "example.org"}));

    // Another key is said to be none of the certificate's.
    const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> made(EVP_RSA_gen(2048), EVP_PKEY_free);
    const std::unique_ptr<BIO, decltype(&BIO_free_all)> pem(BIO_new(BIO_s_mem()), BIO_free_all);
    PEM_write_bio_PKCS8PrivateKey(pem.get(), made.get(), EVP_aes_128_cbc(), "pass", 4, nullptr, nullptr);
    char* text = nullptr;
    const long length = BIO_get_mem_data(pem.get(), &text);
    const DataView encrypted(std::string_view(text, static_cast<std::size_t>(length)));
    EXPECT_EQ(PrivateKey::read(encrypted, std::nullopt).error(), PrivateKey::Problem::needsPassphrase);
    EXPECT_EQ(PrivateKey::read(encrypted, secretOf("word")).error(), PrivateKey::Problem::wrongPassphrase);
    EXPECT_EQ(PrivateKey::read(DataView(std::string_view("no key")), std::nullopt).error(), PrivateKey::Problem::noKey);
    const auto other = PrivateKey::read(encrypted, secretOf("pass"));
    ASSERT_TRUE(other);
    EXPECT_EQ(withoutKey(*other), (TLSPrivateKeyReport{Use::otherCertificate, "example.org"}));
    EXPECT_EQ(probeWithKeys({*other})->report(stream, ReportDepth::opened)->plaintextBytes(), 0);

    // A key exchange is opened once, and only so many of them.
    for (const int most : {0, 1}) {
        const auto secrets = ReachSecrets::of("");
        secrets->privateKeys = {*key};
        secrets->keyExchanges = std::make_shared<KeyExchanges>(most);
        for (int again = 0; again < 2; ++again)
            EXPECT_EQ(ReachConnection(stream, secrets).privateKeyReport()->use, most == 0 ? Use::notTried : Use::fits);
    }

    // What a key decrypts may stand in a key log as well.
    for (const AssembledMessage& message : clearHandshake(stream.clientToServerData).messages) {
        if (message.type != 16) continue;
        const Data exchange = message.body.sub(2, message.body.size() - 2);
        const auto premaster = key->decrypt(exchange);
        ASSERT_TRUE(premaster);
        const std::string secret = hexText(viewOf(*premaster));
        EXPECT_EQ(opened(*probeWith("RSA " + hexText(exchange.view().sub(0, 8)) + ' ' + secret + '\n'), stream, server).plaintext, "reply");
        const std::string random = hexText(session.wire(client).view().sub(11, 32));
        EXPECT_EQ(opened(*probeWith("PMS_CLIENT_RANDOM " + random + ' ' + secret + '\n'), stream, server).plaintext, "reply");
    }
    const TLSSession withID = runTLS({.version = 0x0303, .suites = "AES128-SHA", .certificates = {rsa}, .usesTickets = false}, steps);
    const Data wire = withID.wire(server);
    const std::string id = hexText(wire.view().sub(44, wire[43])), master = hexText(DataView(keyLogSecret(withID.keyLog, "CLIENT_RANDOM")));
    EXPECT_EQ(opened(*probeWith("RSA Session-ID:" + id + " Master-Key:" + master + '\n'), vectorStream(withID.flights), server).plaintext,
              "reply");
}

TEST(ReachProbe, OpensWithoutTheHandshake)
{
    const std::vector<TLSStep> steps{clientSends(patternBytes(3'000)), serverSends(patternBytes(100'000)), clientSends("bye")};
    for (const char* suite : {"TLS_AES_128_GCM_SHA256", "TLS_AES_256_GCM_SHA384"}) {
        const TLSSession session = runTLS({.version = 0x0304, .suites = suite}, steps);
        const TLSSession other = runTLS({.version = 0x0304, .seed = 9}, steps);
        const auto probe = probeWith(other.keyLog + session.keyLog);
        // The capture begins when the connection is long under way.
        const Data late = session.wire(server).sub(40'000, 200'000);
        const Opened found = opened(*probe, vectorStream(Data(), late), server);
        EXPECT_GT(found.plaintext.size(), 50'000u) << suite;
        EXPECT_TRUE(session.serverPlaintext.view().text().ends_with(found.plaintext)) << suite;
    }
    // Who writes a key log of any length does not make a look for secrets any longer.
    std::string many;
    for (int i = 0; i < 1'100; ++i) many += fmt::format("SERVER_TRAFFIC_SECRET_0 {:064x} {:064x}\n", i, i);
    const Data late = runTLS({.version = 0x0304}, steps).wire(server).sub(40'000, 20'000);
    EXPECT_EQ(probeWith(many)->report(vectorStream(Data(), late), ReportDepth::hellos)->search, (TLSSecretSearchReport{1'100, 1'024}));
    // Nor do many connections: they share what trials may cost, beside what their own bytes pay for.
    const auto secrets = ReachSecrets::of(many);
    std::int64_t fewest = 1'024;
    for (int i = 0; i < 40; ++i) {
        const TCPStream stream = vectorStream(Data(), late.sub(i, 2'000));
        const auto search = ReachConnection(stream, secrets).search().value();
        EXPECT_EQ(ReachConnection(stream, secrets).search(), search) << "looked for once";
        fewest = std::min(fewest, search.tried);
    }
    EXPECT_LT(fewest, 10);
    // Without the handshake's secrets the application's still open what is theirs.
    const TLSSession session = runTLS({.version = 0x0304}, steps);
    const auto probe = probeWith(without(without(session.keyLog, "CLIENT_HANDSHAKE"), "SERVER_HANDSHAKE"));
    for (const Direction direction : directions)
        EXPECT_TRUE(opened(*probe, vectorStream(session.flights), direction).plaintext == session.plaintext(direction).view().text());
}

TEST(ReachProbe, OpensTheTracesOfRFC8448)
{
    std::string counted;
    for (char byte = 0; byte < 0x32; ++byte) counted += byte;
    struct Case {
        const char* name;
        const RFC8448Trace& trace;
        std::string client, server;
        std::vector<std::string> handshake;
    };
    const Case cases[] = {
        {"simple",
         simpleTrace,
         counted,
         counted,
         {"Certificate Verify", "Certificate of rsa", "Encrypted Extensions", "Finished", "Finished", "New Session Ticket"}},
        {"early data", earlyDataTrace, "ABCDEF" + counted, counted, {"Encrypted Extensions", "End Of Early Data", "Finished", "Finished"}},
        {"hello retry",
         helloRetryTrace,
         "",
         "",
         {"Certificate Verify", "Certificate of rsa", "Encrypted Extensions", "Finished", "Finished"}},
        {"client authentication",
         clientAuthenticationTrace,
         "",
         "",
         {"Certificate Request", "Certificate Verify", "Certificate Verify", "Certificate of client", "Certificate of ecdsa256",
          "Encrypted Extensions", "Finished", "Finished"}},
        {"compatibility",
         compatibilityTrace,
         "",
         "",
         {"Certificate Verify", "Certificate of rsa", "Encrypted Extensions", "Finished", "Finished"}},
    };
    for (const auto& [name, trace, clientData, serverData, handshake] : cases) {
        const auto probe = probeWith(trace.keyLog);
        const TLSSessionProbe strict(std::make_shared<const KeyLogSources>(SecretText(trace.keyLog), std::vector<std::string>()));
        const TCPStream stream = vectorStream(hex(trace.client), hex(trace.server));
        for (const Direction direction : directions) {
            const Opened whole = opened(*probe, stream, direction);
            EXPECT_EQ(whole.plaintext, direction == client ? clientData : serverData) << name;
            EXPECT_EQ(whole.report.stop, Stop::endOfData) << name;
            EXPECT_EQ(whole.report.openedRecords, whole.report.protectedRecords) << name;
            // Early data is what the one with less reach stops at.
            const Opened strictly = opened(strict, stream, direction);
            const bool isEarly = direction == client && clientData.starts_with("ABCDEF");
            EXPECT_EQ(strictly.plaintext, isEarly ? "" : whole.plaintext) << name;
            EXPECT_EQ(strictly.report.stop, isEarly ? Stop::earlyData : Stop::endOfData) << name;
            EXPECT_EQ(strictly.report.openedRecords, isEarly ? 0 : whole.report.openedRecords) << name;
            EXPECT_EQ(strictly.report.protectedRecords, whole.report.protectedRecords) << name;
        }
        const auto interpretation = probe->decryptedInterpretation(stream, {});
        ASSERT_TRUE(interpretation) << name;
        std::vector<std::string> rows;
        for (const StreamMessage& message : interpretation->messages) {
            if (message.summary.contains("Data (")) continue;
            rows.push_back(message.summary);
            for (const DetailRow& row : message.detail)
                if (row.name == "Subject") rows.back() += " of " + row.value;
        }
        std::ranges::sort(rows);
        EXPECT_EQ(rows, handshake) << name;
    }
    // A capture that begins behind the handshake, without the handshake's secrets: the last records of the first trace's sides.
    const std::string_view keyLog = simpleTrace.keyLog.substr(simpleTrace.keyLog.find("CLIENT_TRAFFIC"));
    const std::size_t data = 2 * (5 + 0x43 + 5 + 0x13);
    const TCPStream late = vectorStream(hex(simpleTrace.client.substr(simpleTrace.client.size() - data)),
                                        hex(simpleTrace.server.substr(simpleTrace.server.size() - data)));
    for (const Direction direction : directions) EXPECT_EQ(opened(*probeWith(keyLog), late, direction).plaintext, counted);
}

TEST(ReachProbe, ShowsTheHandshakeUnderEncryption)
{
    const TLSSession session = runTLS({.version = 0x0304, .clientProtocols = {"h2"}, .serverProtocols = {"h2"}, .tickets = 1},
                                      {clientSends("x"), clientDoes(Action::updateKey), serverSends("y")});
    const TCPStream stream = vectorStream(session.flights);
    const auto interpretation = probeWith(session.keyLog)->decryptedInterpretation(stream, {});
    ASSERT_TRUE(interpretation);
    std::vector<std::string> rows;
    for (const StreamMessage& message : interpretation->messages) {
        EXPECT_TRUE(message.isDecrypted);
        rows.push_back(message.summary);
        if (message.summary == "Encrypted Extensions") { EXPECT_EQ(message.detail.at(1), (DetailRow{"ALPN", "h2"})); }
        if (message.summary != "Certificate") continue;
        EXPECT_EQ(message.detail.at(2), (DetailRow{"Subject", "example.org"}));
        const VELValue* const chain = message.attribute("certificates");
        ASSERT_TRUE(chain);
        EXPECT_TRUE(std::get<std::string>(*chain).starts_with("# subject: example.org\n-----BEGIN CERTIFICATE-----\n"));
        EXPECT_EQ(message.packetIds, stream.locate(*message.byteRange, server).packetIds);
    }
    std::ranges::sort(rows);
    EXPECT_EQ(rows, (std::vector<std::string>{"Certificate", "Certificate Verify", "Decrypted Application Data (1 bytes)",
                                              "Decrypted Application Data (1 bytes)", "Encrypted Extensions", "Finished", "Finished",
                                              "Key Update", "New Session Ticket"}));
}
}  // namespace
}  // namespace sealscope
