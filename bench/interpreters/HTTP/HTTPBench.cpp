// SPDX-License-Identifier: Apache-2.0
#include "harness/Hex.h"
#include "harness/VectorStream.h"
#include "interpreters/HTTP/HTTP1Interpreter.h"
#include "interpreters/HTTP/HTTP2Interpreter.h"
#include "harness/HTTP2Writer.h"

#include <benchmark/benchmark.h>
#include <fmt/format.h>

namespace sealscope {
namespace {

using Direction = TCPSegment::Direction;

StreamPiece piece(Direction direction, std::string_view bytes, std::int64_t packet)
{
    return {direction, Data::fromText(bytes), packet, 1'000 + 1e-5 * static_cast<double>(packet)};
}

/// Small requests over one HTTP/2 connection, a packet for each and for each reply: the time for one.
void smallHTTP2Requests(benchmark::State& state)
{
    HTTP2Writer client, server;
    std::vector<StreamPiece> pieces{piece(Direction::clientToServer, HTTP2Writer::preface(), 1)};
    for (std::int64_t i = 0; i < state.range(0); ++i) {
        const auto stream = static_cast<std::uint32_t>(2 * i + 1);
        auto fields = HTTP2Writer::get(fmt::format("/items/{}", i));
        fields.insert(fields.end(), {{"user-agent", "bench/1.0"}, {"accept", "*/*"}});
        pieces.push_back(piece(Direction::clientToServer, client.headers(stream, fields, HTTP2Writer::endStream), 2 * i + 2));
        const std::string reply = server.headers(
            stream, {{":status", "200"}, {"server", "bench"}, {"content-type", "application/json"}, {"content-length", "16"}});
        pieces.push_back(
            piece(Direction::serverToClient, reply + HTTP2Writer::data(stream, "{\"number\": 12345", HTTP2Writer::endStream), 2 * i + 3));
    }
    const TCPStream stream = vectorStream(pieces, StreamLayout::inPieces);
    for (auto _ : state) benchmark::DoNotOptimize(HTTP2Interpreter::interpret(stream, {}));
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(smallHTTP2Requests)->ArgName("requests")->Arg(100'000)->Unit(benchmark::kMillisecond);

void smallHTTP1Requests(benchmark::State& state)
{
    std::vector<StreamPiece> pieces;
    for (std::int64_t i = 0; i < state.range(0); ++i) {
        pieces.push_back(piece(Direction::clientToServer,
                               fmt::format("GET /items/{} HTTP/1.1\r\nHost: example.org\r\nAccept: */*\r\n\r\n", i), 2 * i + 1));
        pieces.push_back(
            piece(Direction::serverToClient, "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 5\r\n\r\nhello", 2 * i + 2));
    }
    const TCPStream stream = vectorStream(pieces, StreamLayout::inPieces);
    for (auto _ : state) benchmark::DoNotOptimize(HTTP1Interpreter::interpret(stream, {}));
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(smallHTTP1Requests)->ArgName("requests")->Arg(100'000)->Unit(benchmark::kMillisecond);

/// A download of 1 GB in packets of 1448 bytes that all share their bytes: what listing it costs.
template <class Interpreter>
void download(benchmark::State& state, const std::string& asked, const std::string& head, const std::string& each)
{
    constexpr std::int64_t size = 1'000'000'000;
    const Data shared = Data::fromText(each);
    std::vector<StreamPiece> pieces{piece(Direction::clientToServer, asked, 1), piece(Direction::serverToClient, head, 2)};
    std::int64_t packet = 3;
    for (std::int64_t sent = 0; sent < size; sent += shared.size())
        for (std::int64_t offset = 0; offset < shared.size(); offset += 1'448)
            pieces.push_back({Direction::serverToClient, shared.sub(offset, 1'448), packet++, 1'000 + 1e-6 * static_cast<double>(packet)});
    const TCPStream stream = vectorStream(pieces, StreamLayout::inPieces);
    for (auto _ : state) benchmark::DoNotOptimize(Interpreter::interpret(stream, {}));
    state.SetBytesProcessed(state.iterations() * stream.serverToClientData.size());
}
void downloadOverHTTP1(benchmark::State& state)
{
    download<HTTP1Interpreter>(state, "GET /large HTTP/1.1\r\nHost: h\r\n\r\n", "HTTP/1.1 200 OK\r\nContent-Length: 2000000000\r\n\r\n",
                               std::string(14'480, 'x'));
}
BENCHMARK(downloadOverHTTP1)->Unit(benchmark::kMillisecond);
void downloadOverHTTP2(benchmark::State& state)
{
    HTTP2Writer client, server;
    download<HTTP2Interpreter>(state,
                               inOrder({HTTP2Writer::preface(), client.headers(1, HTTP2Writer::get("/large"), HTTP2Writer::endStream)}),
                               server.headers(1, {{":status", "200"}}), HTTP2Writer::data(1, std::string(16'384, 'x')));
}
BENCHMARK(downloadOverHTTP2)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace sealscope
