// SPDX-License-Identifier: Apache-2.0
// Connections that lose packets and have bytes turned, beside a twin that read them whole. An input is: which connection (1 byte),
// bytes a packet (1, in eights), and then for each packet what happens to it: 0 it is lost, 1 its byte at the next position is
// turned by the next value (two bytes more), anything else nothing. Where the input ends nothing happens any more.
#include "Sealscope/TLSDissector.h"
#include "fuzz/Require.h"
#include "harness/Hex.h"
#include "harness/VectorStream.h"
#include "interpreters/TLSReach/ReachConnection.h"
#include "interpreters/TLSReach/ReachWalk.h"

#include <array>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <utility>

using namespace sealscope;
using Direction = TCPSegment::Direction;

namespace {

using Records = std::map<std::int64_t, std::string>;  // content of what was under encryption, by where the body begins

/// What the hellos agree upon: version, suite, and whether the MAC stands behind the blocks.
using Agreed = std::tuple<std::uint16_t, std::uint16_t, bool>;

std::optional<Agreed> agreedIn(const TCPStream& stream, const std::shared_ptr<const ReachSecrets>& secrets)
{
    const ReachConnection connection(stream, secrets);
    const auto& parameters = connection.parameters();
    if (!parameters) return std::nullopt;
    return Agreed(parameters->version, parameters->cipherSuite, parameters->encryptsThenMACs);
}

/// The bytes where the client's hello lies.
std::string helloOf(const TCPStream& stream)
{
    std::array<std::uint8_t, 128> bytes{};
    stream.clientToServerData.copy(0, bytes);
    return {bytes.begin(), bytes.end()};
}

struct Connection {
    TLSSession session;
    std::shared_ptr<const ReachSecrets> secrets;
    std::optional<Agreed> agreed;
    Records records[2];
};

std::size_t indexOf(Direction direction) { return direction == Direction::clientToServer ? 0 : 1; }

struct Work {
    std::int64_t trialBytes = 0;
    std::int64_t mostTried = 0;
};

Records recordsOf(const TCPStream& stream, const std::shared_ptr<const ReachSecrets>& secrets, Direction direction, Work* work)
{
    Records records;
    ReachConnection connection(stream, secrets);
    ReachWalk walk(connection, direction);
    std::int64_t end = 0;
    while (walk.next()) {
        require(walk.record().recordOffset >= end, "a walk moves on");
        end = walk.record().endOffset();
        require(end <= stream.data(direction).size(), "and stays in the data");
        records[walk.record().bodyOffset] = walk.content().text();
    }
    if (work) *work = {walk.trialBytes(), walk.mostTried()};
    return records;
}

std::vector<Connection> connections()
{
    const std::vector<TLSStep> steps{
        clientSends("request"),         serverSends(patternBytes(3'000)), clientDoes(TLSStep::Action::updateKey),
        clientSends(patternBytes(700)), serverSends(patternBytes(200)),   serverSends("end")};
    const std::vector<TLSStep> plainSteps{clientSends("request"), serverSends(patternBytes(3'000)), clientSends(patternBytes(700)),
                                          serverSends(patternBytes(200)), serverSends("end")};
    std::vector<Connection> made;
    const auto add = [&](std::uint16_t version, const char* suite, const std::vector<TLSStep>& said) {
        Connection connection{.session = runTLS({.version = version, .suites = suite, .maximumFragment = 512}, said)};
        connection.secrets = ReachSecrets::of(connection.session.keyLog);
        connection.agreed = agreedIn(vectorStream(connection.session.flights), connection.secrets);
        for (const Direction direction : {Direction::clientToServer, Direction::serverToClient})
            connection.records[indexOf(direction)] =
                recordsOf(vectorStream(connection.session.flights), connection.secrets, direction, nullptr);
        made.push_back(std::move(connection));
    };
    add(0x0304, "TLS_AES_128_GCM_SHA256", steps);
    add(0x0304, "TLS_CHACHA20_POLY1305_SHA256", steps);
    add(0x0304, "TLS_AES_128_CCM_8_SHA256", steps);
    add(0x0303, "ECDHE-RSA-AES128-GCM-SHA256", plainSteps);
    add(0x0303, "ECDHE-RSA-AES128-SHA256", plainSteps);
    add(0x0301, "ECDHE-RSA-AES128-SHA", plainSteps);
    return made;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const std::vector<Connection> all = connections();
    const DataView input(data, static_cast<std::int64_t>(size));
    const Connection& connection = all[input.u8(0) % all.size()];
    std::vector<StreamPiece> pieces = streamPieces(connection.session.flights, {.segmentSize = 8 + 8 * std::int64_t{input.u8(1)}});
    bool isTouched = false;
    std::int64_t at = 2;
    for (StreamPiece& piece : pieces) {
        if (at >= input.size()) break;
        const std::uint8_t what = input.u8(at++);
        if (what == 0) {
            piece.packetId.reset();
            piece.lostBytes = std::exchange(piece.bytes, Data()).size();
            isTouched = true;
        } else if (what == 1) {
            std::vector<std::uint8_t> bytes(piece.bytes.view().begin(), piece.bytes.view().end());
            bytes[input.u8(at) % bytes.size()] ^= input.u8(at + 1);
            piece.bytes = Data(std::move(bytes));
            at += 2;
            isTouched = true;
        }
    }
    const TCPStream stream = vectorStream(pieces, StreamLayout::inPieces);
    // Where both hellos are damaged, only Finished shows that the peers use another suite, under which bytes mean something else.
    const std::optional<Agreed> agreed = agreedIn(stream, connection.secrets);
    const bool areHellosTrue =
        !agreed || agreed == connection.agreed || helloOf(stream) == helloOf(vectorStream(connection.session.flights));
    for (const Direction direction : {Direction::clientToServer, Direction::serverToClient}) {
        Work work;
        const Records found = recordsOf(stream, connection.secrets, direction, &work);
        const Records& truth = connection.records[indexOf(direction)];
        const bool isSuiteTrue = areHellosTrue || found.contains(truth.begin()->first);
        for (const auto& [body, plaintext] : found) {
            const auto sent = truth.find(body);
            require(!isSuiteTrue || (sent != truth.end() && sent->second == plaintext), "nothing comes out that was not sent");
        }
        require(isTouched || found == truth, "all comes out of what is all there");
        require(work.mostTried <= 64, "a record is tried 64 times at the most");
        require(work.trialBytes <= 64 * (stream.data(direction).size() + 20'000), "the work is bounded by the bytes");
    }
    return 0;
}
