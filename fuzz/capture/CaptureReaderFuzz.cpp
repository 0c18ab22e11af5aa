// SPDX-License-Identifier: Apache-2.0
// One capture file, read as a mapped file and as a stream, on one processor and on several, and copied with other secrets inside.
#include "app/capture/Capture.h"
#include "app/capture/CaptureWriter.h"
#include "app/capture/SegmentScan.h"
#include "fuzz/PieceMutator.h"
#include "fuzz/Require.h"

#include <algorithm>
#include <cstdlib>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

using namespace sealscope;

namespace {

/// A file in memory that is written anew for every input.
class Input {
public:
    explicit Input(int descriptor) : descriptor_(descriptor) { require(descriptor_ >= 0, "files in memory can be made"); }
    /// The bytes behind some others, with the file's position between the two.
    void write(DataView before, DataView bytes) const
    {
        const std::int64_t size = before.size() + bytes.size();
        require(ftruncate(descriptor_, 0) == 0 &&
                    pwrite(descriptor_, before.data(), static_cast<std::size_t>(before.size()), 0) == before.size() &&
                    pwrite(descriptor_, bytes.data(), static_cast<std::size_t>(bytes.size()), before.size()) == bytes.size() &&
                    ftruncate(descriptor_, size) == 0 && lseek(descriptor_, before.size(), SEEK_SET) == before.size(),
                "the input is written");
    }
    std::string path() const { return "/proc/self/fd/" + std::to_string(descriptor_); }

private:
    int descriptor_;
};

struct Read {
    std::vector<CapturedPacket> packets;
    std::vector<std::vector<std::uint8_t>> frames;
    std::size_t errors = 0;
    bool isOpen = false;
    std::string keyLog;
    std::vector<std::uint8_t> copy;  ///< with added secrets, of a capture with random access

    bool hasPacketsOf(const Read& other) const
    {
        const auto isSame = [](const CapturedPacket& a, const CapturedPacket& b) {
            return a.time.seconds == b.time.seconds && a.time.units == b.time.units && a.linkType == b.linkType &&
                   a.originalLength == b.originalLength;
        };
        return frames == other.frames && std::ranges::equal(packets, other.packets, isSame);
    }
};

constexpr const char* addedSecrets = "added\n";

enum class Access { inOrder, random };

Read readAll(const std::string& name, Access access, std::int64_t size)
{
    Read read;
    auto opened = Capture::open({name}, {.randomAccess = access == Access::random});
    read.isOpen = opened.has_value();
    if (!opened) {
        require(opened.error().couldNotOpen && !opened.error().reason().empty(), "a file that cannot be opened has a reason");
        return read;
    }
    Capture& capture = **opened;
    CapturedPacket packet;
    while (capture.next(packet)) {
        require(packet.number == static_cast<std::int64_t>(read.packets.size()) + 1, "packets are numbered from 1");
        require(packet.originalLength >= packet.frame.size(), "no more is captured than there was");
        require(packet.time.units < packet.time.resolution, "a fraction is below a second");
        packet.time.nanoseconds();
        read.packets.push_back(packet);
        read.frames.emplace_back(packet.frame.begin(), packet.frame.end());
    }
    require(!capture.next(packet), "the end stays the end");
    read.errors = capture.errors().size();
    for (const CaptureError& error : capture.errors()) require(!error.reason().empty(), "an error has a reason");
    read.keyLog = capture.takeEmbeddedKeyLog();
    if (access == Access::random) {
        for (std::size_t i = 0; i < read.packets.size(); ++i)
            require(capture.bytes(read.packets[i].address, read.packets[i].frame.size()) == DataView(read.frames[i]),
                    "addresses lead to the bytes");
        CaptureWriter writer([&](DataView piece) {
            read.copy.insert(read.copy.end(), piece.begin(), piece.end());
            return true;
        });
        require(writer.copy(capture, {.addedSecrets = addedSecrets, .dropsSecrets = size % 4 == 0}), "all is copied");
    }
    // Compressed, one byte makes a thousand at most.
    require(static_cast<std::int64_t>(read.packets.size()) * 16 <= size * 2'000, "packets are bounded by the file");
    return read;
}

struct Scanned {
    std::vector<CapturedSegment> segments;
    std::vector<std::vector<std::uint8_t>> payloads;
    std::int64_t packets = 0;
    std::int64_t damagedPackets = 0;
    std::size_t errors = 0;
    std::string keyLog;

    bool operator==(const Scanned& other) const
    {
        const auto isSame = [](const CapturedSegment& a, const CapturedSegment& b) {
            return a.packetNumber == b.packetNumber && a.time.value() == b.time.value() && a.tcp.source == b.tcp.source &&
                   a.tcp.destination == b.tcp.destination && a.tcp.sequenceNumber == b.tcp.sequenceNumber &&
                   a.tcp.payloadLength == b.tcp.payloadLength && a.tcp.payloadAddress == b.tcp.payloadAddress;
        };
        return std::ranges::equal(segments, other.segments, isSame) && payloads == other.payloads && packets == other.packets &&
               damagedPackets == other.damagedPackets && errors == other.errors && keyLog == other.keyLog;
    }
};

Scanned scan(const std::string& name, SegmentScan::Processors processors)
{
    Scanned scanned;
    const auto opened = Capture::open({name}, {.randomAccess = true});
    if (!opened) return scanned;
    Capture& capture = **opened;
    SegmentScan scan(capture, &capture, processors, 128);
    const auto worker = [] { return [](const SegmentBatch&) {}; };
    scan.run(worker, [&](const auto&, const SegmentBatch& batch) {
        for (const CapturedSegment& segment : batch) {
            scanned.segments.push_back(segment);
            scanned.segments.back().packetNumber += batch.packetsBefore();
            scanned.payloads.emplace_back(segment.tcp.payload.begin(), segment.tcp.payload.end());
        }
        return true;
    });
    scanned.packets = scan.packetCount();
    scanned.damagedPackets = scan.notes().damagedPackets;
    scanned.errors = capture.errors().size();
    scanned.keyLog = capture.takeEmbeddedKeyLog();
    return scanned;
}

/// Packets of the classic format, blocks of the other, each in the byte order of the file.
PieceMutator captureMutator(DataView file)
{
    static constexpr std::int64_t fileHeader = 24, packetHeader = 16, smallestBlock = 12;
    const bool isBlocks = file.u32(0) == 0x0A0D0D0A;
    const bool isLittle = isBlocks ? file.u8(8) == 0x4D : file.u8(0) == 0xD4 || file.u8(0) == 0x4D;
    const auto number = [isLittle](DataView bytes, std::int64_t at) {
        return std::int64_t{isLittle ? __builtin_bswap32(bytes.u32(at)) : bytes.u32(at)};
    };
    const auto store = [isLittle](PieceMutator::Piece& piece, std::size_t at, std::size_t value) {
        for (std::size_t i = 0; i < 4; ++i) piece[at + i] = static_cast<std::uint8_t>(value >> 8 * (isLittle ? i : 3 - i));
    };
    if (isBlocks)
        return {0, [number](DataView rest) { return std::max(number(rest, 4), smallestBlock); },
                [store](PieceMutator::Piece& piece) {
                    piece.resize(std::max<std::size_t>((piece.size() + 3) / 4 * 4, smallestBlock));
                    store(piece, 4, piece.size());
                    store(piece, piece.size() - 4, piece.size());
                }};
    return {fileHeader, [number](DataView rest) { return packetHeader + number(rest, 8); },
            [store](PieceMutator::Piece& piece) {
                if (std::ssize(piece) < packetHeader) return;
                store(piece, 8, piece.size() - packetHeader);
                store(piece, 12, piece.size() - packetHeader);
            }};
}

}  // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t maximum, unsigned seed)
{
    return captureMutator(DataView(data, static_cast<std::int64_t>(size))).mutate(data, size, maximum, seed);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const Input file(memfd_create("file", 0));
    // A file whose position is not its beginning cannot be mapped.
    static const Input stream([] {
        const int descriptor = memfd_create("stream", 0);
        dup2(descriptor, STDIN_FILENO);
        return descriptor;
    }());
    static const bool isInMemory = setenv("TMPDIR", "/dev/shm", 1) == 0;  // for speed
    require(isInMemory, "the environment can be changed");
    static const std::uint8_t before[] = {'x'};
    const DataView bytes(data, static_cast<std::int64_t>(size));
    file.write({}, bytes);
    stream.write({before, 1}, bytes);

    const Read mapped = readAll(file.path(), size % 2 == 0 ? Access::random : Access::inOrder, bytes.size());
    const Read streamed = readAll("-", size % 3 == 0 ? Access::random : Access::inOrder, bytes.size());
    require(mapped.isOpen == streamed.isOpen && mapped.errors == streamed.errors && mapped.keyLog == streamed.keyLog &&
                mapped.hasPacketsOf(streamed),
            "a file and a stream read the same");
    require(scan(file.path(), SegmentScan::Processors::one) == scan(file.path(), SegmentScan::Processors::all),
            "several processors find what one finds");
    if (!mapped.packets.empty() && !mapped.copy.empty()) {
        file.write({}, DataView(mapped.copy));
        const Read copy = readAll(file.path(), Access::inOrder, bytes.size() + static_cast<std::int64_t>(mapped.copy.size()));
        require(copy.hasPacketsOf(mapped), "a copy has the same packets");
        require(copy.keyLog == (bytes.size() % 4 == 0 ? addedSecrets : addedSecrets + mapped.keyLog),
                "a copy has the secrets it shall have");
    }
    return 0;
}
