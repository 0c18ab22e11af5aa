// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSDecryptionProbe.h"
#include "Sealscope/TLSDirectionWalk.h"
#include "Sealscope/TLSStreamDecryption.h"
#include "app/session/Session.h"
#include "harness/CaptureFile.h"
#include "harness/Hex.h"
#include "harness/PacketPath.h"
#include "harness/TLSSession.h"
#include "harness/TempDirectory.h"
#include "harness/VectorStream.h"
#include "tests/Sealscope/WithKeyLog.h"

#include <benchmark/benchmark.h>
#include <memory>
#include <openssl/evp.h>

namespace sealscope {
namespace {

constexpr auto client = TCPSegment::Direction::clientToServer;
constexpr auto server = TCPSegment::Direction::serverToClient;

struct Suite {
    const char* name;  ///< libssl's
    std::uint16_t version;
    const char* cipher;  ///< libcrypto's name of what protects the records
};
constexpr Suite suites[] = {
    {"ECDHE-RSA-AES128-GCM-SHA256", 0x0303, "AES-128-GCM"},
    {"ECDHE-RSA-AES256-GCM-SHA384", 0x0303, "AES-256-GCM"},
    {"ECDHE-RSA-CHACHA20-POLY1305", 0x0303, "ChaCha20-Poly1305"},
    {"TLS_AES_128_GCM_SHA256", 0x0304, "AES-128-GCM"},
    {"TLS_AES_256_GCM_SHA384", 0x0304, "AES-256-GCM"},
    {"TLS_CHACHA20_POLY1305_SHA256", 0x0304, "ChaCha20-Poly1305"},
};

struct Transfer {
    TCPStream stream;
    TLSKeyLog keyLog;
    TLSStreamDecryption::Context context;
    std::int64_t plaintextBytes = 0;
};

/// The connection as a capture file has it: its bytes lie packet by packet.
TCPStream capturedStream(const std::vector<TLSFlight>& flights)
{
    const TempDirectory directory;
    const std::string file = directory.write("capture.pcap", pcapFile(packets(tcpSegments(flights))));
    return Session::open({.files = {file}}).value()->stream(0);
}

/// One connection whose server sends eight megabytes in records of `recordLength`.
Transfer transfer(const Suite& suite, std::int64_t recordLength, StreamLayout layout)
{
    const TLSSessionOptions options{.version = suite.version, .suites = suite.name, .maximumFragment = static_cast<int>(recordLength)};
    TLSConversation conversation(options);
    if (!conversation.handshake()) std::abort();
    std::vector<std::uint8_t> wire;
    const Data payload = patternBytes(recordLength * (8'388'608 / recordLength));
    conversation.seal(server, payload, wire);
    TLSSession session = conversation.session();
    session.flights.push_back({server, Data(std::move(wire)), {}});
    Transfer result{layout == StreamLayout::inPieces ? capturedStream(session.flights) : vectorStream(session.flights),
                    TLSKeyLog(session.keyLog),
                    {},
                    payload.size()};
    result.context = TLSStreamDecryption::context(result.stream).value();
    return result;
}

/// The floor: the cipher alone over one buffer, as `openssl speed -evp` measures it.
void bareCipher(benchmark::State& state)
{
    const Suite& suite = suites[state.range(0)];
    const auto length = static_cast<int>(state.range(1));
    const std::unique_ptr<EVP_CIPHER, decltype(&EVP_CIPHER_free)> cipher(EVP_CIPHER_fetch(nullptr, suite.cipher, nullptr), EVP_CIPHER_free);
    const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
    const std::vector<std::uint8_t> key(32), nonce(12);
    std::vector<std::uint8_t> buffer(static_cast<std::size_t>(length) + 64);
    EVP_EncryptInit_ex2(context.get(), cipher.get(), key.data(), nonce.data(), nullptr);
    for (auto _ : state) {
        int written = 0;
        benchmark::DoNotOptimize(EVP_EncryptUpdate(context.get(), buffer.data(), &written, buffer.data(), length));
    }
    state.SetBytesProcessed(state.iterations() * length);
    state.SetLabel(suite.cipher);
}

void openRecords(benchmark::State& state)
{
    const Suite& suite = suites[state.range(0)];
    const Transfer transferred = transfer(suite, state.range(1), state.range(2) != 0 ? StreamLayout::inPieces : StreamLayout::inOnePlace);
    std::int64_t bytes = 0;
    for (auto _ : state) {
        auto walk = TLSStreamDecryption::directionWalk(transferred.stream.data(server), server, transferred.context, transferred.keyLog);
        bytes = 0;
        while (walk->nextApplicationData()) bytes += walk->plaintext().size();
    }
    if (bytes != transferred.plaintextBytes) state.SkipWithError("not everything opened");
    state.SetBytesProcessed(state.iterations() * bytes);
    state.SetLabel(suite.name);
}

void decryptToMemory(benchmark::State& state)
{
    const Suite& suite = suites[state.range(0)];
    const Transfer transferred = transfer(suite, state.range(1), StreamLayout::inOnePlace);
    for (auto _ : state)
        benchmark::DoNotOptimize(TLSStreamDecryption::decrypt(server, transferred.stream, transferred.context, transferred.keyLog));
    state.SetBytesProcessed(state.iterations() * transferred.plaintextBytes);
    state.SetLabel(suite.name);
}

void suitesAndLengths(benchmark::internal::Benchmark* benchmark)
{
    benchmark->ArgNames({"suite", "recordLength"});
    for (int suite = 0; suite < static_cast<int>(std::size(suites)); ++suite)
        for (const int length : {1'350, 16'384}) benchmark->Args({suite, length});
}

BENCHMARK(bareCipher)->Apply(suitesAndLengths);
BENCHMARK(openRecords)->Apply([](auto* benchmark) {
    benchmark->ArgNames({"suite", "recordLength", "captured"});
    for (int suite = 0; suite < static_cast<int>(std::size(suites)); ++suite)
        for (const int length : {1'350, 16'384})
            for (const int captured : {0, 1}) benchmark->Args({suite, length, captured});
});
BENCHMARK(decryptToMemory)->Apply(suitesAndLengths);

/// What the verdict of a short connection costs, lookups and the look at the key log files included.
void probeShortConnection(benchmark::State& state)
{
    const Suite& suite = suites[state.range(0)];
    const std::vector<TLSStep> steps{clientSends(patternBytes(500)), serverSends(patternBytes(3'000)), serverDoes(TLSStep::Action::close)};
    const TLSSession session = runTLS({.version = suite.version, .suites = suite.name}, steps);
    const TCPStream stream = vectorStream(session.flights, {.isScattered = true});
    const WithKeyLog keyLog(session.keyLog);
    const TLSDecryptionProbe probe;
    if (!probe.probe(stream).isDecrypted()) state.SkipWithError("does not decrypt");
    for (auto _ : state) benchmark::DoNotOptimize(probe.probe(stream));
    state.SetLabel(suite.name);
}
BENCHMARK(probeShortConnection)->ArgName("suite")->DenseRange(0, std::size(suites) - 1);

/// The facts behind the verdict of the same connection, without and with the walk to the ends.
void reportShortConnection(benchmark::State& state)
{
    const TLSSession session = runTLS({}, {clientSends(patternBytes(500)), serverSends(patternBytes(3'000))});
    const TCPStream stream = vectorStream(session.flights, {.isScattered = true});
    const WithKeyLog keyLog(session.keyLog);
    for (auto _ : state) benchmark::DoNotOptimize(TLSDecryptionProbe().report(stream, state.range(0) != 0 ? ReportDepth::opened : ReportDepth::hellos));
}
BENCHMARK(reportShortConnection)->ArgName("walk")->DenseRange(0, 1);

}  // namespace
}  // namespace sealscope
