// SPDX-License-Identifier: Apache-2.0
// What a user waits for in a list of many streams. Judged by a pass over the same records.
#include "app/desktop/models/StreamTable.h"

#include <benchmark/benchmark.h>
#include <string>

namespace {

using namespace sealscope;
using namespace sealscope::desktop;
using Column = StreamTable::Column;

const StreamTable& tableOf(std::int64_t count)
{
    static StreamTable table;
    if (table.size() == count) return table;
    table.reset(count);
    std::uint64_t random = 1;
    for (std::int64_t number = 0; number < count; ++number) {
        random = random * 6'364'136'223'846'793'005U + 1'442'695'040'888'963'407U;
        StreamSummary summary{.number = number, .clientBytes = static_cast<std::int64_t>(random >> 44), .startTime = static_cast<double>(number)};
        for (int i = 0; i < 4; ++i) summary.client.address[static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(i < 2 ? 10 : random >> (20 + 8 * i));
        summary.client.port = static_cast<std::uint16_t>(random >> 30);
        summary.server = {.address = {192, 0, 2, static_cast<std::uint8_t>(random >> 60)}, .port = 443};
        table.measure(summary);
        const bool isOpen = random >> 63;
        table.judge({.stream = number, .tone = isOpen ? Tone::good : Tone::closed, .verdict = isOpen ? "decrypted" : "no key material",
                     .serverName = "host" + std::to_string(random % 5'000) + ".example.org", .version = "TLS 1.3"});
    }
    return table;
}

void pass(benchmark::State& state)
{
    const StreamTable& table = tableOf(state.range(0));
    for (auto _ : state) {
        std::int64_t sum = 0;
        for (std::uint32_t row = 0; row < table.size(); ++row) sum += table[row].clientBytes;
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(pass)->ArgName("streams")->Arg(1'000'000)->Unit(benchmark::kMillisecond);

void arrange(benchmark::State& state, Column column, const char* words)
{
    const StreamTable& table = tableOf(state.range(0));
    const FilterTerms terms(words);
    RowOrder order;
    for (auto _ : state) {
        table.arrange(order, column, RowOrder::Direction::descending, terms, 0);
        benchmark::DoNotOptimize(order.size());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK_CAPTURE(arrange, byBytes, Column::sent, "")->ArgName("streams")->Arg(1'000'000)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(arrange, byClient, Column::client, "")->ArgName("streams")->Arg(1'000'000)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(arrange, byServerName, Column::serverName, "")->ArgName("streams")->Arg(1'000'000)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(arrange, filterByName, Column::number, "host42 decrypted")->ArgName("streams")->Arg(1'000'000)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(arrange, filterByAddress, Column::number, "10.10.1 :443")->ArgName("streams")->Arg(1'000'000)->Unit(benchmark::kMillisecond);

}  // namespace
