// SPDX-License-Identifier: Apache-2.0
#include "harness/TLSRecordSealer.h"
#include "harness/TempDirectory.h"
#include "platform/UTF8.h"
#include "tests/hostile/Shape.h"

namespace sealscope::hostile {

namespace {

Bytes bytesOf(const Data& data) { return {data.view().begin(), data.view().end()}; }

Bytes ciphertext(std::int64_t length) { return record(23, Bytes(static_cast<std::size_t>(length), 0x5A)); }

/// A certificate message of TLS 1.2.
Bytes certificates(const std::vector<Bytes>& chain)
{
    Bytes list, body;
    for (const Bytes& certificate : chain) put(put24(list, certificate.size()), certificate);
    put(put24(body, list.size()), list);
    return handshake(11, body);
}

/// In records of so many bytes.
Bytes inRecords(const Bytes& messages, std::size_t length)
{
    Bytes all;
    for (std::size_t offset = 0; offset < messages.size(); offset += length) {
        const auto begin = messages.begin() + static_cast<std::ptrdiff_t>(offset);
        put(all, record(22, Bytes(begin, begin + static_cast<std::ptrdiff_t>(std::min(length, messages.size() - offset)))));
    }
    return all;
}

/// An ASN.1 value inside `depth` sequences.
Bytes nestedSequences(int depth)
{
    Bytes value{5, 0};
    for (int i = 0; i < depth; ++i) {
        Bytes outer{0x30, 0x83};
        put(put24(outer, value.size()), value);
        value = std::move(outer);
    }
    return value;
}

}  // namespace

std::vector<Shape> recordShapes()
{
    std::vector<Shape> shapes;
    const auto add = [&](std::string name, std::function<void(Attack&)> make) -> Shape& {
        return shapes.emplace_back(Shape{.name = std::move(name), .make = [make](const auto& folder) {
                                             Attack attack;
                                             make(attack);
                                             return save(folder, attack);
                                         }});
    };
    /// Hellos, and behind them the server's bytes.
    const auto addAnswer = [&](std::string name, std::function<Bytes()> answer, std::int64_t segmentSize = 60'000) -> Shape& {
        return add(std::move(name), [=](Attack& attack) {
            attack.open(0);
            attack.send(0, false, clientHello(serverName("example.org")));
            attack.send(0, true, serverHello());
            attack.send(0, true, answer(), segmentSize);
        });
    };
    addAnswer("EmptyRecords", [] { return repeated(record(23, {}), 1'000'000); });
    addAnswer("EmptyHandshakeRecords", [] { return repeated(record(22, {}), 500'000); });
    addAnswer("EmptyAlerts", [] { return repeated(record(21, {}), 400'000); });
    addAnswer("Alerts", [] { return repeated(record(21, {1, 0}), 300'000); });
    addAnswer("ChangesOfCipher", [] { return repeated(record(20, {1}), 300'000); });
    addAnswer("RecordsOfNoKnownType", [] { return repeated(record(99, {1, 2, 3}), 200'000); });
    addAnswer("RecordsOfOneByte", [] { return repeated(ciphertext(1), 300'000); });
    addAnswer("RecordsOfTheGreatestLength", [] { return repeated(ciphertext(65'535), 100); });
    addAnswer("EmptyHandshakeMessages", [] { return inRecords(repeated(handshake(14, {}), 600'000), 16'000); });
    addAnswer("HandshakeMessageInPieces", [] {
        Bytes message = handshake(11, Bytes(3'000'000, 0));
        return inRecords(message, 20);
    });
    addAnswer("HandshakeMessageThatNeverEnds", [] {
        Bytes message{11, 0xFF, 0xFF, 0xFF};
        return inRecords(put(message, Bytes(4'000'000, 0)), 16'000);
    });
    addAnswer("Zeros", [] { return Bytes(8 << 20, 0); });
    addAnswer("TextThatIsNoRecord", [] { return repeated(Bytes{'G', 'E', 'T', ' ', '/', '\r', '\n'}, 500'000); });
    addAnswer("CertificatesWithoutBytes", [] { return inRecords(certificates(std::vector<Bytes>(200'000)), 16'000); });
    addAnswer("CertificatesOfSequencesInSequences",
              [] { return inRecords(certificates(std::vector<Bytes>(20, nestedSequences(3'000))), 16'000); });
    addAnswer("HellosOfTheServer", [] { return repeated(serverHello(extension(16, {0, 3, 2, 'h', '2'})), 30'000); });

    add("HelloOfOneProtocolListManyTimes", [](Attack& attack) {
        Bytes list;
        for (int i = 0; i < 3'000; ++i) put(put8(list, 9), "protocol9");
        Bytes counted;
        put(put16(counted, list.size()), list);
        Bytes extensions = extension(16, counted);
        put(extensions, repeated(extension(16, {}), 8'000));
        attack.open(0);
        for (int i = 0; i < 8; ++i) attack.send(0, false, clientHello(extensions), 65'000);
    });
    add("HelloOfEmptyExtensions", [](Attack& attack) {
        const Bytes hello = clientHello(repeated(extension(0xFFFF, {}), 15'000));
        for (int i = 0; i < 40; ++i) attack.open(i), attack.send(i, false, hello, 65'000);
    });
    add("HelloOfNamesAndNames", [](Attack& attack) {
        const Bytes hello = clientHello(repeated(serverName("a.example"), 3'500));
        for (int i = 0; i < 40; ++i) attack.open(i), attack.send(i, false, hello, 65'000);
    });
    add("HelloOfSuites", [](Attack& attack) {
        const Bytes hello = clientHello({}, 30'000);
        for (int i = 0; i < 40; ++i) attack.open(i), attack.send(i, false, hello, 65'000);
    });
    add("HellosThatCannotBeRead", [](Attack& attack) {
        attack.open(0);
        Bytes cut = record(22, {1, 0, 0, 200, 3, 3});
        attack.send(0, false, repeated(cut, 100'000));
    });
    add("HellosInOneConnection", [](Attack& attack) {
        attack.open(0);
        attack.send(0, false, repeated(clientHello(serverName("example.org")), 20'000));
    });
    add("ZerosInOnePacket", [](Attack& attack) {
        attack.open(0);
        Bytes bytes = clientHello();
        attack.segment(0, {.sequence = 1'001}, put(bytes, Bytes(8 << 20, 0)));
    });
    add("RecordsInOnePacket", [](Attack& attack) {
        attack.open(0);
        Bytes bytes = clientHello();
        put(bytes, repeated(record(22, handshake(14, {})), 60'000));
        attack.segment(0, {.sequence = 1'001}, put(bytes, repeated(record(21, {2, 40}), 100'000)));
    });
    add("RecordsThatAreCut", [](Attack& attack) {
        for (int i = 0; i < 20'000; ++i) attack.segment(i, {.sequence = 1'001}, {23, 3, 3, 0xFF, 0xFF, 1});
    });
    add("TextThatATerminalObeys", [](Attack& attack) {
        const std::string_view texts[] = {"\x1B]0;owned\x07",
                                          "\x1B[2J\x1B[1;1H",
                                          "\xC2\x9B"
                                          "31m",
                                          "\r\n\x08\x7F",
                                          "\xE2\x80\xAE"
                                          "moc.elpmaxe",
                                          "\xE2\x81\xA6hidden\xE2\x81\xA9",
                                          "\xFF\xFE\x1B[31m",
                                          "\xED\xA0\x80",
                                          std::string_view("\0\0", 2)};
        constexpr int utf8String = 12, teletexString = 20;  // tags (X.680 §8.4)
        int connection = 0;
        for (const std::string_view text : texts) {
            Bytes protocols, list;
            put(put8(list, text.size()), text);
            put(put16(protocols, list.size()), list);
            Bytes extensions = serverName(text);
            put(extensions, extension(16, protocols));
            attack.open(connection);
            attack.send(connection, false, clientHello(extensions));
            Bytes answer = serverHello();
            const int form = utf8::isWellFormed(DataView(text)) ? utf8String : teletexString;
            const Data certificate =
                makeCertificate({.subject = {{"CN", std::string(text), form}, {"O", std::string(text), form}}, .alternativeNames = {}});
            attack.send(connection, true, put(answer, inRecords(certificates({bytesOf(certificate)}), 16'000)));
            attack.send(connection++, true, record(21, put(*std::make_unique<Bytes>(Bytes{2}), text)));
        }
    });

    // Where there is a secret, every record is tried.
    const auto addSession = [&](std::string name, TLSSessionOptions options,
                                std::function<void(Attack&, const TLSSession&)> attackAfter) -> Shape& {
        Shape& shape = shapes.emplace_back();
        shape.name = std::move(name);
        shape.keyLog = "keys";
        shape.make = [options, attackAfter](const auto& folder) {
            const TLSSession session = runTLS(options, {clientSends("question"), serverSends("answer")});
            writeFile(folder / "keys", DataView(std::string_view(session.keyLog)));
            Attack attack;
            attack.open(0);
            for (const TLSFlight& flight : session.flights)
                attack.send(0, flight.direction == TCPSegment::Direction::serverToClient, bytesOf(flight.wire));
            attackAfter(attack, session);
            return save(folder, attack);
        };
        return shape;
    };
    addSession("RecordsThatDoNotOpen", {}, [](Attack& attack, const TLSSession&) {
        attack.send(0, true, repeated(ciphertext(40), 60'000));
    }).isWorkForLong = true;
    addSession("LongRecordsThatDoNotOpen", {},
               [](Attack& attack, const TLSSession&) { attack.send(0, true, repeated(ciphertext(16'400), 400)); });
    addSession("RecordsThatDoNotOpenBehindHoles", {}, [](Attack& attack, const TLSSession&) {
        for (int i = 0; i < 3'000; ++i) {
            attack.send(0, true, ciphertext(40));
            attack.skip(0, true, 60'000);
        }
    });
    addSession("EmptyRecordsThatOpen", {}, [](Attack& attack, const TLSSession& session) {
        TLSRecordSealer sealer(session, TCPSegment::Direction::clientToServer, 1);
        Bytes all;
        for (int i = 0; i < 100'000; ++i) put(all, bytesOf(sealer.seal(23, {})));
        attack.send(0, false, all);
    });
    addSession("RecordsOfOneByteThatOpen", {.version = 0x0303, .suites = "ECDHE-ECDSA-CHACHA20-POLY1305"},
               [](Attack& attack, const TLSSession& session) {
                   TLSRecordSealer sealer(session, TCPSegment::Direction::clientToServer, 2);
                   Bytes all;
                   const Bytes one{'x'};
                   for (int i = 0; i < 60'000; ++i) put(all, bytesOf(sealer.seal(23, DataView(one))));
                   attack.send(0, false, all);
               })
        .isWorkForLong = true;
    addSession("KeyUpdates", {}, [](Attack& attack, const TLSSession& session) {
        TLSRecordSealer sealer(session, TCPSegment::Direction::clientToServer, 1);
        Bytes all;
        const Bytes update = handshake(24, {0});
        for (int i = 0; i < 30'000; ++i) put(all, bytesOf(sealer.seal(22, DataView(update))));
        attack.send(0, false, all);
    });
    return shapes;
}

}  // namespace sealscope::hostile
