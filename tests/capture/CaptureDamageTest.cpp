// SPDX-License-Identifier: Apache-2.0
#include "app/capture/PcapngBlocks.h"
#include "tests/capture/StoredCapture.h"

#include <chrono>
#include <cstdlib>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>

namespace sealscope {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

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

TEST(CaptureDamage, KeepsWhatStandsBeforeTheEndOfACutFile)
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

TEST(CaptureDamage, KeepsWhatStandsBeforeTheEndOfACutCompressedFile)
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

TEST(CaptureDamage, TellsWhatIsWrongAndWhere)
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

TEST(CaptureDamage, SurvivesAFileThatBecomesShorter)
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
TEST(CaptureDamage, ReadsALargeFile)
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

TEST(CaptureDamage, TellsOfAFileThatBecameShorterAfterwards)
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

/// Bytes that the temporary files of this process have on the disk.
std::int64_t temporaryBytes()
{
    std::int64_t bytes = 0;
    for (const auto& descriptor : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        struct stat status{};
        const std::string file = std::filesystem::read_symlink(descriptor, error).string();
        if (file.ends_with("(deleted)") && !file.contains("memfd") && stat(descriptor.path().c_str(), &status) == 0)
            bytes += status.st_blocks * 512;
    }
    return bytes;
}

TEST(CaptureDamage, BoundsWhatASmallFileUnpacksTo)
{
    const std::vector<CapturePacket> packets = somePackets(2);
    constexpr std::int64_t piece = 32 << 20;
    const Data zeros = zstd(DataView(std::vector<std::uint8_t>(piece)));
    // A packet, a block of so many zeros, and a packet behind it. Frames laid end to end are one stream.
    const auto captureWith = [&](std::uint32_t type, std::int64_t pieces) {
        PcapngBuilder before, after;
        before.interface({}).packet(packets[0]);
        const Data first = before.data(), whole = after.interface({}).packet(packets[1]).data();
        const DataView packet = whole.view().from(28 + 20);
        const auto length = static_cast<std::uint32_t>(16 + 4 + pieces * piece);
        const ByteOrder order;
        std::vector<std::uint8_t> head(first.view().begin(), first.view().end()), tail;
        for (const std::uint32_t field : {type, length, Pcapng::tlsKeyLog, length - 20}) order.append(field, head);
        order.append(length, tail);
        tail.insert(tail.end(), packet.begin(), packet.end());
        std::vector<std::uint8_t> file;
        const auto add = [&](const Data& frame) { file.insert(file.end(), frame.view().begin(), frame.view().end()); };
        add(zstd(DataView(head)));
        for (std::int64_t i = 0; i < pieces; ++i) add(zeros);
        add(zstd(DataView(tail)));
        return Data(std::move(file));
    };
    struct Case {
        const char* name;
        Data file;
        std::size_t packets;
        const char* message;
    };
    const Case cases[] = {
        {"a long block that nobody knows", captureWith(0x0bad, 4), 2, ""},
        {"a long description", captureWith(1, 1), 1, "it announces 33554452 bytes, more than an Interface Description Block can have"},
        {"secrets that are no key log", captureWith(10, 1), 2, "with those before it, its secrets are more than 839"},
        {"much more than a gigabyte", captureWith(0x0bad, 34), 1, "zstd data unpacks to more than 1073741824 bytes and 256 times its size"},
    };
    const TempDirectory directory;
    for (const auto& [name, file, count, message] : cases) {
        for (const bool randomAccess : {false, true}) {
            const std::int64_t before = temporaryBytes();
            auto capture = Capture::open({directory.write("capture", file)}, {.randomAccess = randomAccess});
            ASSERT_TRUE(capture) << name;
            const ReadResult result = readAll(**capture);
            EXPECT_EQ(result.packets.size(), count) << name;
            EXPECT_EQ(result.keyLog, "") << name;
            if (*message == 0)
                EXPECT_THAT(result.errors, IsEmpty()) << name;
            else
                EXPECT_THAT(result.errors, testing::ElementsAre(HasSubstr(message))) << name;
            EXPECT_LE(temporaryBytes() - before, piece + (2 << 20)) << name << ": what is skipped is not kept";
        }
    }
}

TEST(CaptureDamage, EndsAtOnceWhenItIsToStop)
{
    const TempDirectory directory;
    const std::string path = directory.file("pipe");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    const int writer = open(path.c_str(), O_RDWR | O_CLOEXEC);  // so that the pipe has no end
    const Data file = pcapFile(somePackets(1));
    ASSERT_EQ(write(writer, file.data(), static_cast<std::size_t>(file.size())), file.size());
    std::stop_source source;
    auto capture = Capture::open({path}, {.stop = source.get_token()});
    ASSERT_TRUE(capture);
    const std::jthread stopping([&] { std::this_thread::sleep_for(std::chrono::milliseconds(50)), source.request_stop(); });
    const auto begin = std::chrono::steady_clock::now();
    const ReadResult result = readAll(**capture);
    EXPECT_EQ(result.packets.size(), 1u);
    EXPECT_THAT(result.errors, IsEmpty()) << "it ends where it was ended";
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
    close(writer);
}

TEST(CaptureDamage, TellsWhenNoTemporaryFileCanBeMade)
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
