// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSStreamParser.h"
#include "harness/Hex.h"
#include "harness/TLSSession.h"
#include "harness/VectorStream.h"

#include <benchmark/benchmark.h>
#include <cstdlib>

namespace sealscope {
namespace {

constexpr auto server = TCPSegment::Direction::serverToClient;

/// A connection whose server sends `length` bytes, its data packet by packet as in a capture.
TCPStream download(std::uint16_t version, std::int64_t length)
{
    TLSConversation conversation(TLSSessionOptions{.version = version});
    if (!conversation.handshake()) std::abort();
    std::vector<std::uint8_t> wire;
    conversation.seal(server, patternBytes(length), wire);
    TLSSession session = conversation.session();
    session.flights.push_back({server, Data(std::move(wire)), {}});
    return vectorStream(session.flights, {.isScattered = true});
}

/// One long transfer: record headers are all that is read of it, and its packets all that is listed.
void interpretLargeStream(benchmark::State& state)
{
    const TCPStream stream = download(0x0304, state.range(0));
    for (auto _ : state) benchmark::DoNotOptimize(TLSStreamParser::interpretation(stream));
    state.SetBytesProcessed(state.iterations() * stream.serverToClientData.size());
}
BENCHMARK(interpretLargeStream)->ArgName("bytes")->Arg(1 << 20)->Arg(1 << 24)->Unit(benchmark::kMicrosecond);

/// One of many short connections: hellos, in TLS 1.2 the certificate too, a little application data.
void interpretShortConnection(benchmark::State& state)
{
    const TCPStream stream = download(static_cast<std::uint16_t>(state.range(0)), 3'000);
    for (auto _ : state) benchmark::DoNotOptimize(TLSStreamParser::interpretation(stream));
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(interpretShortConnection)->ArgName("version")->Arg(0x0303)->Arg(0x0304)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace sealscope
