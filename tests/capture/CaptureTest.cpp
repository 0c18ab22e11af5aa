// SPDX-License-Identifier: Apache-2.0
#include "tests/capture/ReadCapture.h"
#include "tests/support/CaptureFile.h"
#include "tests/support/Hex.h"
#include "tests/support/TempDirectory.h"

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits>
#include <lz4frame.h>
#include <optional>
#include <sys/mman.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <zlib.h>
#include <zstd.h>

namespace sealscope {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr std::int64_t second = 1'000'000'000;
constexpr std::int64_t start = 1'700'000'000 * second;

/// Packets of different sizes, whose times have nothing below a microsecond.
std::vector<CapturePacket> somePackets(int count = 5, std::int64_t from = start)
{
    std::vector<CapturePacket> packets;
    for (int i = 0; i < count; ++i) {
        const Data frame = patternBytes(61 + 7 * i, static_cast<std::uint64_t>(i));
        packets.push_back(
            {.time = from + std::int64_t{i} * 250'001'000, .frame = frame, .originalLength = frame.size() + (i == 2 ? 1'000 : 0)});
    }
    return packets;
}

void expectPackets(const ReadResult& result, const std::vector<CapturePacket>& expected, const std::string& name)
{
    ASSERT_EQ(result.openError, "") << name;
    ASSERT_EQ(result.packets.size(), expected.size()) << name;
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_TRUE(result.packets[i].isCopyOf(expected[i])) << name << ": " << result.packets[i];
        EXPECT_EQ(result.packets[i].number, static_cast<std::int64_t>(i) + 1) << name;
    }
}

Data gzip(DataView bytes)
{
    z_stream stream = {};
    deflateInit2(&stream, 6, Z_DEFLATED, 16 + MAX_WBITS, 8, Z_DEFAULT_STRATEGY);
    std::vector<std::uint8_t> packed(deflateBound(&stream, static_cast<uLong>(bytes.size())));
    stream.next_in = const_cast<Bytef*>(bytes.data());
    stream.avail_in = static_cast<uInt>(bytes.size());
    stream.next_out = packed.data();
    stream.avail_out = static_cast<uInt>(packed.size());
    EXPECT_EQ(deflate(&stream, Z_FINISH), Z_STREAM_END);
    packed.resize(stream.total_out);
    deflateEnd(&stream);
    return Data(std::move(packed));
}

// Both with check sums, as the command line programs write them.
Data zstd(DataView bytes)
{
    ZSTD_CCtx* const context = ZSTD_createCCtx();
    ZSTD_CCtx_setParameter(context, ZSTD_c_checksumFlag, 1);
    const auto size = static_cast<std::size_t>(bytes.size());
    std::vector<std::uint8_t> packed(ZSTD_compressBound(size) + 4);
    packed.resize(ZSTD_compress2(context, packed.data(), packed.size(), bytes.data(), size));
    ZSTD_freeCCtx(context);
    return Data(std::move(packed));
}

Data lz4(DataView bytes)
{
    LZ4F_preferences_t preferences = {};
    preferences.frameInfo.contentChecksumFlag = LZ4F_contentChecksumEnabled;
    const auto size = static_cast<std::size_t>(bytes.size());
    std::vector<std::uint8_t> packed(LZ4F_compressFrameBound(size, &preferences));
    packed.resize(LZ4F_compressFrame(packed.data(), packed.size(), bytes.data(), size, &preferences));
    return Data(std::move(packed));
}

/// A file in memory alone.
class MemoryFile {
public:
    explicit MemoryFile(DataView bytes) : descriptor_(memfd_create("capture", MFD_CLOEXEC))
    {
        EXPECT_EQ(write(descriptor_, bytes.data(), static_cast<std::size_t>(bytes.size())), bytes.size());
    }
    ~MemoryFile() { close(descriptor_); }
    std::string path() const { return fmt::format("/proc/self/fd/{}", descriptor_); }

private:
    int descriptor_;
};

/// A named pipe that a thread fills, in pieces of `piece` bytes.
class Pipe {
public:
    Pipe(const TempDirectory& directory, Data bytes, std::int64_t piece) : path_(directory.file("pipe"))
    {
        std::filesystem::remove(path_);
        EXPECT_EQ(mkfifo(path_.c_str(), 0600), 0);
        writer_ = std::thread([path = path_, bytes, piece] {
            const int descriptor = open(path.c_str(), O_WRONLY);
            for (std::int64_t at = 0; at < bytes.size(); at += piece) {
                const Data part = bytes.sub(at, piece);
                if (write(descriptor, part.data(), static_cast<std::size_t>(part.size())) != part.size()) break;
            }
            close(descriptor);
        });
    }
    ~Pipe() { writer_.join(); }
    const std::string& path() const { return path_; }

private:
    std::string path_;
    std::thread writer_;
};

TEST(Capture, ReadsEveryFormat)
{
    const std::vector<CapturePacket> plain = somePackets();
    const std::vector<CapturePacket> inOrderOfLinks = [&] {
        std::vector<CapturePacket> packets = plain;
        packets[1].linkType = 113;
        packets[3].linkType = 276;
        return packets;
    }();
    std::vector<CapturePacket> fine = plain;
    for (std::size_t i = 0; i < fine.size(); ++i) fine[i].time += static_cast<std::int64_t>(i) * 7 + 1;

    const TempDirectory directory;
    struct Case {
        const char* name;
        Data file;
        const std::vector<CapturePacket>& expected;
    };
    const Case cases[] = {
        {"pcap, little-endian", pcapFile(plain), plain},
        {"pcap, big-endian", pcapFile(plain, {.isBigEndian = true}), plain},
        {"pcap, nanoseconds", pcapFile(fine, {.hasNanoseconds = true}), fine},
        {"pcap, nanoseconds, big-endian", pcapFile(fine, {.isBigEndian = true, .hasNanoseconds = true}), fine},
        {"pcap, modified", pcapFile(plain, {.isModified = true}), plain},
        {"pcap, modified, big-endian", pcapFile(plain, {.isBigEndian = true, .isModified = true}), plain},
        {"pcap without packets", pcapFile({}), {}},
        {"pcapng, nanoseconds", pcapngFile(fine), fine},
        {"pcapng, big-endian", pcapngFile(fine, {.isBigEndian = true}), fine},
        {"pcapng, default resolution", pcapngFile(plain, {.resolution = 6}), plain},
        {"pcapng, several link types", pcapngFile(inOrderOfLinks), inOrderOfLinks},
        {"pcapng without packets", PcapngBuilder().data(), {}},
    };
    for (const auto& [name, file, expected] : cases) {
        const ReadResult result = readCapture({directory.write("capture", file)});
        expectPackets(result, expected, name);
        EXPECT_THAT(result.errors, IsEmpty()) << name;
    }
}

TEST(Capture, ReadsTimesOfEveryResolution)
{
    struct Case {
        const char* name;
        std::uint8_t resolution;
        std::int64_t offset;
        std::uint32_t high, low;
        CaptureTime expected;
    };
    const Case cases[] = {
        {"whole seconds", 0, 0, 0, 77, {77, 0, 1}},
        {"milliseconds", 3, 0, 0, 77'001, {77, 1, 1'000}},
        {"an offset", 3, 1'000, 0, 77'001, {1'077, 1, 1'000}},
        {"an offset to before 1970", 0, -100, 0, 77, {-23, 0, 1}},
        {"picoseconds", 12, 0, 0xe8, 0xd4a51001, {1, 1, 1'000'000'000'000}},
        {"2^0", 0x80, 0, 0, 77, {77, 0, 1}},
        {"2^10", 0x8a, 0, 0, 1'025, {1, 1, 1'024}},
        {"2^32", 0xa0, 0, 5, 7, {5, 7, std::uint64_t{1} << 32}},
        {"2^63", 0xbf, 0, 0x80000000, 3, {1, 3, std::uint64_t{1} << 63}},
        {"10^19", 19, 0, 0x8ac72304, 0x89e80001, {1, 1, 10'000'000'000'000'000'000u}},
        {"10^20 does not fit, and loses its last digit", 20, 0, 0, 25, {0, 2, 10'000'000'000'000'000'000u}},
        {"2^64 does not fit, and loses its last bit", 0xc0, 0, 0, 7, {0, 3, std::uint64_t{1} << 63}},
        {"10^127 keeps nothing", 127, 0, 0xffffffff, 0xffffffff, {0, 0, 10'000'000'000'000'000'000u}},
        {"2^127 keeps nothing", 0xff, 0, 0xffffffff, 0xffffffff, {0, 0, std::uint64_t{1} << 63}},
    };
    const TempDirectory directory;
    for (const Case& test : cases) {
        // The interface and the packet are written by hand: the builder knows fewer resolutions.
        const PcapngBuilder builder;
        std::vector<std::uint8_t> file = builder.bytes();
        const auto put = [&file](std::uint64_t value, int bytes) {
            for (int i = 0; i < bytes; ++i) file.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
        };
        put(1, 4), put(40, 4), put(1, 2), put(0, 2), put(0, 4);
        put(9, 2), put(1, 2), put(test.resolution, 4), put(14, 2), put(8, 2), put(static_cast<std::uint64_t>(test.offset), 8);
        put(40, 4);
        put(6, 4), put(32, 4), put(0, 4), put(test.high, 4), put(test.low, 4), put(0, 8), put(32, 4);
        auto capture = Capture::open({directory.write("capture", DataView(file))}, {});
        ASSERT_TRUE(capture) << test.name;
        CapturedPacket packet;
        ASSERT_TRUE((*capture)->next(packet)) << test.name;
        EXPECT_EQ(packet.time.seconds, test.expected.seconds) << test.name;
        EXPECT_EQ(packet.time.units, test.expected.units) << test.name;
        EXPECT_EQ(packet.time.resolution, test.expected.resolution) << test.name;
    }
}

TEST(CaptureTime, ConvertsToNanoseconds)
{
    constexpr std::uint64_t finest = std::uint64_t{1} << 63;
    struct Case {
        CaptureTime time;
        std::int64_t expected;
    };
    const Case cases[] = {
        {{1, 500'000, 1'000'000}, 1'500'000'000},
        {{-1, 500'000, 1'000'000}, -500'000'000},
        {{0, finest - 1, finest}, 999'999'999},
        {{std::int64_t{1} << 60, 0, 1}, std::numeric_limits<std::int64_t>::max()},
        {{-(std::int64_t{1} << 60), 0, 1}, std::numeric_limits<std::int64_t>::min()},
    };
    for (const auto& [time, expected] : cases) EXPECT_EQ(time.nanoseconds(), expected);
}

TEST(Capture, ReadsEveryBlockOfEverySection)
{
    const std::vector<CapturePacket> packets = somePackets(8);
    std::vector<CapturePacket> expected = packets;
    PcapngBuilder builder;
    builder.block(0x4242'4242, patternBytes(33)).interface({}).interface({.linkType = 101, .resolution = 9}).secrets("one");
    builder.packet(packets[0]).packet(packets[1], 1).block(0x0bad, {}).obsoletePacket(packets[2], 1);
    expected[1].linkType = expected[2].linkType = 101;
    // The next section's interfaces count from 0 again, and its numbers stand the other way round.
    builder.section(true).interface({.linkType = 276, .snapLength = 70}).secrets("two\nthree\n");
    builder.packet(packets[3]).simplePacket(packets[0]);
    expected[3].linkType = expected[4].linkType = 276;
    expected[4] = {.time = 0, .frame = packets[0].frame, .originalLength = packets[0].originalLength, .linkType = 276};
    // A simple packet that the snapshot length cut.
    CapturePacket cut = packets[6];
    cut.originalLength = cut.frame.size() + 30;
    cut.frame = cut.frame.sub(0, 70);
    builder.simplePacket(cut);
    expected[5] = {.time = 0, .frame = cut.frame, .originalLength = cut.originalLength, .linkType = 276};
    builder.section(false).interface({}).packet(packets[6]).secrets("").secrets("four\n").packet(packets[7]);
    builder.secrets("five");

    const TempDirectory directory;
    const ReadResult result = readCapture({directory.write("capture", builder.data())});
    expectPackets(result, expected, "sections");
    EXPECT_THAT(result.errors, IsEmpty());
    EXPECT_EQ(result.keyLog, "one\ntwo\nthree\nfour\nfive\n");
}

TEST(Capture, SecretsBehindTheLastWantedPacketCount)
{
    const TempDirectory directory;
    const std::string file = directory.write("capture", pcapngFile(somePackets(), {.secretsBefore = "early\n", .secretsAfter = "late\n"}));
    const ReadResult result = readCapture({file}, {.randomAccess = true, .maximumPackets = 2});
    EXPECT_EQ(result.packets.size(), 2u);
    EXPECT_EQ(result.keyLog, "early\nlate\n");
}

TEST(Capture, ReadsCompressedFilesAndPipesAlike)
{
    // Long enough for several windows and buffers.
    std::vector<CapturePacket> packets = somePackets(1'500);
    for (std::size_t i = 0; i < packets.size(); i += 100) {
        packets[i].frame = patternBytes(40'000, i);
        packets[i].originalLength = packets[i].frame.size();
    }
    const Data file = pcapngFile(packets, {.secretsAfter = "label\n"});
    const std::int64_t half = file.size() / 2 + 1;
    const Data first = file.sub(0, half), rest = file.sub(half, file.size());
    struct Case {
        const char* name;
        Data stored;
    };
    const Case cases[] = {
        {"plain", file},
        {"gzip", gzip(file)},
        {"gzip, two members", joined({gzip(first), gzip(rest)})},
        {"gzip, filled up with zeros", joined({gzip(file), Data{0, 0, 0, 0}})},
        {"zstd", zstd(file)},
        {"zstd, two frames", joined({zstd(first), zstd(rest)})},
        {"zstd behind a frame to be skipped", joined({hex("50 2a 4d 18 04 00 00 00 01 02 03 04"), zstd(file)})},
        {"lz4", lz4(file)},
        {"lz4, two frames", joined({lz4(first), lz4(rest)})},
    };
    const TempDirectory directory;
    for (const auto& [name, stored] : cases) {
        const std::string path = directory.write("capture", stored);
        for (const bool randomAccess : {false, true}) {
            for (const std::int64_t piece : {std::int64_t{0}, std::int64_t{4'099}}) {
                const std::string what = fmt::format("{}, random access {}, pieces of {}", name, randomAccess, piece);
                std::optional<Pipe> pipe;
                if (piece != 0) pipe.emplace(directory, stored, piece);
                auto capture = Capture::open({pipe ? pipe->path() : path}, {.randomAccess = randomAccess});
                ASSERT_TRUE(capture) << what << ": " << capture.error().text();
                const ReadResult result = readAll(**capture);
                expectPackets(result, packets, what);
                EXPECT_THAT(result.errors, IsEmpty()) << what;
                EXPECT_EQ(result.keyLog, "label\n") << what;
                EXPECT_EQ((*capture)->bytesRead(), stored.size()) << what;
                EXPECT_EQ((*capture)->bytesTotal(), piece == 0 ? stored.size() : -1) << what;
                if (!randomAccess) continue;
                for (const ReadPacket& packet : result.packets)
                    ASSERT_EQ(packet.frame, (*capture)->bytes(packet.address, packet.frame.size())) << what << ": " << packet;
            }
        }
    }
}

TEST(Capture, KeepsWhatStandsBeforeTheEndOfACutFile)
{
    const std::vector<CapturePacket> packets = somePackets(3);
    PcapngBuilder builder;
    builder.interface({}).packet(packets[0]).block(99, patternBytes(20)).obsoletePacket(packets[1]).secrets("x").packet(packets[2]);
    struct Case {
        const char* name;
        Data file;
    };
    const Case cases[] = {
        {"pcap", pcapFile(packets)}, {"modified pcap", pcapFile(packets, {.isModified = true})}, {"pcapng", builder.data()}};
    for (const auto& [name, file] : cases) {
        std::size_t most = 0;
        int cleanEnds = 0;
        for (std::int64_t size = 0; size <= file.size(); ++size) {
            const MemoryFile prefix(file.sub(0, size));
            const ReadResult result = readCapture({prefix.path()});
            const std::string where = fmt::format("{} cut to {} bytes", name, size);
            ASSERT_GE(result.packets.size(), most) << where;
            most = result.packets.size();
            ASSERT_LE(most, packets.size()) << where;
            for (std::size_t i = 0; i < most; ++i) EXPECT_TRUE(result.packets[i].isCopyOf(packets[i])) << where;
            if (size == 0)
                EXPECT_THAT(result.openError, HasSubstr("is empty"));
            else if (result.openError.empty() && result.errors.empty())
                ++cleanEnds;
            else
                EXPECT_THAT(result.openError + (result.errors.empty() ? "" : result.errors[0]), HasSubstr(prefix.path() + ": ")) << where;
            if (!result.errors.empty()) {
                ASSERT_EQ(result.errors.size(), 1u) << where;
                EXPECT_THAT(result.errors[0], HasSubstr("at byte ")) << where;
                EXPECT_THAT(result.errors[0], HasSubstr("file ends")) << where;
                EXPECT_THAT(result.errors[0], HasSubstr(most == 0 ? "; no packet" : fmt::format("; {} packet", most))) << where;
            }
        }
        EXPECT_EQ(most, packets.size()) << name;
        // A file may end between its packets and blocks only.
        EXPECT_EQ(cleanEnds, std::string_view(name) == "pcapng" ? 7 : 4) << name;
    }
}

TEST(Capture, KeepsWhatStandsBeforeTheEndOfACutCompressedFile)
{
    const std::vector<CapturePacket> packets = somePackets(500);
    const Data file = pcapFile(packets);
    struct Case {
        const char* name;
        Data stored;
    };
    const TempDirectory directory;
    for (const auto& [name, stored] : {Case{"gzip", gzip(file)}, Case{"zstd", zstd(file)}, Case{"lz4", lz4(file)}}) {
        for (const bool isFlipped : {false, true}) {
            std::vector<std::uint8_t> damaged(stored.view().begin(), stored.view().end());
            if (isFlipped)
                damaged[damaged.size() * 3 / 4] ^= 0xff;
            else
                damaged.resize(damaged.size() * 3 / 4);
            const ReadResult result = readCapture({directory.write("capture", DataView(damaged))});
            const std::string what = fmt::format("{}, {}", name, isFlipped ? "changed" : "cut");
            ASSERT_EQ(result.errors.size(), 1u) << what;
            EXPECT_THAT(result.errors[0], HasSubstr(std::string(name) + " data ")) << what;
            EXPECT_THAT(result.errors[0], HasSubstr(fmt::format("{} packets before it were read", result.packets.size()))) << what;
            // A changed byte may be noticed by the check sum at the end alone; what lies before a cut is all there.
            if (isFlipped) continue;
            EXPECT_LT(result.packets.size(), packets.size()) << what;
            EXPECT_GT(result.packets.size(), packets.size() / 3) << what;
            for (std::size_t i = 0; i < result.packets.size(); ++i)
                ASSERT_TRUE(result.packets[i].isCopyOf(packets[i])) << what << ": " << result.packets[i];
        }
    }
}

TEST(Capture, TellsWhatIsWrongAndWhere)
{
    const std::vector<CapturePacket> packets = somePackets(3);
    const auto pcapWith = [&](std::size_t at, std::initializer_list<std::uint8_t> bytes) {
        const Data file = pcapFile(packets);
        std::vector<std::uint8_t> changed(file.view().begin(), file.view().end());
        std::copy(bytes.begin(), bytes.end(), changed.begin() + static_cast<std::ptrdiff_t>(at));
        return Data(std::move(changed));
    };
    const auto pcapngWith = [&](std::size_t at, std::initializer_list<std::uint8_t> bytes) {
        PcapngBuilder builder;
        const Data file = builder.interface({}).packet(packets[0]).packet(packets[1]).packet(packets[2]).data();
        std::vector<std::uint8_t> changed(file.view().begin(), file.view().end());
        std::copy(bytes.begin(), bytes.end(), changed.begin() + static_cast<std::ptrdiff_t>(at));
        return Data(std::move(changed));
    };
    // The packet of the interface that can be read is there.
    PcapngBuilder shortInterface;
    shortInterface.block(1, hex("01000000")).interface({}).interface({}).packet(packets[0], 1).packet(packets[0], 0);
    const std::size_t secondOfPcap = 24 + 16 + 61, secondOfPcapng = 28 + 20 + 96, thirdOfPcapng = secondOfPcapng + 100;
    struct Case {
        const char* name;
        Data file;
        std::size_t packets;
        const char* message;
    };
    const Case cases[] = {
        {"text", Data::fromText("hello, world"), 0, "is not a capture file (it begins with 68 65 6c 6c)"},
        {"two bytes", Data{0xd4, 0xc3}, 0, "is not a capture file (it begins with d4 c3)"},
        {"pcap of another version", pcapWith(4, {3}), 0, "pcap version 3.4 is not known"},
        {"pcap packet of 4 GB", pcapWith(secondOfPcap + 8, {0xff, 0xff, 0xff, 0xff}), 1,
         "packet at byte 101: it announces 4294967295 captured bytes, more than a packet can have (33554432); 1 packet before it was read"},
        {"pcap packet longer than the file", pcapWith(secondOfPcap + 8, {0, 0, 1, 0}), 1,
         "packet at byte 101: the file ends after 159 of its 65536 bytes; 1 packet before it was read"},
        {"pcapng of another version", pcapngWith(12, {9}), 0, "block at byte 0: pcapng version 9.0 is not known; no packet"},
        {"a section without byte order", pcapngWith(8, {9}), 0, "block at byte 0: a section header without its byte-order magic"},
        {"a block of 4 GB", pcapngWith(secondOfPcapng + 4, {0xfc, 0xff, 0xff, 0xff}), 1,
         "block at byte 144: it announces 4294967292 bytes, more than an Enhanced Packet Block can have; 1 packet"},
        {"an unknown block of 4 GB", pcapngWith(secondOfPcapng, {77, 0, 0, 0, 0xfc, 0xff, 0xff, 0xff}), 1,
         "block at byte 144: the file ends after 208 of its 4294967292 bytes; 1 packet"},
        {"a block without length", pcapngWith(secondOfPcapng + 4, {0}), 1,
         "block at byte 144: length 0 is too short for an Enhanced Packet Block (32); 1 packet"},
        {"two lengths", pcapngWith(thirdOfPcapng - 4, {1}), 1, "block at byte 144: its two lengths differ (100 and 1); 1 packet"},
        {"an interface that is not there", pcapngWith(secondOfPcapng + 8, {1}), 2,
         "block at byte 144: interface 1 is not described (its section has 1); 1 packet before it was read, and it was passed over"},
        {"more captured than the block has", pcapngWith(secondOfPcapng + 20, {200}), 2,
         "block at byte 144: it announces 200 captured bytes, but has room for 68; 1 packet before it was read, and it was passed over"},
        {"an interface that is too short", shortInterface.data(), 1,
         "block at byte 28: length 16 is too short for an Interface Description Block (20); no packet before it was read, and it and 1 "
         "more were passed over"},
        {"packets without an interface", pcapngWith(28, {77}), 0,
         "block at byte 48: interface 0 is not described (its section has 0); no packet before it was read, and it and 2 more were passed "
         "over"},
    };
    const TempDirectory directory;
    for (const auto& [name, file, count, message] : cases) {
        const std::string path = directory.write("capture", file);
        const ReadResult result = readCapture({path});
        EXPECT_EQ(result.packets.size(), count) << name;
        const std::string error = result.openError.empty() && !result.errors.empty() ? result.errors[0] : result.openError;
        EXPECT_THAT(error, testing::StartsWith(path + ": " + message)) << name;
        // The same through a pipe, where nothing can be looked at twice.
        const Pipe pipe(directory, file, 1 << 20);
        EXPECT_EQ(readCapture({pipe.path()}).packets.size(), count) << name;
    }
    EXPECT_EQ(readCapture({directory.path().string()}).openError, directory.path().string() + ": is a directory");
    EXPECT_EQ(readCapture({directory.file("nowhere")}).openError, directory.file("nowhere") + ": No such file or directory");
}

TEST(Capture, SurvivesAFileThatBecomesShorter)
{
    const std::vector<CapturePacket> packets = somePackets(400);
    for (const bool isPcapng : {false, true}) {
        const Data file = isPcapng ? pcapngFile(packets) : pcapFile(packets);
        // Within a page, at its end, and down to nothing; the frames' bytes are looked at as a user of them would.
        for (const std::int64_t size : {std::int64_t{20'000}, std::int64_t{20'480}, std::int64_t{0}, file.size() - 1}) {
            const TempDirectory directory;
            const std::string path = directory.write("capture", file);
            const std::string what = fmt::format("{} cut to {}", isPcapng ? "pcapng" : "pcap", size);
            auto capture = Capture::open({path}, {.randomAccess = true});
            ASSERT_TRUE(capture) << what;
            CapturedPacket packet;
            ASSERT_TRUE((*capture)->next(packet));
            std::filesystem::resize_file(path, static_cast<std::uintmax_t>(size));
            std::size_t count = 1;
            std::int64_t sum = 0;
            while ((*capture)->next(packet)) {
                ++count;
                for (const std::uint8_t byte : packet.frame) sum += byte;
            }
            EXPECT_GT(sum + 1, 0);
            // Of the last packet only a byte is missing, which nobody may have noticed when it was handed out.
            EXPECT_LE(count, packets.size() - (size < file.size() - 1 ? 1 : 0)) << what;
            ASSERT_EQ((*capture)->errors().size(), 1u) << what;
            EXPECT_THAT((*capture)->errors()[0].text(), HasSubstr("became shorter while it was being read")) << what;
            EXPECT_EQ((*capture)->bytes(file.size() - 1, 10).size(), 1) << what;
        }
    }
}

// So large that another thread brings the pages in ahead of the reading one.
TEST(Capture, ReadsALargeFile)
{
    constexpr std::int64_t frameSize = 60'000;
    std::vector<CapturePacket> packets;
    for (int i = 0; i < 2'000; ++i) packets.push_back({.time = start + i * second, .frame = patternBytes(frameSize, i % 7)});
    const Data file = pcapFile(packets);
    for (const std::int64_t size : {file.size(), file.size() / 2, std::int64_t{100}}) {
        const TempDirectory directory;
        const std::string path = directory.write("capture", file);
        auto capture = Capture::open({path}, {.randomAccess = true});
        ASSERT_TRUE(capture);
        CapturedPacket packet;
        std::vector<CaptureAddress> addresses;
        while ((*capture)->next(packet)) {
            addresses.push_back(packet.address);
            if (addresses.size() == 10 && size < file.size()) std::filesystem::resize_file(path, static_cast<std::uintmax_t>(size));
        }
        EXPECT_EQ((*capture)->errors().size(), size < file.size() ? 1u : 0u) << size;
        EXPECT_LE(std::ssize(addresses), std::max<std::int64_t>(size / frameSize, 10)) << size;
        for (std::size_t i = 0; i < addresses.size(); i += 10) {
            if (addresses[i] + frameSize > size) continue;
            EXPECT_TRUE((*capture)->bytes(addresses[i], frameSize) == packets[i].frame.view()) << size << ": " << i;
        }
    }
}

TEST(Capture, TellsOfAFileThatBecameShorterAfterwards)
{
    const TempDirectory directory;
    const std::string path = directory.write("capture", pcapFile(somePackets(400)));
    auto capture = Capture::open({path}, {.randomAccess = true});
    ASSERT_TRUE(capture);
    const ReadResult result = readAll(**capture);
    EXPECT_THAT(result.errors, IsEmpty());
    const DataView last = (*capture)->bytes(result.packets.back().address, 100);
    EXPECT_THAT((*capture)->lostFiles(), IsEmpty());
    std::filesystem::resize_file(path, 10'000);
    EXPECT_EQ(last[50], 0);
    ASSERT_EQ((*capture)->lostFiles().size(), 1u);
    EXPECT_EQ((*capture)->lostFiles()[0].text(), path + ": became shorter after it was read; what is missing counts as zeros");
}

TEST(Capture, ReadsSeveralFilesAsOne)
{
    const TempDirectory directory;
    const std::vector<CapturePacket> early = somePackets(3, start), late = somePackets(4, start + 100 * second);
    const std::string a = directory.write("a", pcapngFile(late, {.secretsAfter = "late\n"})), empty = directory.write("b", pcapFile({})),
                      c = directory.write("c", gzip(pcapngFile(early, {.secretsAfter = "early\n"}))),
                      d = directory.write("d", pcapFile(early, {.hasNanoseconds = true}));
    auto capture = Capture::open({a, empty, directory.file("missing"), c, d}, {.randomAccess = true});
    ASSERT_TRUE(capture);
    const ReadResult result = readAll(**capture);
    EXPECT_THAT((*capture)->files(), ElementsAre(c, d, a, empty));
    std::vector<CapturePacket> expected = early;
    expected.insert(expected.end(), early.begin(), early.end());
    expected.insert(expected.end(), late.begin(), late.end());
    expectPackets(result, expected, "three files");
    EXPECT_EQ(result.packets[2].file, 0u);
    EXPECT_EQ(result.packets[3].file, 1u);
    EXPECT_EQ(result.packets[6].file, 2u);
    for (const ReadPacket& packet : result.packets) EXPECT_EQ((*capture)->bytes(packet.address, packet.frame.size()), packet.frame.view());
    EXPECT_THAT(result.errors, ElementsAre(directory.file("missing") + ": No such file or directory"));
    EXPECT_EQ(result.keyLog, "early\nlate\n");

    EXPECT_EQ(readCapture({directory.file("missing"), directory.file("lost")}).openError,
              directory.file("missing") + ": No such file or directory");
    // The limit holds for all files together.
    EXPECT_EQ(readCapture({a, c}, {.maximumPackets = 5}).packets.size(), 5u);
}

TEST(Capture, FiltersWithoutRenumbering)
{
    TCPConversation conversation;
    conversation.open();
    conversation.send(TCPSegment::Direction::clientToServer, patternBytes(3'000));
    conversation.close();
    struct Case {
        const char* name;
        std::string filter;
        PacketPath path;
        bool isBigEndian;
        std::vector<std::int64_t> expected;
    };
    using Link = PacketPath::Link;
    const std::vector<std::int64_t> synOnly = {1, 2};
    const Case cases[] = {
        {"Ethernet", "tcp[tcpflags] & tcp-syn != 0", {}, false, synOnly},
        {"cooked", "tcp[tcpflags] & tcp-syn != 0", {.link = Link::linuxCooked}, false, synOnly},
        {"cooked 2", "tcp[tcpflags] & tcp-syn != 0", {.link = Link::linuxCooked2}, true, synOnly},
        {"raw", "tcp[tcpflags] & tcp-syn != 0", {.link = Link::rawIP}, false, synOnly},
        {"loopback of this machine's order", "tcp[tcpflags] & tcp-syn != 0", {.link = Link::bsdLoopback}, false, synOnly},
        {"loopback of the other order", "tcp[tcpflags] & tcp-syn != 0", {.link = Link::bsdLoopbackBigEndian}, true, synOnly},
        {"nothing passes", "udp", {}, false, {}},
        {"a length", "greater 1000", {}, false, {4, 5}},
    };
    const TempDirectory directory;
    for (const auto& [name, filter, path, isBigEndian, expected] : cases) {
        for (const bool isPcapng : {false, true}) {
            const std::vector<CapturePacket> written = packets(conversation.segments, path);
            const Data file =
                isPcapng ? pcapngFile(written, {.isBigEndian = isBigEndian}) : pcapFile(written, {.isBigEndian = isBigEndian});
            const ReadResult result = readCapture({directory.write("capture", file)}, {.filter = filter});
            std::vector<std::int64_t> numbers;
            for (const ReadPacket& packet : result.packets) numbers.push_back(packet.number);
            EXPECT_EQ(numbers, expected) << name << result.openError;
            EXPECT_THAT(result.errors, IsEmpty()) << name;
        }
    }
    const std::string file = directory.write("capture", pcapFile(packets(conversation.segments)));
    EXPECT_EQ(readCapture({file}, {.filter = "tcp", .maximumPackets = 2}).packets.back().number, 2);

    const auto refused = Capture::open({file}, {.filter = "tcp port"});
    ASSERT_FALSE(refused);
    EXPECT_TRUE(refused.error().couldNotOpen);
    EXPECT_EQ(refused.error().file, "");
    EXPECT_THAT(refused.error().reason, HasSubstr("syntax error"));
}

TEST(Capture, TellsOfPacketsThatCannotBeFiltered)
{
    std::vector<CapturePacket> mixed = somePackets(3);
    mixed[0].linkType = mixed[2].linkType = 147;
    const TempDirectory directory;
    const ReadResult result = readCapture({directory.write("capture", pcapngFile(mixed))}, {.filter = "ip or len > 0"});
    ASSERT_EQ(result.packets.size(), 1u);
    EXPECT_EQ(result.packets[0].number, 2);
    ASSERT_EQ(result.errors.size(), 1u);
    EXPECT_THAT(result.errors[0], HasSubstr("2 packets were left out, since the filter cannot be applied to link type 147"));
}

TEST(Capture, KeepsBytesThatLieInNoFile)
{
    const TempDirectory directory;
    auto capture = Capture::open({directory.write("capture", pcapFile(somePackets()))}, {.randomAccess = true});
    ASSERT_TRUE(capture);
    // Kept bytes never move: the first view is looked at after all the others came.
    const Data first = patternBytes(100);
    const CaptureAddress address = (*capture)->keep(first);
    const DataView view = (*capture)->bytes(address, 100);
    std::vector<std::pair<CaptureAddress, Data>> kept;
    for (std::uint64_t i = 0; i < 300; ++i) {
        const Data bytes = patternBytes(60'000, i);
        kept.emplace_back((*capture)->keep(bytes), bytes);
    }
    EXPECT_EQ(view, first.view());
    for (const auto& [at, bytes] : kept) ASSERT_EQ((*capture)->bytes(at, bytes.size()), bytes.view());
    EXPECT_EQ((*capture)->bytes(kept.back().first, 1 << 20).size(), 60'000);
}

TEST(Capture, TellsWhenNoTemporaryFileCanBeMade)
{
    const TempDirectory directory;
    const std::string file = directory.write("capture", gzip(pcapFile(somePackets())));
    const char* const before = std::getenv("TMPDIR");
    const std::string saved = before ? before : "";
    setenv("TMPDIR", directory.file("nowhere").c_str(), 1);
    const ReadResult result = readCapture({file}, {.randomAccess = true});
    const ReadResult onePass = readCapture({file});
    if (before)
        setenv("TMPDIR", saved.c_str(), 1);
    else
        unsetenv("TMPDIR");
    EXPECT_THAT(result.openError, HasSubstr("cannot make a temporary file in " + directory.file("nowhere")));
    EXPECT_EQ(onePass.packets.size(), 5u);
}

}  // namespace
}  // namespace sealscope
