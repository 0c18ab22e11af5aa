// SPDX-License-Identifier: Apache-2.0
// Reading a capture, alone and with decoding, beside a bare pass over the file: its floor. Items are packets.
#include "app/capture/Capture.h"
#include "app/capture/PacketDecoder.h"
#include "harness/CaptureFile.h"
#include "harness/Hex.h"
#include "harness/TempDirectory.h"

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <map>
#include <unistd.h>
#include <zstd.h>

namespace sealscope {
namespace {

enum Format : std::int64_t { pcap, pcapng, pcapngZstd };

/// A capture of one large transfer, about 64 MB of segments with so many payload bytes each.
class Sample {
public:
    Sample(Format format, std::int64_t segmentSize)
    {
        TCPConversation conversation({.segmentSize = segmentSize, .acknowledges = false});
        conversation.open();
        const std::int64_t total = std::min<std::int64_t>(64 << 20, segmentSize * 250'000);
        for (std::int64_t sent = 0; sent < total; sent += 1 << 20)
            conversation.send(TCPSegment::Direction::serverToClient, patternBytes(1 << 20));
        const std::vector<CapturePacket> written = sealscope::packets(conversation.segments);
        packets = static_cast<std::int64_t>(written.size());
        Data file = format == pcap ? pcapFile(written) : pcapngFile(written);
        if (format == pcapngZstd) {
            std::vector<std::uint8_t> packed(ZSTD_compressBound(static_cast<std::size_t>(file.size())));
            packed.resize(ZSTD_compress(packed.data(), packed.size(), file.data(), static_cast<std::size_t>(file.size()), 1));
            file = Data(std::move(packed));
        }
        size = file.size();
        path = directory_.write("capture", file);
    }
    std::int64_t packets = 0;
    std::int64_t size = 0;
    std::string path;

private:
    TempDirectory directory_;
};

const Sample& sample(const benchmark::State& state)
{
    static std::map<std::pair<std::int64_t, std::int64_t>, std::unique_ptr<Sample>> samples;
    auto& made = samples[{state.range(0), state.range(1)}];
    if (!made) made = std::make_unique<Sample>(static_cast<Format>(state.range(0)), state.range(1));
    return *made;
}

void report(benchmark::State& state, const Sample& file)
{
    state.SetItemsProcessed(state.iterations() * file.packets);
    state.SetBytesProcessed(state.iterations() * file.size);
}

void passOverFile(benchmark::State& state)
{
    const Sample& file = sample(state);
    std::vector<std::uint8_t> buffer(256 << 10);
    for (auto _ : state) {
        const int descriptor = open(file.path.c_str(), O_RDONLY);
        while (read(descriptor, buffer.data(), buffer.size()) > 0) benchmark::ClobberMemory();
        close(descriptor);
    }
    report(state, file);
}

template <bool decodes> void readFile(benchmark::State& state)
{
    const Sample& file = sample(state);
    for (auto _ : state) {
        const auto capture = Capture::open({file.path}, {});
        PacketDecoder decoder;
        CapturedPacket packet;
        TCPPacket segment;
        std::int64_t bytes = 0;
        while ((*capture)->next(packet)) {
            if (!decodes)
                bytes += packet.frame.size();
            else if (decoder.decode(packet, segment))
                bytes += segment.payload.size();
        }
        benchmark::DoNotOptimize(bytes);
    }
    report(state, file);
}

/// The decoder alone, on a packet that is in the processor's cache.
void decodePacket(benchmark::State& state)
{
    TCPConversation conversation = state.range(0) == 6
                                       ? TCPConversation({.client = endpoint("2001:db8::1", 1), .server = endpoint("2001:db8::2", 2)})
                                       : TCPConversation();
    conversation.send(TCPSegment::Direction::clientToServer, patternBytes(1'448));
    PacketPath path;
    if (state.range(1) == 1) path = {.vlans = {7, 42}, .tunnel = PacketPath::Tunnel::vxlan};
    const CapturePacket written = packets(conversation.segments, path).front();
    const CapturedPacket packet{.frame = written.frame, .originalLength = written.originalLength, .linkType = written.linkType};
    PacketDecoder decoder;
    TCPPacket segment;
    for (auto _ : state) {
        benchmark::DoNotOptimize(decoder.decode(packet, segment));
        benchmark::DoNotOptimize(segment);
    }
    state.SetItemsProcessed(state.iterations());
}

void files(benchmark::internal::Benchmark* bench)
{
    bench->ArgNames({"format", "segment"})->ArgsProduct({{pcap, pcapng, pcapngZstd}, {64, 1'448}})->Unit(benchmark::kMillisecond);
}

BENCHMARK(passOverFile)->Apply(files);
BENCHMARK(readFile<false>)->Apply(files)->Name("readPackets");
BENCHMARK(readFile<true>)->Apply(files)->Name("readAndDecode");
BENCHMARK(decodePacket)->ArgNames({"IP", "tunnelled"})->ArgsProduct({{4, 6}, {0, 1}});

}  // namespace
}  // namespace sealscope
