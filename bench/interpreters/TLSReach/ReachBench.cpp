// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSDirectionWalk.h"
#include "Sealscope/TLSStreamDecryption.h"
#include "harness/Hex.h"
#include "harness/TLSSession.h"
#include "harness/VectorStream.h"
#include "interpreters/TLSReach/ReachConnection.h"
#include "interpreters/TLSReach/ReachWalk.h"

#include <benchmark/benchmark.h>
#include <memory>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <random>
#include <utility>

namespace sealscope {
namespace {

constexpr auto server = TCPSegment::Direction::serverToClient;

struct Suite {
    const char* name;  ///< libssl's
    std::uint16_t version;
};
constexpr Suite suites[] = {
    {"TLS_AES_128_GCM_SHA256", 0x0304},
    {"TLS_CHACHA20_POLY1305_SHA256", 0x0304},
    {"ECDHE-RSA-AES128-GCM-SHA256", 0x0303},
    {"ECDHE-RSA-AES128-SHA", 0x0303},
};

struct Transfer {
    TLSSession session;
    std::int64_t plaintextBytes = 0;

    /// The connection packet by packet, of which so many in a hundred were lost.
    TCPStream stream(int lostOfHundred) const
    {
        std::vector<StreamPiece> pieces = streamPieces(session.flights);
        std::mt19937 random(1);
        for (std::size_t i = 20; i < pieces.size(); ++i) {
            if (static_cast<int>(random() % 100) >= lostOfHundred) continue;
            pieces[i].packetId.reset();
            pieces[i].lostBytes = std::exchange(pieces[i].bytes, Data()).size();
        }
        return vectorStream(pieces, StreamLayout::inPieces);
    }
};

/// One connection whose server sends sixteen megabytes.
Transfer transfer(const Suite& suite)
{
    TLSConversation conversation({.version = suite.version, .suites = suite.name, .usesEncryptThenMac = false});
    if (!conversation.handshake()) std::abort();
    std::vector<std::uint8_t> wire;
    const Data payload = patternBytes(16'777'216);
    conversation.seal(server, payload, wire);
    Transfer made{conversation.session(), payload.size()};
    made.session.flights.push_back({server, Data(std::move(wire)), {}});
    return made;
}

/// The floor: what the TLS plug-in's own walk takes for the same connection without losses.
void strictWalk(benchmark::State& state)
{
    const Transfer made = transfer(suites[state.range(0)]);
    const TCPStream stream = made.stream(0);
    const TLSKeyLog keyLog(made.session.keyLog);
    const auto context = TLSStreamDecryption::context(stream).value();
    for (auto _ : state) {
        auto walk = TLSStreamDecryption::directionWalk(stream.data(server), server, context, keyLog);
        if (!walk) return state.SkipWithError("is not opened");
        while (walk->nextApplicationData()) benchmark::DoNotOptimize(walk->plaintext());
    }
    state.SetBytesProcessed(state.iterations() * made.plaintextBytes);
    state.SetLabel(suites[state.range(0)].name);
}
BENCHMARK(strictWalk)->ArgName("suite")->DenseRange(0, 2)->Unit(benchmark::kMillisecond);

void reachWalk(benchmark::State& state)
{
    const Transfer made = transfer(suites[state.range(0)]);
    const TCPStream stream = made.stream(static_cast<int>(state.range(1)));
    const auto secrets = ReachSecrets::of(made.session.keyLog);
    std::int64_t bytes = 0;
    for (auto _ : state) {
        ReachConnection connection(stream, secrets);
        ReachWalk walk(connection, server);
        bytes = 0;
        while (walk.next())
            if (walk.isApplicationData()) bytes += walk.content().size();
    }
    // Of the capture as a whole, so that what takes twice as long for the same stream shows half the speed.
    state.SetBytesProcessed(state.iterations() * made.plaintextBytes);
    state.counters["opened"] = static_cast<double>(bytes) / static_cast<double>(made.plaintextBytes);
    state.SetLabel(suites[state.range(0)].name);
}
BENCHMARK(reachWalk)->ArgNames({"suite", "lostOfHundred"})->ArgsProduct({{0, 1, 2, 3}, {0, 1}})->Unit(benchmark::kMillisecond);

/// The floor of blocks and a MAC: both over one record's bytes, as `openssl speed` measures each.
void bareBlocksAndMAC(benchmark::State& state)
{
    constexpr int length = 16'384;
    const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> cipher(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
    const std::vector<std::uint8_t> key(16), iv(16);
    std::vector<std::uint8_t> buffer(length), target(length + 32);
    EVP_DecryptInit_ex2(cipher.get(), EVP_aes_128_cbc(), key.data(), iv.data(), nullptr);
    EVP_CIPHER_CTX_set_padding(cipher.get(), 0);
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> hash(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    EVP_DigestInit_ex2(hash.get(), EVP_sha1(), nullptr);
    for (auto _ : state) {
        int written = 0;
        benchmark::DoNotOptimize(EVP_DecryptUpdate(cipher.get(), target.data(), &written, buffer.data(), length));
        benchmark::DoNotOptimize(EVP_DigestUpdate(hash.get(), target.data(), length));
    }
    state.SetBytesProcessed(state.iterations() * length);
}
BENCHMARK(bareBlocksAndMAC);

}  // namespace
}  // namespace sealscope
