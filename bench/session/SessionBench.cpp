// SPDX-License-Identifier: Apache-2.0
#include "app/session/Session.h"
#include "harness/CaptureFile.h"
#include "harness/PacketPath.h"
#include "harness/TempDirectory.h"

#include <benchmark/benchmark.h>
#include <fstream>
#include <malloc.h>
#include <map>

// What a session adds to reading a capture. The floor is a bare pass over the same file, packet by packet; the difference is
// decoding and indexing. Packets are counted: payload is not touched, bytes would flatter it.

using namespace sealscope;

namespace {

using Direction = TCPSegment::Direction;

struct Shape {
    std::int64_t connections = 1;
    std::int64_t bytes = 0;  ///< that the server of each sends
};
constexpr Shape large{1, 200'000'000};

/// A capture file of connections one after another; made when first asked for, gone with the program.
const std::string& captureFile(Shape shape)
{
    static const TempDirectory directory;
    static std::map<std::pair<std::int64_t, std::int64_t>, std::string> files;
    std::string& path = files[{shape.connections, shape.bytes}];
    if (!path.empty()) return path;
    path = directory.file(std::to_string(shape.connections) + "-" + std::to_string(shape.bytes) + ".pcap");
    std::ofstream file(path, std::ios::binary);
    TCPConversationOptions options{.segmentsPerAcknowledgment = 2};
    const Data request(std::vector<std::uint8_t>(500, 'q'));
    const Data response(std::vector<std::uint8_t>(1'000'000, 'r'));
    for (std::int64_t i = 0; i < shape.connections; ++i) {
        options.client.port = static_cast<std::uint16_t>(1'024 + i % 60'000);
        options.client.address[3] = static_cast<std::uint8_t>(1 + i / 60'000);
        TCPConversation conversation(options);
        conversation.open();
        conversation.send(Direction::clientToServer, request);
        bool isFirst = i == 0;
        const auto write = [&] {
            const Data bytes = pcapFile(packets(conversation.segments));
            constexpr std::int64_t headerLength = 24;
            const Data part = isFirst ? bytes : bytes.sub(headerLength, bytes.size());
            file.write(reinterpret_cast<const char*>(part.data()), part.size());
            conversation.segments.clear();
            isFirst = false;
        };
        for (std::int64_t sent = 0; sent < shape.bytes; sent += response.size()) {
            conversation.send(Direction::serverToClient, response.sub(0, shape.bytes - sent));
            write();
        }
        conversation.close();
        write();
        options.startTime += 1'000'000'000;
    }
    return path;
}

std::int64_t heapBytes()
{
    const auto info = mallinfo2();
    return static_cast<std::int64_t>(info.uordblks + info.hblkhd);
}

Shape shapeOf(const benchmark::State& state) { return state.range(0) == 1 ? large : Shape{state.range(0), 3'000}; }

void readPackets(benchmark::State& state)
{
    const std::string& file = captureFile(shapeOf(state));
    std::int64_t count = 0;
    for (auto _ : state) {
        const auto capture = Capture::open({file}, {.randomAccess = true});
        CapturedPacket packet;
        while ((*capture)->next(packet)) ++count;
    }
    state.SetItemsProcessed(count);
}

void openSession(benchmark::State& state)
{
    const std::string& file = captureFile(shapeOf(state));
    std::int64_t count = 0, indexBytes = 0, perSession = 1;
    for (auto _ : state) {
        const std::int64_t before = heapBytes();
        const auto session = Session::open({.files = {file}});
        indexBytes = heapBytes() - before;
        perSession = (*session)->packetCount();
        count += perSession;
    }
    state.SetItemsProcessed(count);
    state.counters["bytes/packet"] = static_cast<double>(indexBytes) / static_cast<double>(perSession);
}

void listStreams(benchmark::State& state)
{
    const std::string& file = captureFile(shapeOf(state));
    std::int64_t count = 0;
    for (auto _ : state) {
        const auto session = Session::open({.files = {file}});
        for (std::int64_t number = 0; number < (*session)->streamCount(); ++number) {
            benchmark::DoNotOptimize((*session)->summary(number));
            benchmark::DoNotOptimize((*session)->stream(number).clientToServerData.stretch(0));
        }
        count += (*session)->packetCount();
    }
    state.SetItemsProcessed(count);
}

// One large transfer, short connections, and ten times as many.
BENCHMARK(readPackets)->ArgName("connections")->Arg(1)->Arg(5'000)->Arg(50'000)->Unit(benchmark::kMillisecond);
BENCHMARK(openSession)->ArgName("connections")->Arg(1)->Arg(5'000)->Arg(50'000)->Unit(benchmark::kMillisecond);
BENCHMARK(listStreams)->ArgName("connections")->Arg(1)->Arg(5'000)->Arg(50'000)->Unit(benchmark::kMillisecond);

}  // namespace
