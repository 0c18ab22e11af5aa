// SPDX-License-Identifier: Apache-2.0
#include "harness/Certificates.h"
#include "harness/TLSRecordSealer.h"
#include "harness/TempDirectory.h"
#include "tests/hostile/Shape.h"

#include <fmt/format.h>

namespace sealscope::hostile {

namespace {

namespace fs = std::filesystem;

Bytes joined(Bytes first, const Bytes& second) { return put(first, second); }

/// So many connections of which each side says a little, with a file beside them.
Made connections(const fs::path& folder, int count, const std::function<void(Attack&, int)>& talk, std::string_view name,
                 const std::string& text)
{
    Attack attack;
    for (int i = 0; i < count; ++i) talk(attack, i);
    writeFile(folder / name, DataView(std::string_view(text)));
    return save(folder, attack);
}

/// Secrets of so many clients, the first being the one of the hellos.
std::string trafficSecrets(int clients)
{
    std::string text;
    for (int i = 0; i < clients; ++i)
        for (const char* side : {"CLIENT", "SERVER"})
            text += fmt::format("{}_TRAFFIC_SECRET_0 {} {:064x}\n", side, i == 0 ? times("07", 32) : fmt::format("{:064x}", i), i);
    return text;
}

Attack attackWith(const TLSSession& session)
{
    Attack attack;
    attack.open(0);
    for (const TLSFlight& flight : session.flights)
        attack.send(0, flight.direction == TCPSegment::Direction::serverToClient,
                    Bytes(flight.wire.view().begin(), flight.wire.view().end()));
    return attack;
}

/// A session, and behind it what one side says in records of one type.
Made saveSealed(const fs::path& folder, std::uint16_t version, std::uint8_t type, const Bytes& said, std::int64_t recordSize)
{
    constexpr TCPSegment::Direction server = TCPSegment::Direction::serverToClient;
    const TLSSession session = runTLS({.version = version, .certificates = {{}}, .usesTickets = false, .tickets = 0}, {serverSends("x")});
    writeFile(folder / "keys", DataView(std::string_view(session.keyLog)));
    Attack attack = attackWith(session);
    TLSRecordSealer sealer(session, server, version == 0x0304 ? 1 : 2);
    Bytes records;
    for (std::int64_t at = 0; at < std::ssize(said); at += recordSize) {
        const Data sealed = sealer.seal(type, DataView(said).sub(at, std::min(recordSize, std::ssize(said) - at)));
        records.insert(records.end(), sealed.view().begin(), sealed.view().end());
    }
    attack.send(0, true, records, 1'400);
    return save(folder, attack);
}

/// A server that changes its key behind every byte.
Made saveKeyUpdates(const fs::path& folder, int count)
{
    std::vector<TLSStep> steps;
    for (int i = 0; i < count; ++i) {
        steps.push_back(serverSends("x"));
        steps.push_back(serverDoes(TLSStep::Action::updateKey));
    }
    const TLSSession session = runTLS({.certificates = {{}}}, steps);
    writeFile(folder / "keys", DataView(std::string_view(session.keyLog)));
    Attack attack = attackWith(session);
    return save(folder, attack);
}

/// A server's hello of TLS 1.2, without a session and without extensions.
Bytes oldServerHello(std::uint16_t suite)
{
    Bytes body;
    put(put16(body, 0x0303), Bytes(33, 0));
    return record(22, handshake(2, put8(put16(body, suite), 0)));
}

}  // namespace

std::vector<Shape> reachShapes()
{
    std::vector<Shape> shapes;
    const std::vector<std::vector<std::string>> thatDecrypt = {{"streams"},
                                                               {"follow"},
                                                               {"exchanges"},
                                                               {"export", "har", "--force", "--output", "plain.har"},
                                                               {"decrypt", "--force", "--pcap", "plain.pcap"}};
    shapes.push_back({.name = "KeyExchangesWithAPrivateKey",
                      .make =
                          [](const auto& folder) {
                              const auto talk = [](Attack& attack, int i) {
                                  Bytes exchange{1, 0}, encrypted(252, 1);
                                  attack.send(i, true, oldServerHello(0x002F));
                                  put(put32(exchange, static_cast<std::uint64_t>(i)), encrypted);
                                  attack.send(i, false, joined(clientHello(), record(22, handshake(16, exchange))));
                                  for (const bool isServer : {false, true})
                                      attack.send(i, isServer, joined(record(20, {1}), record(22, Bytes(64, 1))));
                              };
                              const CertificateOptions rsa{.key = CertificateKey::rsa2048};
                              return connections(folder, 3'000, talk, "key.pem", CertificateChain::make(rsa)->privateKeyPEM);
                          },
                      .arguments = {"--private-key", "key.pem", "capture"},
                      .commands = thatDecrypt});
    const auto addToKeys = [&](std::string name, std::function<Made(const fs::path&)> make) {
        shapes.push_back({.name = std::move(name), .make = std::move(make), .keyLog = "keys", .commands = thatDecrypt});
    };
    addToKeys("SecretsOfOthersThanTheConnections", [](const fs::path& folder) {
        const auto talk = [](Attack& attack, int i) {
            for (const bool isServer : {false, true}) attack.send(i, isServer, record(23, Bytes(40, 1)));
        };
        return connections(folder, 2'000, talk, "keys", trafficSecrets(1'500));
    });
    addToKeys("RecordsThatTheirKeyDoesNotOpen", [](const fs::path& folder) {
        const auto talk = [](Attack& attack, int i) {
            attack.send(i, false, joined(clientHello(), repeated(record(23, Bytes(20, 1)), 64)));
            attack.send(i, true, joined(serverHello({}, 0x1303), repeated(record(23, Bytes(20, 1)), 64)));
        };
        return connections(folder, 1'000, talk, "keys", trafficSecrets(1));
    });
    addToKeys("RecordsOfASlowCipher", [](const fs::path& folder) {
        const auto talk = [](Attack& attack, int i) {
            const Bytes records = joined(record(20, {1}), repeated(record(23, Bytes(4'000, 0)), 16));
            attack.send(i, false, joined(clientHello(), records), 1'400);
            attack.send(i, true, joined(oldServerHello(0x000A), records), 1'400);
        };
        return connections(folder, 100, talk, "keys", "CLIENT_RANDOM " + times("07", 32) + " " + times("ab", 48) + "\n");
    });
    addToKeys("HelloRequestsBehindTickets", [](const fs::path& folder) {
        const auto talk = [](Attack& attack, int i) {
            attack.send(i, false, clientHello());
            const Bytes tickets = record(22, repeated(handshake(4, {1}), 990));
            attack.send(i, true, joined(joined(oldServerHello(0xC02F), tickets), repeated(record(22, handshake(0, {})), 600'000)), 1'400);
        };
        return connections(folder, 1, talk, "keys", "CLIENT_RANDOM " + times("07", 32) + " " + times("ab", 48) + "\n");
    });
    addToKeys("CertificatesThatAreCopied", [](const fs::path& folder) {
        const auto talk = [](Attack& attack, int i) {
            attack.send(i, false, clientHello());
            Bytes list, body;
            put(put24(list, 100), Bytes(100, '0'));
            const Bytes chain = repeated(list, 9'900);
            put(put24(body, chain.size()), chain);
            Bytes wire = oldServerHello(0xC02F);
            const Bytes messages = repeated(handshake(11, body), 60);
            for (std::size_t at = 0; at < messages.size(); at += 16'000) {
                const auto begin = messages.begin() + static_cast<std::ptrdiff_t>(at);
                put(wire, record(22, Bytes(begin, begin + std::min<std::ptrdiff_t>(16'000, messages.end() - begin))));
            }
            attack.send(i, true, wire, 1'400);
        };
        return connections(folder, 1, talk, "keys", "");
    });
    const auto addSealed = [&](std::string name, std::uint16_t version, std::function<Bytes()> said) {
        addToKeys(std::move(name), [=](const fs::path& folder) { return saveSealed(folder, version, 22, said(), 16'000); });
    };
    addSealed("HellosUnderEncryption", 0x0303, [] { return repeated(handshake(1, {}), 2'000'000); });
    addSealed("ExtensionsUnderEncryption", 0x0304, [] {
        Bytes body;
        return repeated(handshake(8, put(put16(body, 65'532), Bytes(65'532, 0))), 200);
    });
    addSealed("CertificatesUnderEncryption", 0x0304, [] {
        Bytes body{0};
        return repeated(handshake(11, put(put24(body, 1'000'000), Bytes(1'000'000, 0))), 10);
    });
    addToKeys("BytesInRecordsOfTheirOwn", [](const fs::path& folder) { return saveSealed(folder, 0x0304, 23, Bytes(300'000, 'x'), 1); });
    addToKeys("KeyUpdates", [](const fs::path& folder) { return saveKeyUpdates(folder, 30'000); });
    return shapes;
}

}  // namespace sealscope::hostile
