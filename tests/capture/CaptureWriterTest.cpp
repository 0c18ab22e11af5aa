// SPDX-License-Identifier: Apache-2.0
#include "app/capture/CaptureWriter.h"

#include "harness/CaptureFile.h"
#include "harness/Hex.h"
#include "harness/TempDirectory.h"
#include "tests/capture/ReadCapture.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace sealscope {
namespace {

using testing::IsEmpty;

constexpr std::int64_t nanosecondsPerSecond = 1'000'000'000;

std::vector<CapturePacket> somePackets(int count, std::int64_t start)
{
    std::vector<CapturePacket> packets;
    for (int i = 0; i < count; ++i)
        packets.push_back({.time = start * nanosecondsPerSecond + i * 1'001'000, .frame = patternBytes(60 + i), .originalLength = 1'000 + i});
    return packets;
}

/// A copy of the files as one capture.
Data copyOf(const std::vector<std::string>& files, const CaptureChanges& changes)
{
    auto capture = Capture::open(files, {.randomAccess = true});
    if (!capture) throw std::runtime_error(capture.error().text());
    readAll(**capture);
    std::vector<std::uint8_t> bytes;
    CaptureWriter writer([&](DataView piece) {
        bytes.insert(bytes.end(), piece.begin(), piece.end());
        return true;
    });
    EXPECT_TRUE(writer.copy(**capture, changes));
    return Data(std::move(bytes));
}

TEST(CaptureWriter, CopiesEveryPacketOfEveryFormat)
{
    const std::vector<CapturePacket> plain = somePackets(7, 1'700'000'000);
    std::vector<CapturePacket> mixed = plain;
    mixed[2].linkType = 113;
    std::vector<CapturePacket> fine = plain;
    fine[3].time += 7;
    PcapngBuilder blocks;
    blocks.interface({.linkType = 101, .resolution = 0x94, .offset = 3}).block(0x0bad, patternBytes(13)).packet(plain[0]);
    blocks.obsoletePacket(plain[1])
        .simplePacket(plain[2])
        .section(std::endian::big)
        .block(5, patternBytes(8))
        .interface({})
        .packet(plain[3]);
    struct Case {
        const char* name;
        Data file;
        std::string keyLog;
        bool isKept;  // byte for byte, when nothing is added
    };
    const Case cases[] = {
        {"pcap", pcapFile(plain), "", false},
        {"pcap, nanoseconds, big-endian", pcapFile(fine, {.order = std::endian::big, .hasNanoseconds = true}), "", false},
        {"modified pcap", pcapFile(plain, {.isModified = true}), "", false},
        {"pcap without packets", pcapFile({}), "", false},
        {"pcapng", pcapngFile(mixed), "", true},
        {"pcapng, big-endian", pcapngFile(mixed, {.order = std::endian::big}), "", true},
        {"pcapng with secrets", pcapngFile(fine, {.secretsBefore = "early\n", .secretsAfter = "late\n"}), "early\nlate\n", true},
        {"blocks of every kind", blocks.data(), "", true},
    };
    const TempDirectory directory;
    for (const auto& [name, file, keyLog, isKept] : cases) {
        const std::string path = directory.write("original", file);
        const ReadResult original = readCapture({path});
        struct Change {
            CaptureChanges changes;
            std::string keyLog;
        };
        for (const auto& [changes, expectedKeyLog] : {Change{{}, keyLog}, Change{{.addedSecrets = "added\n"}, "added\n" + keyLog},
                                                      Change{{.dropsSecrets = true}, ""}, Change{{"added\n", true}, "added\n"}}) {
            const Data bytes = copyOf({path}, changes);
            const ReadResult copy = readCapture({directory.write("copy", bytes)});
            ASSERT_EQ(copy.openError, "") << name;
            EXPECT_THAT(copy.errors, IsEmpty()) << name;
            EXPECT_EQ(copy.keyLog, expectedKeyLog) << name;
            ASSERT_EQ(copy.packets.size(), original.packets.size()) << name;
            for (std::size_t i = 0; i < copy.packets.size(); ++i) {
                const ReadPacket &a = original.packets[i], &b = copy.packets[i];
                EXPECT_TRUE(b.isCopyOf({a.time, a.frame, a.originalLength, a.linkType})) << name << ": " << b;
            }
            if (!isKept || !changes.addedSecrets.empty() || changes.dropsSecrets) continue;
            EXPECT_EQ(bytes, file) << name;
        }
    }
}

TEST(CaptureWriter, PutsSecretsBeforeThePacketsOfAllFiles)
{
    const TempDirectory directory;
    const std::vector<std::string> files = {
        directory.write("late", pcapngFile(somePackets(2, 2'000), {.secretsBefore = "c\n", .secretsAfter = "d\n"})),
        directory.write("early", pcapngFile(somePackets(3, 1'000), {.secretsAfter = "b\n", .order = std::endian::big})),
        directory.write("latest", pcapFile(somePackets(4, 3'000))),
    };
    const ReadResult copy = readCapture({directory.write("copy", copyOf(files, {.addedSecrets = "a\n"}))});
    EXPECT_EQ(copy.packets.size(), 9u);
    EXPECT_EQ(copy.packets[8].number, 9);
    EXPECT_EQ(copy.keyLog, "a\nb\nc\nd\n");
    // Whoever stops at the first packet has them.
    EXPECT_EQ(readCapture({directory.file("copy")}, {.maximumPackets = 1}).keyLog, "a\n");

    const ReadResult stripped = readCapture({directory.write("copy", copyOf(files, {.dropsSecrets = true}))});
    EXPECT_EQ(stripped.packets.size(), 9u);
    EXPECT_EQ(stripped.keyLog, "");
}

TEST(CaptureWriter, DropsSecretsOfEveryKind)
{
    PcapngBuilder builder;
    builder.interface({}).block(10, hex("4c4b4757 04000000 00112233")).packet(somePackets(1, 1)[0]);
    const TempDirectory directory;
    const Data stripped = copyOf({directory.write("capture", builder.data())}, {.dropsSecrets = true});
    EXPECT_EQ(stripped.size(), builder.data().size() - 24);
}

TEST(CaptureWriter, ForgetsTheLengthOfASectionThatChanges)
{
    // Little-endian: the section says how long it is, and would be skipped wrongly with the secrets in it.
    const Data whole = pcapngFile(somePackets(1, 1));
    std::vector<std::uint8_t> file(whole.view().begin(), whole.view().end());
    const std::size_t length = file.size() - 28;
    for (std::size_t i = 0; i < 8; ++i) file[16 + i] = static_cast<std::uint8_t>(length >> (8 * i));
    const TempDirectory directory;
    const std::string path = directory.write("capture", DataView(file));
    EXPECT_EQ(copyOf({path}, {}), DataView(file));
    EXPECT_EQ(copyOf({path}, {.addedSecrets = "x"}).view().sub(16, 8), hex("ff ff ff ff ff ff ff ff").view());
}

TEST(CaptureWriter, CopiesWhatStandsBeforeDamage)
{
    const TempDirectory directory;
    for (const Data& file : {pcapFile(somePackets(3, 1)), pcapngFile(somePackets(3, 1))}) {
        const std::string path = directory.write("capture", file.sub(0, file.size() - 5));
        const ReadResult copy = readCapture({directory.write("copy", copyOf({path}, {.addedSecrets = "x\n"}))});
        EXPECT_EQ(copy.packets.size(), 2u);
        EXPECT_THAT(copy.errors, IsEmpty());
        EXPECT_EQ(copy.keyLog, "x\n");
    }
}

TEST(CaptureWriter, MakesUpNoPacketsForAFileThatBecameShorter)
{
    const TempDirectory directory;
    const std::vector<CapturePacket> packets = somePackets(400, 1);
    for (const bool isPcapng : {false, true}) {
        // Where zeros read like packets without bytes: after a whole packet, and at the end of a page.
        for (const std::int64_t size : {isPcapng ? std::int64_t{28 + 20 + 92} : std::int64_t{24 + 76}, std::int64_t{8'192}}) {
            const std::string path = directory.write("capture", isPcapng ? pcapngFile(packets) : pcapFile(packets));
            auto capture = Capture::open({path}, {.randomAccess = true});
            ASSERT_TRUE(capture);
            readAll(**capture);
            std::filesystem::resize_file(path, static_cast<std::uintmax_t>(size));
            std::vector<std::uint8_t> bytes;
            CaptureWriter([&](DataView piece) {
                bytes.insert(bytes.end(), piece.begin(), piece.end());
                return true;
            }).copy(**capture, {.addedSecrets = "x\n"});
            const ReadResult copy = readCapture({directory.write("copy", DataView(bytes))});
            EXPECT_LE(copy.packets.size(), static_cast<std::size_t>(size / 76)) << isPcapng;
            for (const ReadPacket& packet : copy.packets) EXPECT_GE(packet.frame.size(), 60) << isPcapng << ": " << packet;
            EXPECT_EQ((*capture)->lostFiles().size(), 1u) << isPcapng;
        }
    }
}

TEST(CaptureWriter, EndsWhenNoMoreIsWanted)
{
    const TempDirectory directory;
    for (const Data& file : {pcapFile(somePackets(3, 1)), pcapngFile(somePackets(3, 1))}) {
        auto capture = Capture::open({directory.write("capture", file)}, {.randomAccess = true});
        ASSERT_TRUE(capture);
        readAll(**capture);
        int pieces = 0;
        CaptureWriter writer([&](DataView) { return ++pieces < 1; });
        EXPECT_FALSE(writer.copy(**capture, {}));
        EXPECT_EQ(pieces, 1);
    }
}

}  // namespace
}  // namespace sealscope
