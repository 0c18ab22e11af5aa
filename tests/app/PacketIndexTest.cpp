// SPDX-License-Identifier: Apache-2.0
#include "app/plugins/PlugInLoader.h"
#include "app/session/PacketIndex.h"
#include "harness/CaptureFile.h"
#include "harness/TLSSession.h"
#include "harness/TempDirectory.h"
#include "host/VELModels/VELPlugInsController.h"

#include <gtest/gtest.h>
#include <thread>

namespace sealscope {

namespace {

std::string textOf(const PacketRow& row)
{
    std::string text = std::to_string(row.number) + ' ' + std::to_string(row.time) + ' ' + row.source.text() + ' ' + row.destination.text();
    if (row.match) text += ' ' + row.match.analyzer->protocolInfo(row.payload).value_or("");
    return text;
}

/// A session whose segments came in fragments, so that payloads lie in no packet, and out of several packets' bytes.
std::string fragmentedCapture(const TempDirectory& directory)
{
    const TLSSession session = runTLS({}, {clientSends("one"), serverSends(Data(std::vector<std::uint8_t>(30'000, 7)))});
    auto segments = tcpSegments(session.flights);
    for (PlannedSegment& segment : segments) segment.fragmentLength = 400;
    return directory.write("fragments.pcap", pcapFile(packets(segments)));
}

class PacketIndexTest : public testing::Test {
protected:
    static void SetUpTestSuite() { PlugInLoader::load({}); }
    const TempDirectory directory;
};

TEST_F(PacketIndexTest, GivesTheRowsThatOnePassGives)
{
    for (const std::string& file : {std::string(SEALSCOPE_SOURCE_DIR "/examples/https.pcapng"), fragmentedCapture(directory)}) {
        const auto index = PacketIndex::open({file}, {});
        ASSERT_TRUE(index) << index.error().text();
        while ((*index)->read(7)) {}
        std::vector<std::string> found, expected;
        for (std::int64_t position = 0; position < (*index)->size(); ++position)
            if ((**index)[position].plugIn != PacketEntry::unrecognized) found.push_back(textOf((*index)->row(position)));

        const auto capture = Capture::open({file}, {});
        const PacketAnalyzers analyzers;
        PacketRowReader reader(**capture, analyzers, {}, [](std::int64_t, std::int64_t) {});
        for (PacketRow row; reader.next(row);) expected.push_back(textOf(row));
        EXPECT_EQ((*index)->size(), reader.packetCount());
        EXPECT_GT(expected.size(), 3U);
        EXPECT_EQ(found, expected) << file;
    }
}

TEST_F(PacketIndexTest, OutlivesAPlugInThatFails)
{
    static constexpr VELAnalyzerClass failing{
        .name = "Failing", .create = [](DataView, const std::any&) -> std::unique_ptr<VELPluginAnalyzerProtocol> {
            throw std::runtime_error("no idea");
        }};
    const UUID id = UUID::random();
    const Bundle bundle(directory.path());
    VELPlugInsController& plugIns = VELPlugInsController::sharedManager();
    ASSERT_TRUE(plugIns.registerVELPlugIn({.id = id, .plugInTitle = "Failing", .plugInAnalyzerClass = &failing}, bundle));
    const auto index = PacketIndex::open({fragmentedCapture(directory)}, {});
    plugIns.unregisterVELPlugIn(id);
    ASSERT_TRUE(index);
    while ((*index)->read(100)) {}
    EXPECT_GT((*index)->size(), 10);
    ASSERT_TRUE((*index)->plugInFailure());
    EXPECT_TRUE((*index)->plugInFailure()->text().ends_with("a plug-in failed: no idea")) << (*index)->plugInFailure()->text();
}

TEST_F(PacketIndexTest, IsReadWhileItGrows)
{
    const auto index = PacketIndex::open({fragmentedCapture(directory)}, {});
    ASSERT_TRUE(index);
    std::jthread reading([&] {
        while ((*index)->read(1)) {}
    });
    std::int64_t seen = 0;
    while (seen < 10)
        for (const std::int64_t size = (*index)->size(); seen < size; ++seen) EXPECT_EQ((*index)->row(seen).number, seen + 1);
}

}  // namespace

}  // namespace sealscope
