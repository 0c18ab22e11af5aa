// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSStreamDecryption.h"

#include "Sealscope/TLSDecryptionProbe.h"
#include "harness/Hex.h"
#include "harness/TLSRecordSealer.h"
#include "harness/TLSSession.h"
#include "harness/VectorStream.h"
#include "tests/Sealscope/DecryptionTwin.h"
#include "tests/Sealscope/WithKeyLog.h"

#include <gtest/gtest.h>
#include <random>

namespace sealscope {
namespace {

using Action = TLSStep::Action;
using Direction = TCPSegment::Direction;
using DirectionPlain = TLSStreamDecryption::DirectionPlain;
constexpr Direction client = Direction::clientToServer;
constexpr Direction server = Direction::serverToClient;

std::optional<DirectionPlain> decrypted(const TCPStream& stream, Direction direction)
{
    const auto context = TLSStreamDecryption::context(stream);
    if (!context) return std::nullopt;
    return context->isTLS13 ? TLSStreamDecryption::decryptTLS13(direction, stream, context->clientRandom, context->cipherSuite)
                            : TLSStreamDecryption::decryptTLS12(direction, stream, *context);
}

/// The plaintext of one direction; empty where nothing decrypts.
Data plaintext(const TCPStream& stream, Direction direction)
{
    const auto plain = decrypted(stream, direction);
    return plain ? plain->data.whole() : Data();
}

/// Another conversation than text of one length: short, empty, longer than a record, long.
std::vector<TLSStep> conversation()
{
    return {clientSends("GET / HTTP/1.1\r\n\r\n"),
            serverSends(patternBytes(40'000, 2)),
            clientSends(patternBytes(1, 3)),
            serverSends(patternBytes(16'384, 4)),
            clientSends(patternBytes(16'385, 5)),
            serverSends("bye"),
            clientDoes(Action::close),
            serverDoes(Action::close)};
}

void expectWhatWasSent(const TLSSession& session, std::string_view name)
{
    ASSERT_TRUE(session.isComplete) << name << ": " << session.failure;
    const WithKeyLog keyLog(session.keyLog);
    for (const bool isScattered : {false, true}) {
        const TCPStream stream = vectorStream(session.flights, {.segmentSize = 1'000, .isScattered = isScattered});
        for (const Direction direction : {client, server}) EXPECT_EQ(plaintext(stream, direction), session.plaintext(direction)) << name;
    }
}

TEST(TLSStreamDecryption, OpensEverySuite)
{
    int opened = 0;
    for (const std::uint16_t version : {0x0303, 0x0304}) {
        for (const TLSSuite& suite : availableSuites(version)) {
            const TLSSession session = runTLS({.version = version, .suites = suite.name}, conversation());
            ASSERT_TRUE(session.isComplete) << suite.standardName << ": " << session.failure;
            const bool canBeOpened = version == 0x0304 ? TLS13RecordDecryptor::suiteParameters(suite.codePoint).has_value()
                                                       : TLS12RecordDecryptor::suiteParameters(suite.codePoint).has_value();
            if (canBeOpened) {
                expectWhatWasSent(session, suite.standardName);
                ++opened;
            } else {
                const WithKeyLog keyLog(session.keyLog);
                const TCPStream stream = vectorStream(session.flights);
                EXPECT_EQ(plaintext(stream, server), Data()) << suite.standardName;
                EXPECT_EQ(TLSDecryptionProbe().probe(stream), TLSDecryptionOutcome::notDecrypted(TLSDecryptionFailure::keyMismatch))
                    << suite.standardName;
            }
        }
    }
    // What libssl offers of both tables: DH_RSA it does not.
    EXPECT_EQ(opened, 11 + 3);
}

const TLSSessionOptions tls12{.version = 0x0303};
const TLSSessionOptions tls13{.version = 0x0304};

TLSSessionOptions with(TLSSessionOptions options, auto change)
{
    change(options);
    return options;
}

TEST(TLSStreamDecryption, OpensEveryKindOfSession)
{
    const auto resuming = [](const TLSSessionOptions& options) {
        const TLSSession first = runTLS(options, {serverSends("ticket, please"), clientSends("thanks")});
        const TLSSession second = runTLS(with(options, [&](auto& again) { again.resume = first.resumption; }), conversation());
        EXPECT_TRUE(second.isResumed);
        return second;
    };
    struct Case {
        const char* name;
        TLSSession session;
    };
    const Case cases[] = {
        {"1.2 with a client certificate",
         runTLS(with(tls12, [](auto& o) { o.requiresClientCertificate = true, o.clientCertificate.emplace(); }), conversation())},
        {"1.3 with a client certificate",
         runTLS(with(tls13, [](auto& o) { o.requiresClientCertificate = true, o.clientCertificate.emplace(); }), conversation())},
        {"1.2 resumed by ticket", resuming(tls12)},
        {"1.2 resumed by session identifier", resuming(with(tls12, [](auto& o) { o.usesTickets = false; }))},
        {"1.3 resumed", resuming(tls13)},
        {"1.3 with a HelloRetryRequest", runTLS(with(tls13, [](auto& o) { o.serverGroups = "P-384"; }), conversation())},
        {"1.3 with padding", runTLS(with(tls13, [](auto& o) { o.paddingBlock = 1'024; }), conversation())},
        {"1.3 without ChangeCipherSpec", runTLS(with(tls13, [](auto& o) { o.usesMiddleboxCompatibility = false; }), conversation())},
        {"1.3 with tickets between the data", runTLS(tls13, {serverSends("one"), serverDoes(Action::sendTicket), serverSends("two")})},
        {"1.2 in records of 512 bytes", runTLS(with(tls12, [](auto& o) { o.maximumFragment = 512; }), conversation())},
        {"1.3 in records of 512 bytes", runTLS(with(tls13, [](auto& o) { o.maximumFragment = 512; }), conversation())},
        {"1.2 with a negotiated fragment length", runTLS(with(tls12, [](auto& o) { o.negotiatedFragmentCode = 2; }), conversation())},
        {"1.2 with a DHE suite and no extended master secret",
         runTLS(with(tls12, [](auto& o) { o.suites = "DHE-RSA-AES256-GCM-SHA384", o.usesExtendedMasterSecret = false; }), conversation())},
        {"1.2 and one side is silent", runTLS(tls12, {serverSends("only the server speaks")})},
        {"1.3 and one side is silent", runTLS(tls13, {clientSends("only the client speaks")})},
        {"1.2 and nobody says anything", runTLS(tls12, {})},
    };
    for (const auto& [name, session] : cases) expectWhatWasSent(session, name);
}

TEST(TLSStreamDecryption, OpensEmptyRecordsAndTheLongest)
{
    for (const TLSSessionOptions& options : {tls12, tls13}) {
        TLSConversation conversation(with(options, [](auto& o) { o.tickets = 0; }));
        ASSERT_TRUE(conversation.handshake());
        TLSRecordSealer sealer(conversation.session(), client, options.version == 0x0304 ? 0 : 1);
        for (const Data& text : {Data{}, Data::fromText("between"), Data{}, patternBytes(16'384)})
            conversation.inject(client, sealer.seal(23, text, options.version == 0x0304 && text.isEmpty() ? 100 : 0), text);
        expectWhatWasSent(conversation.session(), options.version == 0x0304 ? "TLS 1.3" : "TLS 1.2");
    }
}

/// What opens of a direction, as text.
std::string text(const TLSSession& session, Direction direction)
{
    const WithKeyLog keyLog(session.keyLog);
    return std::string(plaintext(vectorStream(session.flights), direction).view().text());
}

TEST(TLSStreamDecryption, EndsWhereTheKeysChange)
{
    const std::vector<TLSStep> updates{clientSends("c1 "), serverSends("s1 "), clientDoes(Action::updateKey), clientSends("c2 "),
                                       serverSends("s2 ")};
    EXPECT_EQ(text(runTLS(tls13, updates), client), "c1 ");
    EXPECT_EQ(text(runTLS(tls13, updates), server), "s1 s2 ") << "the other side's keys stay";

    const std::vector<TLSStep> renegotiation{clientSends("c1 "), serverSends("s1 "), clientDoes(Action::renegotiate), clientSends("c2 "),
                                             serverSends("s2 ")};
    EXPECT_EQ(text(runTLS(tls12, renegotiation), client), "c1 ");
    EXPECT_EQ(text(runTLS(tls12, renegotiation), server), "s1 ");
}

TEST(TLSStreamDecryption, LeavesADirectionThatBeginsWithEarlyDataClosed)
{
    TLSSessionOptions options = with(tls13, [](auto& o) { o.maximumEarlyData = 16'384; });
    options.resume = runTLS(options, {serverSends("ticket, please"), clientSends("thanks")}).resumption;
    options.earlyData = Data::fromText("early ");
    const TLSSession session = runTLS(options, {clientSends("later"), serverSends("answer")});
    ASSERT_TRUE(session.acceptedEarlyData);
    EXPECT_EQ(text(session, client), "");
    EXPECT_EQ(text(session, server), "answer");
}

TEST(TLSStreamDecryption, NeedsTheRightSecrets)
{
    const TLSSession v12 = runTLS(tls12, {clientSends("c"), serverSends("s")});
    const TLSSession v13 = runTLS(tls13, {clientSends("c"), serverSends("s")});
    const auto without = [](std::string log, std::string_view label) {
        for (std::size_t at = log.find(label); at != std::string::npos; at = log.find(label)) log.erase(at, log.find('\n', at) + 1 - at);
        return log;
    };
    const std::string masterSecret = v12.keyLog.substr(0, v12.keyLog.find('\n'));
    struct Case {
        const char* name;
        const TLSSession& session;
        std::string keyLog;
        std::string_view expectedClient, expectedServer;
    };
    const Case cases[] = {
        {"all of 1.2", v12, v12.keyLog, "c", "s"},
        {"all of 1.3", v13, v13.keyLog, "c", "s"},
        {"no secrets", v13, "", "", ""},
        {"a master secret of 47 bytes", v12, masterSecret.substr(0, masterSecret.size() - 2), "", ""},
        {"a master secret of 49 bytes", v12, masterSecret + "00", "", ""},
        {"another master secret", v12,
         masterSecret.substr(0, masterSecret.size() - 2) + "zz\n" + masterSecret.substr(0, 79) + std::string(96, '0'), "", ""},
        {"the server's secrets alone", v13, without(v13.keyLog, "CLIENT_"), "", "s"},
        {"no handshake secrets", v13, without(without(v13.keyLog, "CLIENT_HANDSHAKE"), "SERVER_HANDSHAKE"), "", ""},
        {"no application secrets", v13, without(without(v13.keyLog, "CLIENT_TRAFFIC"), "SERVER_TRAFFIC"), "", ""},
        {"one version's line for the other's connection", v13, v12.keyLog, "", ""},
    };
    for (const auto& [name, session, keyLog, expectedClient, expectedServer] : cases) {
        const WithKeyLog secrets(keyLog);
        const TCPStream stream = vectorStream(session.flights);
        EXPECT_EQ(plaintext(stream, client).view().text(), expectedClient) << name;
        EXPECT_EQ(plaintext(stream, server).view().text(), expectedServer) << name;
    }
}

TEST(TLSStreamDecryption, FindsTheHellos)
{
    const TLSSession v10 = runTLS({.version = 0x0301}, {});
    const TLSSession v11 = runTLS({.version = 0x0302}, {});
    const TLSSession v12 = runTLS(tls12, {clientSends("c")});
    const TLSSession v13 = runTLS(tls13, {clientSends("c")});
    const TLSSession split = runTLS(with(tls12, [](auto& o) { o.handshakeRecordLength = 40; }), {clientSends("c")});
    const auto answer = [](const TCPStream& stream) -> std::string {
        const auto context = TLSStreamDecryption::context(stream);
        if (!context) return context.error() == TLSStreamDecryption::ContextFailure::noHandshake ? "no handshake" : "unsupported version";
        return context->isTLS13 ? "TLS 1.3" : "TLS 1.2";
    };
    const auto whole = [](const TLSSession& session) { return vectorStream(session.wire(client), session.wire(server)); };
    EXPECT_EQ(answer(whole(v10)), "unsupported version");
    EXPECT_EQ(answer(whole(v11)), "unsupported version");
    EXPECT_EQ(answer(whole(v12)), "TLS 1.2");
    EXPECT_EQ(answer(whole(v13)), "TLS 1.3");
    EXPECT_EQ(answer(whole(split)), "no handshake") << "hellos that are spread over records";
    EXPECT_EQ(answer(vectorStream(v13.wire(client), {})), "no handshake") << "one direction only";
    EXPECT_EQ(answer(vectorStream({}, v13.wire(server))), "no handshake");
    EXPECT_EQ(answer(vectorStream(v13.wire(server), v13.wire(client))), "no handshake") << "directions the wrong way round";

    // A hello is found after records of other types and other messages, and not in a record that the data do not hold.
    const Data hello = v12.wire(client).sub(0, 5 + v12.wire(client).view().u16(3));
    const Data before = hex("15 0301 0002 0100  16 0303 0004 00000000  18 0303 0001 00");
    EXPECT_EQ(answer(vectorStream(joined({before, hello}), v12.wire(server))), "TLS 1.2");
    EXPECT_EQ(answer(vectorStream(hello.sub(0, hello.size() - 1), v12.wire(server))), "no handshake");
    const auto random = TLSStreamDecryption::firstClientRandom(StreamData(joined({before, hello})));
    EXPECT_EQ(random, hello.sub(11, 32));
    const auto serverHello = TLSStreamDecryption::firstServerHello(StreamData(v12.wire(server)));
    ASSERT_TRUE(serverHello);
    EXPECT_EQ(serverHello->cipherSuite, v12.cipherSuite);
}

TEST(TLSStreamDecryption, LocatesPlaintextInThePacketsOfItsRecords)
{
    for (const TLSSessionOptions& options : {tls12, tls13}) {
        const TLSSession session = runTLS(options, conversation());
        const TCPStream stream = vectorStream(session.flights, {.segmentSize = 700});
        const WithKeyLog keyLog(session.keyLog);
        for (const Direction direction : {client, server}) {
            const auto plain = decrypted(stream, direction);
            const auto fromLists =
                twin::decrypt(stream, direction, TLSStreamDecryption::context(stream).value(), TLSKeyLog(session.keyLog));
            ASSERT_TRUE(plain && fromLists);
            EXPECT_EQ(plain->data.whole(), fromLists->data.whole());
            const std::int64_t size = plain->data.size();
            for (std::int64_t at = 0; at < size; at += 97)
                ASSERT_EQ(plain->index.locate({at, at + 1}), fromLists->index.locate({at, at + 1})) << at;
            for (const ByteRange range :
                 {ByteRange{0, size}, ByteRange{size - 1, size}, ByteRange{size, size + 9}, ByteRange{3, 3}, ByteRange{16'000, 17'000}})
                EXPECT_EQ(plain->index.locate(range), fromLists->index.locate(range)) << range.lower;
        }
    }
    // The last word of the server came in one packet, and that is where it is found.
    const TLSSession session = runTLS(tls13, {serverSends(patternBytes(20'000)), serverSends("bye")});
    const TCPStream stream = vectorStream(session.flights);
    const WithKeyLog keyLog(session.keyLog);
    const auto plain = decrypted(stream, server);
    ASSERT_TRUE(plain);
    const std::int64_t end = stream.serverToClientData.size();
    EXPECT_EQ(plain->index.locate({20'000, 20'003}), stream.locate({end - 1, end}, server));
}

/// The stream with the packets that carry these bytes of a direction lost.
TCPStream withLostBytes(const TLSSession& session, Direction direction, ByteRange lost)
{
    std::vector<StreamPiece> pieces = streamPieces(session.flights, {.segmentSize = 100});
    std::int64_t offset = 0;
    for (StreamPiece& piece : pieces) {
        if (piece.direction != direction) continue;
        const ByteRange range{offset, offset + piece.bytes.size()};
        offset = range.upper;
        if (range.upper <= lost.lower || range.lower >= lost.upper) continue;
        piece.bytes = Data(std::vector<std::uint8_t>(static_cast<std::size_t>(piece.bytes.size())));
        piece.packetId.reset();
    }
    return vectorStream(pieces);
}

TEST(TLSStreamDecryption, SurvivesLostSegments)
{
    const std::vector<TLSStep> steps{serverSends(patternBytes(1'000, 1)), serverSends(patternBytes(1'000, 2)),
                                     serverSends(patternBytes(1'000, 3))};
    for (const TLSSessionOptions& options : {tls12, tls13}) {
        const TLSSession session = runTLS(options, steps);
        const std::int64_t end = session.wire(server).size();
        const WithKeyLog keyLog(session.keyLog);
        // Within the second of the three records, header left alone.
        const Data opened = plaintext(withLostBytes(session, server, {end - 1'600, end - 1'500}), server);
        const Data first = session.serverPlaintext.sub(0, 1'000);
        if (options.version == 0x0303)
            EXPECT_EQ(opened, joined({first, session.serverPlaintext.sub(2'000, 1'000)}));
        else
            EXPECT_EQ(opened, first);
    }
}

TEST(TLSStreamDecryption, OpensWithHolesWhatTheListsOfTheirZerosOpen)
{
    std::mt19937_64 random(1);
    const auto below = [&](std::int64_t bound) { return static_cast<std::int64_t>(random() % static_cast<std::uint64_t>(bound)); };
    for (const TLSSessionOptions& options : {tls12, with(tls12, [](auto& o) { o.suites = "ECDHE-RSA-CHACHA20-POLY1305"; }), tls13}) {
        std::vector<TLSStep> steps;
        for (int i = 0; i < 20; ++i) steps.push_back(serverSends(patternBytes(40 + 7 * i)));
        const TLSSession session = runTLS(options, steps);
        const WithKeyLog secrets(session.keyLog);
        const TLSKeyLog keyLog(session.keyLog);
        const auto context = TLSStreamDecryption::context(vectorStream(session.flights));
        ASSERT_TRUE(context);
        const Data bytes = session.wire(server);
        std::int64_t opened = 0;
        for (int round = 0; round < 100; ++round) {
            // Whole records are lost and others put in their place, headers of nothing among them, so that numbers are left out.
            const std::int64_t at = bytes.size() / 2 + below(bytes.size() / 2);
            const std::int64_t lost = below(100), skipped = below(2) * lost;
            const std::vector<StreamPiece> pieces{{client, session.wire(client), 1},
                                                  {server, bytes.sub(0, at), 2, 0, lost},
                                                  {server, bytes.sub(at + skipped, bytes.size()), 3}};
            const TCPStream plain = vectorStream(pieces), holes = vectorStream(pieces, StreamLayout::inPieces);
            const auto expected = twin::decrypt(plain, server, *context, keyLog);
            const auto found = TLSStreamDecryption::decrypt(server, holes, *context, keyLog);
            ASSERT_EQ(found.has_value(), expected.has_value());
            EXPECT_TRUE(!found || found->data.whole() == expected->data.whole());
            opened += found ? found->data.size() : 0;
        }
        EXPECT_GT(opened, 0);
    }
}

TEST(TLSStreamDecryption, OpensAnewWhatItDoesNotHold)
{
    struct Case {
        const char* name;
        TLSSessionOptions options;
        bool isDamaged = false;  ///< a record does not open
    };
    const Case cases[] = {{"1.2, and records that do not open", tls12, true},
                          {"1.2, ChaCha20", with(tls12, [](auto& o) { o.suites = "ECDHE-RSA-CHACHA20-POLY1305"; })},
                          {"1.3, in records of 512 bytes", with(tls13, [](auto& o) { o.maximumFragment = 512; })},
                          {"1.3, and it ends early", tls13, true}};
    for (const auto& [name, options, isDamaged] : cases) {
        std::vector<TLSStep> steps{clientSends("go"), serverSends(patternBytes(9'000'000)), serverSends(patternBytes(3'000'000, 2))};
        if (options.version == 0x0304) steps.insert(steps.end() - 1, serverDoes(Action::sendTicket));
        const TLSSession session = runTLS(options, steps);
        std::vector<StreamPiece> pieces = streamPieces(session.flights, {.segmentSize = 60'000});
        if (isDamaged) std::prev(pieces.end(), 40)->bytes = patternBytes(std::prev(pieces.end(), 40)->bytes.size());
        const TCPStream stream = vectorStream(pieces, StreamLayout::inPieces);
        const TLSKeyLog keyLog(session.keyLog);
        const auto context = TLSStreamDecryption::context(stream);
        ASSERT_TRUE(context) << name;
        const auto whole = TLSStreamDecryption::decrypt(server, stream, *context, keyLog);
        const auto found = TLSStreamDecryption::decryptToReadInPieces(server, stream, *context, keyLog);
        ASSERT_TRUE(whole && found) << name;
        EXPECT_FALSE(found->data.lendsForLong()) << name;
        EXPECT_TRUE(found->data.whole() == whole->data.whole()) << name;
        for (std::int64_t at = found->data.size() - 1; at > 0; at -= 333'333) {
            EXPECT_TRUE(found->data.slice(at, 1'000) == whole->data.slice(at, 1'000)) << name << " at " << at;
            EXPECT_EQ(found->index.locate({at, at + 10}), whole->index.locate({at, at + 10})) << name;
        }
    }
}

}  // namespace
}  // namespace sealscope
