// SPDX-License-Identifier: Apache-2.0
#include "tests/streams/ScriptedCapture.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <random>
#include <vector>

// Segments are counted, not bytes: reassembly does not look at payload. What one costs beside a plain pass over the same
// records is the floor that the pass over all packets is judged by.

using namespace sealscope;

namespace {

constexpr std::int64_t segmentSize = 1'448;

enum Order : std::int64_t { inOrder, someDisorder, everyPacketTwice, reversed, overlapping };
constexpr const char* orderNames[] = {"in order", "1 % reordered, 1 % retransmitted", "every packet twice", "back to front", "overlapping"};

/// Offsets of a large transfer's segments in capture order.
std::vector<std::int64_t> offsets(std::int64_t segments, Order order)
{
    std::vector<std::int64_t> result;
    std::mt19937_64 random(1);
    for (std::int64_t i = 0; i < segments; ++i) {
        switch (order) {
        case everyPacketTwice: result.push_back(i / 2 * segmentSize); break;
        case reversed: result.push_back((segments - 1 - i) * segmentSize); break;
        case overlapping: result.push_back(i * 7'919 % segments * (segmentSize / 3)); break;
        default: result.push_back(i * segmentSize); break;
        }
    }
    if (order == someDisorder) {
        for (std::size_t i = 0; i + 9 < result.size(); ++i) {
            if (random() % 100 == 0) std::swap(result[i], result[i + 1 + random() % 8]);
            if (random() % 100 == 0) result[i + 8] = result[i];
        }
    }
    return result;
}

/// A connection of its own: the client sends the segments, the server acknowledges every second one.
void addTransfer(ConnectionIndex& index, std::int64_t number, const std::vector<std::int64_t>& order, std::int64_t& packets)
{
    static const std::vector<std::uint8_t> payload(segmentSize);
    TCPPacket toServer{.source = testEndpoint(1, static_cast<std::uint16_t>(number)), .destination = testEndpoint(2, 443)};
    toServer.source.address[0] = static_cast<std::uint8_t>(number >> 16);
    TCPPacket toClient{.source = toServer.destination, .destination = toServer.source, .sequenceNumber = 1, .flags = TCPFlag::ack};
    toServer.flags = TCPFlag::syn;
    index.add(toServer, ++packets, 0);
    toServer.flags = TCPFlag::ack | TCPFlag::psh;
    toServer.payload = payload;
    toServer.payloadLength = segmentSize;
    for (std::size_t i = 0; i < order.size(); ++i) {
        toServer.sequenceNumber = static_cast<std::uint32_t>(1 + order[i]);
        toServer.payloadAddress = packets * 1'514;
        index.add(toServer, ++packets, static_cast<double>(i));
        if (i % 2 == 0) continue;
        toClient.acknowledgmentNumber = toServer.sequenceNumber + segmentSize;
        index.add(toClient, ++packets, static_cast<double>(i));
    }
}

/// Heap in use. Free memory that the allocator keeps does not count.
std::int64_t heapBytes()
{
    const auto info = mallinfo2();
    return static_cast<std::int64_t>(info.uordblks + info.hblkhd);
}

/// A capture of zeros, as large as any address asks for.
class Zeros final : public Capture {
public:
    bool next(CapturedPacket&) override { return false; }
    const std::vector<std::string>& files() const override { return files_; }
    const std::vector<CaptureError>& errors() const override { return errors_; }
    DataView bytes(CaptureAddress, std::int64_t count) const override { return DataView(page_).sub(0, count); }
    CaptureAddress keep(DataView) override { return -1; }
    SecretText takeEmbeddedKeyLog() override { return {}; }
    std::int64_t bytesRead() const override { return 0; }
    std::int64_t bytesTotal() const override { return 0; }

private:
    std::vector<std::uint8_t> page_ = std::vector<std::uint8_t>(1 << 16);
    std::vector<std::string> files_;
    std::vector<CaptureError> errors_;
};

std::shared_ptr<ConnectionIndex> transfers(std::int64_t connections, std::int64_t segments, Order order, std::int64_t& packets)
{
    const std::vector<std::int64_t> places = offsets(segments, order);
    auto index = std::make_shared<ConnectionIndex>();
    for (std::int64_t i = 0; i < connections; ++i) addTransfer(*index, i, places, packets);
    return index;
}

void indexPackets(benchmark::State& state)
{
    std::int64_t packets = 0, indexBytes = 0;
    for (auto _ : state) {
        packets = 0;
        const std::int64_t before = heapBytes();
        const auto index = transfers(state.range(0), state.range(1), inOrder, packets);
        indexBytes = heapBytes() - before;
        benchmark::DoNotOptimize(index->size());
    }
    state.SetItemsProcessed(state.iterations() * packets);
    state.counters["bytes/packet"] = static_cast<double>(indexBytes) / static_cast<double>(packets);
    state.counters["bytes/connection"] = static_cast<double>(indexBytes) / static_cast<double>(state.range(0));
}
BENCHMARK(indexPackets)
    ->ArgNames({"connections", "segments"})
    ->Args({1, 1'000'000})
    ->Args({10'000, 7})
    ->Args({100'000, 7})
    ->Unit(benchmark::kMillisecond);

void measureLargeStream(benchmark::State& state)
{
    const auto order = static_cast<Order>(state.range(1));
    std::int64_t packets = 0;
    const auto index = transfers(1, state.range(0), order, packets);
    const Zeros capture;
    for (auto _ : state) benchmark::DoNotOptimize(measureStream(capture, (*index)[0]));
    state.SetItemsProcessed(state.iterations() * packets);
    state.SetLabel(orderNames[order]);
}
BENCHMARK(measureLargeStream)
    ->ArgNames({"segments", "order"})
    ->ArgsProduct({{100'000, 1'000'000}, {inOrder, someDisorder, everyPacketTwice, reversed, overlapping}})
    ->Unit(benchmark::kMillisecond);

/// What looking at a stream keeps in memory beside the index, and what reading it from front to back costs.
void readLargeStream(benchmark::State& state)
{
    const auto order = static_cast<Order>(state.range(1));
    std::int64_t packets = 0;
    std::shared_ptr<const ConnectionIndex> index = transfers(1, state.range(0), order, packets);
    const std::shared_ptr<const Capture> capture = std::make_shared<Zeros>();
    const std::int64_t before = heapBytes();
    const TCPStream stream = reassembledStream(capture, index, 0);
    state.counters["bytes/packet"] = static_cast<double>(heapBytes() - before) / static_cast<double>(packets);
    for (auto _ : state) {
        std::int64_t total = 0;
        for (std::int64_t offset = 0; offset < stream.clientToServerData.size();) {
            const DataView here = stream.clientToServerData.stretch(offset);
            offset += here.size();
            total += here.size();
        }
        benchmark::DoNotOptimize(total);
    }
    state.SetItemsProcessed(state.iterations() * packets);
    state.SetLabel(orderNames[order]);
}
BENCHMARK(readLargeStream)
    ->ArgNames({"segments", "order"})
    ->ArgsProduct({{1'000'000}, {inOrder, someDisorder, everyPacketTwice, reversed}})
    ->Unit(benchmark::kMillisecond);

void locateInLargeStream(benchmark::State& state)
{
    std::int64_t packets = 0;
    std::shared_ptr<const ConnectionIndex> index = transfers(1, 1'000'000, static_cast<Order>(state.range(0)), packets);
    const TCPStream stream = reassembledStream(std::make_shared<Zeros>(), index, 0);
    std::mt19937_64 random(1);
    const auto size = static_cast<std::uint64_t>(stream.clientToServerData.size() - 16'408);
    for (auto _ : state) {
        const auto from = static_cast<std::int64_t>(random() % size);
        benchmark::DoNotOptimize(stream.locate({from, from + 16'408}, TCPSegment::Direction::clientToServer));
    }
    state.SetItemsProcessed(state.iterations());
    state.SetLabel(orderNames[state.range(0)]);
}
BENCHMARK(locateInLargeStream)->ArgName("order")->Arg(inOrder)->Arg(someDisorder);

void reassembleSmallStreams(benchmark::State& state)
{
    std::int64_t packets = 0;
    std::shared_ptr<const ConnectionIndex> index = transfers(state.range(0), 7, inOrder, packets);
    const std::shared_ptr<const Capture> capture = std::make_shared<Zeros>();
    for (auto _ : state)
        for (std::int64_t number = 0; number < index->size(); ++number) {
            benchmark::DoNotOptimize(measureStream(*capture, (*index)[number]));
            benchmark::DoNotOptimize(reassembledStream(capture, index, number));
        }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(reassembleSmallStreams)->ArgName("connections")->Arg(10'000)->Arg(100'000)->Unit(benchmark::kMillisecond);

}  // namespace
