// SPDX-License-Identifier: Apache-2.0
#include "tests/capture/StoredCapture.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits>
#include <optional>

namespace sealscope {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

void expectPackets(const ReadResult& result, const std::vector<CapturePacket>& expected, const std::string& name)
{
    ASSERT_EQ(result.openError, "") << name;
    ASSERT_EQ(result.packets.size(), expected.size()) << name;
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_TRUE(result.packets[i].isCopyOf(expected[i])) << name << ": " << result.packets[i];
        EXPECT_EQ(result.packets[i].number, static_cast<std::int64_t>(i) + 1) << name;
    }
}

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
        {"pcap, big-endian", pcapFile(plain, {.order = std::endian::big}), plain},
        {"pcap, nanoseconds", pcapFile(fine, {.hasNanoseconds = true}), fine},
        {"pcap, nanoseconds, big-endian", pcapFile(fine, {.order = std::endian::big, .hasNanoseconds = true}), fine},
        {"pcap, modified", pcapFile(plain, {.isModified = true}), plain},
        {"pcap, modified, big-endian", pcapFile(plain, {.order = std::endian::big, .isModified = true}), plain},
        {"pcap without packets", pcapFile({}), {}},
        {"pcapng, nanoseconds", pcapngFile(fine), fine},
        {"pcapng, big-endian", pcapngFile(fine, {.order = std::endian::big}), fine},
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
    builder.section(std::endian::big).interface({.linkType = 276, .snapLength = 70}).secrets("two\nthree\n");
    builder.packet(packets[3]).simplePacket(packets[0]);
    expected[3].linkType = expected[4].linkType = 276;
    expected[4] = {.time = 0, .frame = packets[0].frame, .originalLength = packets[0].originalLength, .linkType = 276};
    // A simple packet that the snapshot length cut.
    CapturePacket cut = packets[6];
    cut.originalLength = cut.frame.size() + 30;
    cut.frame = cut.frame.sub(0, 70);
    builder.simplePacket(cut);
    expected[5] = {.time = 0, .frame = cut.frame, .originalLength = cut.originalLength, .linkType = 276};
    builder.section(std::endian::little).interface({}).packet(packets[6]).secrets("").secrets("four\n").packet(packets[7]);
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
        std::endian order;
        std::vector<std::int64_t> expected;
    };
    constexpr auto little = std::endian::little, big = std::endian::big;
    using Link = PacketPath::Link;
    const std::vector<std::int64_t> synOnly = {1, 2};
    const Case cases[] = {
        {"Ethernet", "tcp[tcpflags] & tcp-syn != 0", {}, little, synOnly},
        {"cooked", "tcp[tcpflags] & tcp-syn != 0", {.link = Link::linuxCooked}, little, synOnly},
        {"cooked 2", "tcp[tcpflags] & tcp-syn != 0", {.link = Link::linuxCooked2}, big, synOnly},
        {"raw", "tcp[tcpflags] & tcp-syn != 0", {.link = Link::rawIP}, little, synOnly},
        {"loopback of this machine's order", "tcp[tcpflags] & tcp-syn != 0", {.link = Link::bsdLoopback}, little, synOnly},
        {"loopback of the other order", "tcp[tcpflags] & tcp-syn != 0", {.link = Link::bsdLoopbackBigEndian}, big, synOnly},
        {"nothing passes", "udp", {}, little, {}},
        {"a length", "greater 1000", {}, little, {4, 5}},
    };
    const TempDirectory directory;
    for (const auto& [name, filter, path, order, expected] : cases) {
        for (const bool isPcapng : {false, true}) {
            const std::vector<CapturePacket> written = packets(conversation.segments, path);
            const Data file = isPcapng ? pcapngFile(written, {.order = order}) : pcapFile(written, {.order = order});
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
    EXPECT_THAT(refused.error().reason(), HasSubstr("syntax error"));
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

}  // namespace
}  // namespace sealscope
