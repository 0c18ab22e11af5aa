// SPDX-License-Identifier: Apache-2.0
#include "app/export/PlaintextCapture.h"

#include "app/capture/Capture.h"
#include "app/capture/PacketDecoder.h"
#include "harness/Hex.h"
#include "harness/TCPConversation.h"
#include "harness/TempDirectory.h"

#include <gtest/gtest.h>

namespace sealscope {

namespace {

TEST(PlaintextCapture, PartsARecordThatIsLongerThanAPacket)
{
    const TempDirectory directory;
    for (const std::int64_t size : {1, 65'495, 65'496, 65'535, 200'000}) {
        for (const bool isIPv6 : {false, true}) {
            TCPStream stream;
            stream.clientEndpoint = endpoint(isIPv6 ? "2001:db8::1" : "192.0.2.1", 50'000);
            stream.serverEndpoint = endpoint(isIPv6 ? "2001:db8::2" : "192.0.2.2", 443);
            const Data plaintext = patternBytes(size);
            auto capture = PlaintextCapture::create(directory.path().string());
            ASSERT_TRUE(capture) << capture.error().text();
            PlaintextCapture::Direction(**capture, (*capture)->addConnection(stream), TCPSegment::Direction::clientToServer)
                .add(plaintext, {});
            auto file = OutputFile::create(directory.file("plain.pcap"), ExistingFile::isReplaced, OutputFile::Kind::regular);
            ASSERT_TRUE(file) << file.error().text();
            EXPECT_TRUE((*capture)->write(*file, {}));
            EXPECT_TRUE(file->finish());

            auto written = Capture::open({directory.file("plain.pcap")}, {});
            ASSERT_TRUE(written);
            PacketDecoder decoder;
            CapturedPacket packet;
            TCPPacket segment;
            std::vector<std::uint8_t> bytes;
            std::int64_t packets = 0;
            while ((*written)->next(packet)) {
                ++packets;
                EXPECT_TRUE(decoder.decode(packet, segment)) << size;
                bytes.insert(bytes.end(), segment.payload.begin(), segment.payload.end());
            }
            EXPECT_TRUE(DataView(bytes) == plaintext.view()) << size;
            EXPECT_EQ(packets, 6 + (size + 65'494) / 65'495) << size;
        }
    }
}

}  // namespace

}  // namespace sealscope
