// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSDecryptionProbe.h"

#include "Sealscope/TLSDissector.h"
#include "harness/Hex.h"
#include "harness/TLSSession.h"
#include "harness/VectorStream.h"
#include "host/VELModels/VELStreamInterpreting.h"
#include "tests/Sealscope/WithKeyLog.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace sealscope {

std::ostream& operator<<(std::ostream& stream, const TLSDecryptionOutcome& outcome)
{
    static constexpr const char* names[] = {"noHandshake", "unsupportedVersion", "noKeyMaterial", "keyMismatch"};
    return stream << (outcome.failure ? names[static_cast<int>(*outcome.failure)] : "decrypted");
}

std::ostream& operator<<(std::ostream& stream, const TLSDirectionReport& report)
{
    return stream << fmt::format("stop {} at {}: {} of {} records, {} skipped, {} bytes{}", static_cast<int>(report.stop),
                                 report.stopOffset, report.openedRecords, report.protectedRecords, report.skippedRecords,
                                 report.plaintextBytes, report.alert ? ", alert " + report.alert->name : "");
}

namespace {

using Action = TLSStep::Action;
using Direction = TCPSegment::Direction;
using Hello = TLSDecryptionReport::Hello;
using Stop = TLSDirectionReport::Stop;
constexpr Direction client = Direction::clientToServer;
constexpr Direction server = Direction::serverToClient;
const TLSSessionOptions tls12{.version = 0x0303};
const TLSSessionOptions tls13{.version = 0x0304};

TLSSessionOptions with(TLSSessionOptions options, auto change)
{
    change(options);
    return options;
}

/// The key log without the lines of labels that begin so.
std::string without(std::string keyLog, std::string_view label)
{
    for (std::size_t at = 0; (at = keyLog.find(label, at)) != std::string::npos;) {
        if (at == 0 || keyLog[at - 1] == '\n')
            keyLog.erase(at, keyLog.find('\n', at) + 1 - at);
        else
            ++at;
    }
    return keyLog;
}

/// With every secret's first byte turned.
std::string withWrongSecrets(std::string keyLog)
{
    for (std::size_t at = keyLog.rfind(' '); at != std::string::npos; at = at == 0 ? std::string::npos : keyLog.rfind(' ', at - 1)) {
        const std::size_t lineStart = keyLog.rfind('\n', at) + 1;
        if (std::count(keyLog.begin() + static_cast<std::ptrdiff_t>(lineStart), keyLog.begin() + static_cast<std::ptrdiff_t>(at), ' ') == 1)
            keyLog[at + 1] = keyLog[at + 1] == '0' ? '1' : '0';
    }
    return keyLog;
}

TEST(TLSDecryptionProbe, GivesItsVerdict)
{
    const std::vector<TLSStep> steps{clientSends("request"), serverSends("reply")};
    const TLSSession v12 = runTLS(tls12, steps);
    const TLSSession v13 = runTLS(tls13, steps);
    const TLSSession other = runTLS(with(tls13, [](auto& o) { o.seed = 2; }), steps);
    const TLSSession cbc = runTLS(with(tls12, [](auto& o) { o.suites = "ECDHE-RSA-AES128-SHA256"; }), steps);
    const TLSSession v11 = runTLS(with(tls12, [](auto& o) { o.version = 0x0302; }), steps);
    const TLSSession silent = runTLS(tls13, {});
    const TLSSession clientOnly = runTLS(tls13, {clientSends("request")});

    constexpr auto decrypted = TLSDecryptionOutcome::decrypted();
    constexpr auto noHandshake = TLSDecryptionOutcome::notDecrypted(TLSDecryptionFailure::noHandshake);
    constexpr auto unsupportedVersion = TLSDecryptionOutcome::notDecrypted(TLSDecryptionFailure::unsupportedVersion);
    constexpr auto noKeyMaterial = TLSDecryptionOutcome::notDecrypted(TLSDecryptionFailure::noKeyMaterial);
    constexpr auto keyMismatch = TLSDecryptionOutcome::notDecrypted(TLSDecryptionFailure::keyMismatch);
    struct Case {
        const char* name;
        const TLSSession& session;
        std::string keyLog;
        TLSDecryptionOutcome expected;
    };
    const Case cases[] = {
        {"1.2", v12, v12.keyLog, decrypted},
        {"1.3", v13, v13.keyLog, decrypted},
        {"the client's data alone opens", clientOnly, clientOnly.keyLog, decrypted},
        {"the server's application secret is enough to try", v13, without(v13.keyLog, "CLIENT_"), decrypted},
        {"the client's too", v13, without(v13.keyLog, "SERVER_"), decrypted},
        {"1.1", v11, v11.keyLog, unsupportedVersion},
        {"no key log", v13, "", noKeyMaterial},
        {"another connection's", v13, other.keyLog, noKeyMaterial},
        {"handshake secrets are no key material", v13, without(without(v13.keyLog, "CLIENT_TRAFFIC"), "SERVER_TRAFFIC"), noKeyMaterial},
        {"wrong secrets in 1.2", v12, withWrongSecrets(v12.keyLog), keyMismatch},
        {"wrong secrets in 1.3", v13, withWrongSecrets(v13.keyLog), keyMismatch},
        {"no handshake secrets", v13, without(without(v13.keyLog, "CLIENT_HANDSHAKE"), "SERVER_HANDSHAKE"), keyMismatch},
        {"a suite that is not opened", cbc, cbc.keyLog, keyMismatch},
        {"a suite that is not opened, without secrets", cbc, "", noKeyMaterial},
        {"no application data", silent, silent.keyLog, keyMismatch},
    };
    for (const auto& [name, session, keyLog, expected] : cases) {
        const WithKeyLog secrets(keyLog);
        EXPECT_EQ(TLSDecryptionProbe().probe(vectorStream(session.flights)), expected) << name;
        EXPECT_EQ(TLSDecryptionProbe().report(vectorStream(session.flights), ReportDepth::opened)->outcome, expected)
            << name << ", reported";
    }
    const WithKeyLog secrets(v13.keyLog);
    EXPECT_EQ(TLSDecryptionProbe().probe(vectorStream({}, v13.wire(server))), noHandshake);
    EXPECT_EQ(TLSDecryptionProbe().probe(vectorStream(v13.wire(client), {})), noHandshake);
    EXPECT_EQ(TLSDecryptionProbe().probe(TCPStream{}), noHandshake);
}

/// Accepts plaintext that begins with "SHOUT" and makes two messages of it, and a pairing.
struct Shouting {
    static constexpr std::string_view streamDisplayName = "Shouting";
    static bool canInterpret(const TCPStream& stream) { return stream.clientToServerData.whole().view().text().starts_with("SHOUT"); }
    static StreamInterpretation interpret(const TCPStream& stream)
    {
        StreamInterpretation interpretation;
        const ByteRange range{0, stream.clientToServerData.size()};
        interpretation.messages.push_back({.direction = client,
                                           .kind = StreamMessageKind::request,
                                           .summary = "Shout",
                                           .detail = {{"Loud", "yes"}},
                                           .body = stream.clientToServerData.whole(),
                                           .bodyHint = StreamBodyHint::binary(),
                                           .byteRange = range,
                                           .packetIds = stream.locate(range, client).packetIds,
                                           .timestamp = stream.locate(range, client).timestamp.value_or(0),
                                           .filename = "shout.txt"});
        interpretation.messages.push_back({.direction = server, .kind = StreamMessageKind::reply, .summary = "Echo"});
        interpretation.pairings = std::vector{Pairing{0, 1, "Shout", PairingStatus::matched}};
        return interpretation;
    }
};

/// Accepts everything under the name of the plug-in's own interpreter, and a silent one that accepts "HUSH".
struct Impostor {
    static constexpr std::string_view streamDisplayName = "TLS";
    static bool canInterpret(const TCPStream&) { return true; }
    static StreamInterpretation interpret(const TCPStream&) { return {}; }
};
struct Silent {
    static constexpr std::string_view streamDisplayName = "Silent";
    static bool canInterpret(const TCPStream& stream) { return stream.clientToServerData.whole().view().text().starts_with("HUSH"); }
    static StreamInterpretation interpret(const TCPStream&) { return {}; }
};

TEST(TLSDecryptionProbe, HandsPlaintextToOtherInterpreters)
{
    auto& registry = VELStreamInterpreterRegistry::shared();
    const VELStreamInterpreting* const types[] = {VELStreamInterpreting::type<Impostor>(), VELStreamInterpreting::type<Silent>(),
                                                  VELStreamInterpreting::type<Shouting>()};
    for (const auto* type : types) registry.add(type);

    const TLSSession shout = runTLS(tls13, {clientSends("SHOUT"), serverSends("shout")});
    const TCPStream stream = vectorStream(shout.flights);
    {
        const WithKeyLog secrets(shout.keyLog);
        const auto view = TLSDecryptionProbe::decryptedInterpretation(stream);
        ASSERT_TRUE(view);
        ASSERT_EQ(view->messages.size(), 2u);
        const StreamMessage& first = view->messages.front();
        EXPECT_EQ(first.summary, "Shout");
        EXPECT_EQ(first.detail, (std::vector<DetailRow>{{"TLS", "decrypted"}, {"Loud", "yes"}}));
        EXPECT_TRUE(first.isDecrypted);
        EXPECT_EQ(first.kind, StreamMessageKind::request);
        EXPECT_EQ(first.body, Data::fromText("SHOUT"));
        EXPECT_EQ(first.bodyHint, StreamBodyHint::binary());
        EXPECT_EQ(first.byteRange, (ByteRange{0, 5}));
        EXPECT_EQ(first.filename, "shout.txt");
        // The shout is the last thing that the client sent.
        const std::int64_t end = stream.clientToServerData.size();
        EXPECT_EQ(first.packetIds, stream.locate({end - 1, end}, client).packetIds);
        EXPECT_EQ(first.timestamp, stream.locate({end - 1, end}, client).timestamp);
        EXPECT_EQ(view->messages.back().detail, (std::vector<DetailRow>{{"TLS", "decrypted"}}));
        EXPECT_EQ(view->pairings, (std::vector{Pairing{0, 1, "Shout", PairingStatus::matched}}));
    }
    EXPECT_FALSE(TLSDecryptionProbe::decryptedInterpretation(stream)) << "without secrets";

    const TLSSession hush = runTLS(tls12, {clientSends("HUSH")});
    {
        const WithKeyLog secrets(hush.keyLog);
        const auto view = TLSDecryptionProbe::decryptedInterpretation(vectorStream(hush.flights));
        ASSERT_TRUE(view) << "an interpretation without messages is one";
        EXPECT_TRUE(view->messages.empty());
        EXPECT_FALSE(view->pairings);
    }

    const TLSSession talk = runTLS(tls12, {clientSends(patternBytes(1'234))});
    {
        const WithKeyLog secrets(talk.keyLog);
        const auto view = TLSDecryptionProbe::decryptedInterpretation(vectorStream(talk.flights));
        ASSERT_TRUE(view) << "nobody accepts it, not even who is called TLS";
        ASSERT_EQ(view->messages.size(), 1u);
        const StreamMessage& message = view->messages.front();
        EXPECT_EQ(message.direction, client);
        EXPECT_EQ(message.kind, StreamMessageKind::data);
        EXPECT_EQ(message.summary, "Decrypted Application Data (1234 bytes)");
        EXPECT_EQ(message.detail, (std::vector<DetailRow>{{"TLS", "decrypted"}}));
        EXPECT_EQ(message.body, patternBytes(1'234));
        EXPECT_EQ(message.bodyHint, StreamBodyHint::text(TextEncoding::utf8));
        EXPECT_EQ(message.byteRange, std::nullopt);
        EXPECT_TRUE(message.packetIds.empty());
        EXPECT_EQ(message.timestamp, 0);
        EXPECT_EQ(message.filename, std::nullopt);
        EXPECT_TRUE(message.isDecrypted);
        EXPECT_FALSE(view->pairings);
    }
    for (const auto* type : types) registry.remove(type);
}

/// Keeps what it is told of a stream.
struct Curious {
    static constexpr std::string_view streamDisplayName = "Curious";
    static inline std::optional<std::string> protocol;
    static bool canInterpret(const TCPStream&, const StreamContext& context)
    {
        protocol = context.applicationProtocol;
        return false;
    }
    static StreamInterpretation interpret(const TCPStream&, const StreamContext&) { return {}; }
};

TEST(TLSDecryptionProbe, TellsWhichProtocolWasNegotiated)
{
    const auto* const curious = VELStreamInterpreting::type<Curious>();
    VELStreamInterpreterRegistry::shared().add(curious);
    for (const TLSSessionOptions& version : {tls12, tls13}) {
        for (const char* protocol : {"h2", ""}) {
            const TLSSession session = runTLS(with(version, [&](auto& o) {
                                                  if (*protocol) o.clientProtocols = o.serverProtocols = {protocol};
                                              }),
                                              {clientSends("x"), serverSends("y")});
            const WithKeyLog secrets(session.keyLog);
            TLSDecryptionProbe::decryptedInterpretation(vectorStream(session.flights));
            EXPECT_EQ(Curious::protocol.value_or(""), protocol) << version.version;
        }
    }
    VELStreamInterpreterRegistry::shared().remove(curious);
}

TEST(TLSDecryptionProbe, KeepsTheConnectionOfThePlaintextStream)
{
    TCPStream captured = vectorStream(patternBytes(10), patternBytes(20));
    captured.clientISN = 5;
    captured.serverISN = 6;
    captured.startTime = 1.5;
    captured.endTime = 2.5;
    captured.key.number = 9;
    const TLSStreamDecryption::DirectionPlain plain{Data::fromText("hello"), ByteToSegmentIndex({{{0, 5}, {3, 4}, 7.0}})};
    const TCPStream stream = TLSDecryptionProbe::decryptedStream(captured, std::nullopt, plain);
    EXPECT_EQ(stream.key, captured.key);
    EXPECT_EQ(stream.segments.size(), captured.segments.size());
    EXPECT_EQ(stream.clientISN, 5u);
    EXPECT_EQ(stream.serverISN, 6u);
    EXPECT_EQ(stream.startTime, 1.5);
    EXPECT_EQ(stream.endTime, 2.5);
    EXPECT_TRUE(stream.clientToServerData.isEmpty());
    EXPECT_EQ(stream.locate({0, 10}, client), ByteLocation{});
    EXPECT_EQ(stream.serverToClientData.whole(), Data::fromText("hello"));
    EXPECT_EQ(stream.locate({2, 3}, server), (ByteLocation{7.0, {3, 4}}));
    EXPECT_FALSE(TLSDecryptionProbe::fallbackMessages(std::nullopt, std::nullopt));
    const auto both = TLSDecryptionProbe::fallbackMessages(plain, plain);
    ASSERT_TRUE(both && both->size() == 2);
    EXPECT_EQ(both->front().direction, client);
    EXPECT_EQ(both->back().direction, server);
}

TEST(TLSDecryptionProbe, ReadsPlaintextRecordByRecord)
{
    const TLSSession session =
        runTLS(tls13, {clientSends("one"), serverSends("two"), clientSends("three"), clientDoes(Action::updateKey), clientSends("four")});
    const WithKeyLog secrets(session.keyLog);
    const TLSDecryptionProbe probe;
    std::unique_ptr<PlaintextReader> reader;
    std::int64_t end = 0;
    {
        // The reader keeps what it needs of the stream.
        const TCPStream stream = vectorStream(session.flights, {.segmentSize = 7, .isScattered = true});
        reader = probe.plaintextReader(stream, client);
        ASSERT_TRUE(reader);
    }
    std::vector<std::string> texts;
    while (const auto record = reader->next()) {
        texts.emplace_back(record->plaintext.text());
        EXPECT_GE(record->body.lower, end + 5);
        EXPECT_EQ(record->body.size(), record->plaintext.size() + 17);
        end = record->body.upper;
    }
    EXPECT_EQ(texts, (std::vector<std::string>{"one", "three"}));
    EXPECT_FALSE(reader->next());
    EXPECT_EQ(reader->report(), probe.report(vectorStream(session.flights), ReportDepth::opened)->client) << "and knows how far it came";
    EXPECT_EQ(reader->report()->stop, TLSDirectionReport::Stop::keyUpdate);

    // Opened where the caller wants it, one behind another.
    std::vector<std::uint8_t> room(8 + PlaintextReader::largestRecord);
    reader = probe.plaintextReader(vectorStream(session.flights, {.segmentSize = 7, .isScattered = true}), client);
    for (std::size_t size = 0; const char* text : {"one", "three"}) {
        const auto record = reader->next(std::span(room).subspan(size));
        ASSERT_TRUE(record);
        EXPECT_EQ(record->plaintext.data(), room.data() + size);
        EXPECT_EQ(record->plaintext.text(), text);
        size += static_cast<std::size_t>(record->plaintext.size());
    }
    EXPECT_EQ(DataView(room).sub(0, 8).text(), "onethree");

    EXPECT_EQ(probe.plaintextReader(TCPStream{}, client), nullptr);
}

TEST(TLSDecryptionProbe, TellsWhatTheKeyLogHolds)
{
    const TLSSession session = runTLS(tls13, {clientSends("c")});
    const TCPStream stream = vectorStream(session.flights);
    const Data clientRandom = *TLSStreamDecryption::firstClientRandom(stream.clientToServerData);
    const TLSDecryptionProbe probe;
    const WithKeyLog secrets("WHATEVER aa bb\nCLIENT_RANDOM cc dd\nCLIENT_RANDOM ee ff\n" + session.keyLog);
    const TLSKeyMaterialReport material = probe.keyMaterial();
    EXPECT_EQ(material.clientRandoms, 4);
    ASSERT_FALSE(material.labels.empty());
    EXPECT_EQ(material.labels.front(), (std::pair<std::string, std::int64_t>("CLIENT_RANDOM", 2)));
    std::int64_t known = 0;
    for (const auto& [label, count] : material.labels) known += count;
    EXPECT_EQ(material.secrets, known + 1);
    EXPECT_TRUE(probe.hasSecrets(clientRandom));
    EXPECT_TRUE(probe.hasSecrets(hex("cc")));
    EXPECT_FALSE(probe.hasSecrets(hex("aa"))) << "no secret that anybody knows";
    EXPECT_FALSE(probe.hasSecrets(hex("dd")));

    // The lines of the connection, and of no other, are a key log that opens it.
    const SecretText lines = probe.keyLogLines(stream);
    EXPECT_EQ(probe.keyLogLines(TCPStream{}), "");
    EXPECT_EQ(std::ranges::count(lines, '\n'), std::ranges::count(session.keyLog, '\n'));
    const WithKeyLog own(lines);
    EXPECT_TRUE(probe.probe(stream).isDecrypted());
    EXPECT_EQ(probe.keyMaterial().clientRandoms, 1);
    EXPECT_EQ(probe.countKeyLogLines(lines), (TLSKeyLogLineCount{material.secrets - 3, material.secrets - 3, 0}));
}

TLSDecryptionReport reportOf(const TCPStream& stream, const std::string& keyLog)
{
    const WithKeyLog secrets(keyLog);
    return *TLSDecryptionProbe().report(stream, ReportDepth::opened);
}

TEST(TLSDecryptionProbe, ReportsTheConnection)
{
    const TLSSession v12 = runTLS(with(tls12, [](auto& o) { o.suites = "ECDHE-ECDSA-AES256-GCM-SHA384"; }), {serverSends("s")});
    const auto report12 = reportOf(vectorStream(v12.flights), v12.keyLog);
    EXPECT_EQ(report12.clientHello, Hello::found);
    EXPECT_EQ(report12.serverHello, Hello::found);
    EXPECT_EQ(report12.serverName, "example.org");
    EXPECT_EQ(report12.version, 0x0303);
    EXPECT_EQ(report12.versionName, "TLS 1.2");
    EXPECT_EQ(report12.cipherSuite, 0xC02C);
    EXPECT_EQ(report12.cipherSuiteName, "TLS_ECDHE_ECDSA_WITH_AES_256_GCM_SHA384");
    EXPECT_TRUE(report12.isSupportedVersion);
    EXPECT_TRUE(report12.isSupportedSuite);
    EXPECT_EQ(report12.secrets, (std::vector<TLSSecretReport>{{"CLIENT_RANDOM", 48}}));
    EXPECT_TRUE(report12.otherLabels.empty());

    const TLSSession v13 = runTLS(tls13, {serverSends("s")});
    const TCPStream stream13 = vectorStream(v13.flights);
    const std::string clientRandom = hexText(*TLSStreamDecryption::firstClientRandom(stream13.clientToServerData));
    const auto report13 = reportOf(stream13, "CLIENT_RANDOM " + clientRandom + " 0102\nSERVER_TRAFFIC_SECRET_0 " + clientRandom + " 03\n");
    EXPECT_EQ(report13.versionName, "TLS 1.3");
    EXPECT_EQ(report13.secrets, (std::vector<TLSSecretReport>{{"CLIENT_HANDSHAKE_TRAFFIC_SECRET", std::nullopt},
                                                              {"SERVER_HANDSHAKE_TRAFFIC_SECRET", std::nullopt},
                                                              {"CLIENT_TRAFFIC_SECRET_0", std::nullopt},
                                                              {"SERVER_TRAFFIC_SECRET_0", 1}}));
    EXPECT_EQ(report13.otherLabels, (std::vector<std::string>{"CLIENT_RANDOM"}));

    const TLSSession cbc = runTLS(with(tls12, [](auto& o) { o.suites = "ECDHE-RSA-AES128-SHA256"; }), {serverSends("s")});
    const auto reportCBC = reportOf(vectorStream(cbc.flights), cbc.keyLog);
    EXPECT_EQ(reportCBC.cipherSuiteName, "TLS_ECDHE_RSA_WITH_AES_128_CBC_SHA256");
    EXPECT_TRUE(reportCBC.isSupportedVersion);
    EXPECT_FALSE(reportCBC.isSupportedSuite);
    EXPECT_EQ(reportCBC.server.stop, Stop::notAttempted);

    const TLSSession v10 = runTLS(with(tls12, [](auto& o) { o.version = 0x0301; }), {serverSends("s")});
    const auto report10 = reportOf(vectorStream(v10.flights), v10.keyLog);
    EXPECT_EQ(report10.versionName, "TLS 1.0");
    EXPECT_FALSE(report10.isSupportedVersion);
}

TEST(TLSDecryptionProbe, ReportsWhatIsWrongWithTheHellos)
{
    const TLSSession session = runTLS(tls12, {clientSends("c"), serverSends("s")});
    const TLSSession spread = runTLS(with(tls12, [](auto& o) { o.handshakeRecordLength = 40; }), {clientSends("c"), serverSends("s")});
    const TLSSession refused =
        runTLS(with(tls12, [](auto& o) { o.suites = "ECDHE-RSA-AES128-GCM-SHA256", o.serverSuites = "ECDHE-RSA-AES256-GCM-SHA384"; }), {});
    ASSERT_FALSE(refused.isComplete);
    const Data clientBytes = session.wire(client);
    const Data serverBytes = session.wire(server);
    const auto lost = [&](std::int64_t from, std::int64_t to) {
        std::vector<StreamPiece> pieces{{client, clientBytes.sub(0, from), 1, 0, to - from},
                                        {client, clientBytes.sub(to, clientBytes.size()), 2},
                                        {server, serverBytes, 3}};
        return vectorStream(pieces, StreamLayout::inPieces);
    };
    struct Case {
        const char* name;
        TCPStream stream;
        Hello clientHello, serverHello;
        std::string serverAlert;
    };
    const Case cases[] = {
        {"nothing", TCPStream{}, Hello::missing, Hello::missing, ""},
        {"whole", vectorStream(session.flights), Hello::found, Hello::found, ""},
        {"the capture begins later", vectorStream(clientBytes.sub(600, 10'000), serverBytes.sub(600, 10'000)), Hello::missing,
         Hello::missing, ""},
        {"spread over records", vectorStream(spread.flights), Hello::cutByRecords, Hello::cutByRecords, ""},
        {"the data end in it", vectorStream(clientBytes.sub(0, 100), serverBytes.sub(0, 50)), Hello::cutByData, Hello::cutByData, ""},
        {"bytes of its random are lost", lost(42, 44), Hello::cutByData, Hello::found, ""},
        {"refused", vectorStream(refused.flights), Hello::found, Hello::missing, "handshake_failure"},
    };
    for (const auto& [name, stream, clientHello, serverHello, serverAlert] : cases) {
        const auto report = reportOf(stream, session.keyLog);
        EXPECT_EQ(report.clientHello, clientHello) << name;
        EXPECT_EQ(report.serverHello, serverHello) << name;
        EXPECT_EQ(report.server.alert ? report.server.alert->name : "", serverAlert) << name;
    }
}

/// A report as counts; where it stops is compared apart from it.
TLSDirectionReport counted(Stop stop, std::int64_t protectedRecords, std::int64_t opened, std::int64_t skipped, std::int64_t bytes)
{
    return {.stop = stop,
            .protectedRecords = protectedRecords,
            .openedRecords = opened,
            .skippedRecords = skipped,
            .plaintextBytes = bytes,
            .alert = {}};
}

/// A session's stream with some of the bytes that the server sent lost: how many before the end, to how many.
TCPStream withLostServerBytes(const TLSSession& session, std::int64_t fromEnd, std::int64_t toEnd)
{
    const Data bytes = session.wire(server);
    const std::int64_t from = bytes.size() - fromEnd;
    const std::int64_t to = bytes.size() - toEnd;
    return vectorStream(std::vector<StreamPiece>{{client, session.wire(client), 1},
                                                 {server, bytes.sub(0, from), 2, 0, to - from},
                                                 {server, bytes.sub(to, toEnd), 3}},
                        StreamLayout::inPieces);
}

TEST(TLSDecryptionProbe, ReportsHowFarTheServersDirectionOpens)
{
    const auto withoutTickets = [](auto& o) { o.tickets = 0, o.usesTickets = false; };
    const std::vector<TLSStep> steps{serverSends(patternBytes(1'000)), serverSends(patternBytes(1'000)), serverSends(patternBytes(1'000))};
    const TLSSession v12 = runTLS(with(tls12, withoutTickets), steps);
    const TLSSession v13 = runTLS(with(tls13, withoutTickets), steps);
    const std::int64_t record12 = 5 + 8 + 1'000 + 16;
    const std::int64_t record13 = 5 + 1'000 + 1 + 16;
    const std::int64_t end12 = v12.wire(server).size();
    const std::int64_t end13 = v13.wire(server).size();
    const auto records13 = TLSDissector::parseRecords(v13.wire(server));
    const std::int64_t firstProtected13 = std::ranges::find(records13, 23, &TLSRecord::contentType)->recordOffset;
    // libssl's server sends Encrypted Extensions, Certificate, Certificate Verify and Finished in a record each.
    const std::int64_t handshake13 = 4;

    const TLSSession updated = runTLS(with(tls13, withoutTickets), {serverSends("s1"), serverDoes(Action::updateKey), serverSends("s2")});
    const TLSSession renegotiated =
        runTLS(with(tls12, withoutTickets), {serverSends("s1"), clientDoes(Action::renegotiate), serverSends("s2")});
    const TLSSession silent12 = runTLS(with(tls12, withoutTickets), {clientSends("c")});
    const auto cut = [](const TLSSession& session, std::int64_t bytes) {
        return vectorStream(session.wire(client), session.wire(server).sub(0, session.wire(server).size() - bytes));
    };
    const auto extended = [](const TLSSession& session, const Data& bytes) {
        return vectorStream(session.wire(client), joined({session.wire(server), bytes}));
    };
    const auto noHandshakeSecrets = without(without(v13.keyLog, "CLIENT_HANDSHAKE"), "SERVER_HANDSHAKE");
    const std::string shortSecret = [&] {
        const std::size_t at = v13.keyLog.find("SERVER_TRAFFIC_SECRET_0");
        return noHandshakeSecrets + v13.keyLog.substr(at, v13.keyLog.find('\n', at) - at - 2) + "\n";
    }();

    struct Case {
        const char* name;
        TCPStream stream;
        std::string keyLog;
        TLSDirectionReport expected;
        std::int64_t stopOffset;
    };
    const Case cases[] = {
        {"all of 1.2", vectorStream(v12.flights), v12.keyLog, counted(Stop::endOfData, 3, 3, 0, 3'000), end12},
        {"all of 1.3", vectorStream(v13.flights), v13.keyLog, counted(Stop::endOfData, 7, 7, 0, 3'000), end13},
        {"no data", vectorStream(silent12.flights), silent12.keyLog, counted(Stop::nothingProtected, 0, 0, 0, 0),
         silent12.wire(server).size()},
        {"no secret", vectorStream(v13.flights), without(v13.keyLog, "SERVER_TRAFFIC"), counted(Stop::noSecret, 7, 0, 0, 0), 0},
        {"no handshake secret", vectorStream(v13.flights), noHandshakeSecrets, counted(Stop::noHandshakeSecret, 7, 0, 0, 0),
         firstProtected13},
        {"a secret of 31 bytes", vectorStream(v13.flights), shortSecret, counted(Stop::badSecret, 7, 0, 0, 0), firstProtected13},
        {"a master secret of 47 bytes", vectorStream(v12.flights), v12.keyLog.substr(0, v12.keyLog.size() - 3),
         counted(Stop::badSecret, 3, 0, 0, 0), 0},
        {"wrong secrets in 1.2", vectorStream(v12.flights), withWrongSecrets(v12.keyLog), counted(Stop::doesNotOpen, 3, 0, 0, 0),
         end12 - 3 * record12},
        {"wrong application secret in 1.3", vectorStream(v13.flights),
         without(v13.keyLog, "SERVER_TRAFFIC") + withWrongSecrets(without(v13.keyLog, "SERVER_HANDSHAKE")),
         counted(Stop::doesNotOpen, 7, handshake13, 0, 0), end13 - 3 * record13},
        {"the capture ends within a record", cut(v12, 1), v12.keyLog, counted(Stop::cutRecord, 2, 2, 0, 2'000), end12 - record12},
        {"the capture ends within a header", cut(v13, record13 - 4), v13.keyLog, counted(Stop::cutRecord, 6, 6, 0, 2'000),
         end13 - record13},
        {"bytes lost within the second record of 1.2", withLostServerBytes(v12, record12 + 500, record12 + 400), v12.keyLog,
         counted(Stop::endOfData, 3, 2, 1, 2'000), end12},
        {"bytes lost within the last record of 1.2", withLostServerBytes(v12, 500, 400), v12.keyLog,
         counted(Stop::lostBytes, 3, 2, 0, 2'000), end12 - record12},
        {"bytes lost within the second record of 1.3", withLostServerBytes(v13, record13 + 500, record13 + 400), v13.keyLog,
         counted(Stop::lostBytes, 7, 5, 0, 1'000), end13 - 2 * record13},
        {"a record lost with its header", withLostServerBytes(v13, 2 * record13, record13), v13.keyLog,
         counted(Stop::lostBytes, 5, 5, 0, 1'000), end13 - 2 * record13},
        {"what follows is no record", extended(v13, hex("48 54 54 50 2F 31 2E 31")), v13.keyLog, counted(Stop::noRecord, 7, 7, 0, 3'000),
         end13},
        {"a record that was touched", extended(v13, joined({hex("17 0303 0020"), patternBytes(32)})), v13.keyLog,
         counted(Stop::doesNotOpen, 8, 7, 0, 3'000), end13},
        {"a key update", vectorStream(updated.flights), updated.keyLog, counted(Stop::keyUpdate, 7, 6, 0, 2),
         updated.wire(server).size() - 24},
        {"a renegotiation", vectorStream(renegotiated.flights), renegotiated.keyLog, counted(Stop::renegotiation, 2, 1, 0, 2),
         renegotiated.wire(server).size() - 31},
    };
    for (const auto& [name, stream, keyLog, expected, stopOffset] : cases) {
        TLSDirectionReport report = reportOf(stream, keyLog).server;
        EXPECT_EQ(report.stopOffset, stopOffset) << name;
        report.stopOffset = 0;
        EXPECT_EQ(report, expected) << name;
    }
}

TEST(TLSDecryptionProbe, ReportsEarlyData)
{
    TLSSessionOptions options = with(tls13, [](auto& o) { o.maximumEarlyData = 16'384; });
    options.resume = runTLS(options, {serverSends("ticket, please"), clientSends("thanks")}).resumption;
    options.earlyData = Data::fromText("early ");
    const TLSSession session = runTLS(options, {clientSends("later"), serverSends("answer")});
    ASSERT_TRUE(session.acceptedEarlyData);
    const TCPStream stream = vectorStream(session.flights);
    for (const std::string& keyLog :
         {session.keyLog, without(session.keyLog, "CLIENT_EARLY"), without(session.keyLog, "CLIENT_HANDSHAKE")}) {
        const auto report = reportOf(stream, keyLog);
        EXPECT_EQ(report.client.stop, Stop::earlyData) << report.client;
        EXPECT_EQ(report.client.openedRecords, 0);
        EXPECT_EQ(report.server.stop, Stop::endOfData);
    }
    // Without either secret the first record may be anything.
    const auto unsure = reportOf(stream, without(without(session.keyLog, "CLIENT_EARLY"), "CLIENT_HANDSHAKE"));
    EXPECT_EQ(unsure.client.stop, Stop::noHandshakeSecret);
}

TEST(TLSDecryptionProbe, ReportsWithoutAWalkWhatTheHellosSay)
{
    const TLSSession session = runTLS(tls13, {serverSends("s")});
    const WithKeyLog secrets(session.keyLog);
    const auto report = TLSDecryptionProbe().report(vectorStream(session.flights), ReportDepth::hellos);
    ASSERT_TRUE(report);
    EXPECT_EQ(report->versionName, "TLS 1.3");
    EXPECT_EQ(report->client, TLSDirectionReport{});
    EXPECT_EQ(report->server, TLSDirectionReport{});
}

}  // namespace
}  // namespace sealscope
