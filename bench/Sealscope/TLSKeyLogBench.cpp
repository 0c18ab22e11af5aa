// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSKeyLog.h"
#include "Sealscope/TLSKeyLogStore.h"
#include "tests/Sealscope/WithKeyLog.h"

#include <benchmark/benchmark.h>
#include <cstring>
#include <malloc.h>
#include <random>

namespace sealscope {
namespace {

std::string randomHex(std::mt19937_64& random, int bytes)
{
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (int i = 0; i < 2 * bytes; ++i) text += digits[random() % 16];
    return text;
}

enum class Labels : std::uint8_t { TLS12, TLS13 };

/// A key log of `lines` lines, of TLS 1.2 or of TLS 1.3 connections.
std::string keyLogText(std::int64_t lines, Labels labelsOf)
{
    const bool isTLS13 = labelsOf == Labels::TLS13;
    static constexpr const char* labels[] = {"CLIENT_HANDSHAKE_TRAFFIC_SECRET", "SERVER_HANDSHAKE_TRAFFIC_SECRET",
                                             "CLIENT_TRAFFIC_SECRET_0", "SERVER_TRAFFIC_SECRET_0", "EXPORTER_SECRET"};
    std::mt19937_64 random(1);
    std::string text;
    std::string clientRandom;
    for (std::int64_t i = 0; i < lines; ++i) {
        if (!isTLS13 || i % 5 == 0) clientRandom = randomHex(random, 32);
        text += isTLS13 ? labels[i % 5] : "CLIENT_RANDOM";
        text += ' ' + clientRandom + ' ' + randomHex(random, isTLS13 ? 32 : 48) + '\n';
    }
    return text;
}

void parseKeyLog(benchmark::State& state)
{
    const std::string text = keyLogText(state.range(0), state.range(1) != 0 ? Labels::TLS13 : Labels::TLS12);
    double memory = 0;
    for (auto _ : state) {
        const std::size_t before = mallinfo2().uordblks + mallinfo2().hblkhd;
        const TLSKeyLog keyLog(text);
        if (keyLog.secrets.size() != state.range(0)) state.SkipWithError("lines are missing");
        memory = static_cast<double>(mallinfo2().uordblks + mallinfo2().hblkhd - before);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
    state.counters["memoryPerTextByte"] = memory / static_cast<double>(text.size());
}
BENCHMARK(parseKeyLog)
    ->ArgNames({"lines", "tls13"})
    ->Args({1'000, 0})
    ->Args({1'000'000, 0})
    ->Args({1'000'000, 1})
    ->Unit(benchmark::kMillisecond);

/// The floor: one pass over the text that finds its lines.
void findLines(benchmark::State& state)
{
    const std::string text = keyLogText(state.range(0), Labels::TLS12);
    for (auto _ : state) {
        std::int64_t lines = 0;
        for (std::size_t at = text.find('\n'); at != std::string::npos; at = text.find('\n', at + 1)) ++lines;
        benchmark::DoNotOptimize(lines);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}
BENCHMARK(findLines)->ArgName("lines")->Arg(1'000'000)->Unit(benchmark::kMillisecond);

/// Lines that are none: a megabyte of bytes of all values.
void parseGarbage(benchmark::State& state)
{
    std::mt19937_64 random(1);
    std::string text(1'000'000, '\0');
    for (char& c : text) c = static_cast<char>(random());
    for (auto _ : state) benchmark::DoNotOptimize(TLSKeyLog(text));
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}
BENCHMARK(parseGarbage);

void lookUp(benchmark::State& state)
{
    const std::string text = keyLogText(state.range(0), Labels::TLS12);
    const TLSKeyLog keyLog(text);
    std::vector<SecretBytes> clientRandoms;
    for (std::size_t at = 0; at < text.size(); at += 176) clientRandoms.push_back(*TLSKeyLog::decodeHex(text.substr(at + 14, 64)));
    std::size_t next = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(keyLog.secrets.find("CLIENT_RANDOM", viewOf(clientRandoms[next])));
        next = (next + 7'919) % clientRandoms.size();
    }
}
BENCHMARK(lookUp)->ArgName("lines")->Arg(1'000)->Arg(1'000'000);

/// A lookup through the store, which looks at the files each time.
void lookUpInStore(benchmark::State& state)
{
    const WithKeyLog keyLog("CLIENT_RANDOM aabb 0011");
    const Data clientRandom{0xAA, 0xBB};
    TLSKeyLogStore store;
    for (auto _ : state) benchmark::DoNotOptimize(store.secret("CLIENT_RANDOM", clientRandom));
}
BENCHMARK(lookUpInStore);

}  // namespace
}  // namespace sealscope
