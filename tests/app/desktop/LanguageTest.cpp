// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/models/StreamsModel.h"
#include "app/desktop/views/StreamsView.h"
#include "harness/CaptureFile.h"
#include "harness/PacketPath.h"
#include "harness/TLSSession.h"
#include "harness/TempDirectory.h"
#include "tests/app/desktop/DesktopTest.h"

#include <QLabel>
#include <cstdlib>
#include <gmock/gmock.h>

namespace sealscope::desktop {

namespace {

using Column = StreamTable::Column;
using testing::EndsWith;
using testing::StartsWith;

/// A window for somebody who reads German.
class LanguageTest : public DesktopTest {
protected:
    static void SetUpTestSuite()
    {
        setenv("LC_ALL", "de_DE.UTF-8", 1);
        unsetenv("LANGUAGE");
        DesktopTest::SetUpTestSuite();
    }
};

TEST_F(LanguageTest, IsThatOfTheSentencesToo)
{
    const TempDirectory directory;
    const TLSSession known = runTLS({}, {clientSends("question"), serverSends(std::string(40'000, 'x'))});
    const TLSSession unknown = runTLS({.seed = 2}, {clientSends("question")});
    std::vector<PlannedSegment> withLoss = tcpSegments(known.flights, {.client = endpoint("192.0.2.1", 50'001)});
    withLoss.erase(withLoss.end() - 12);
    const Data capture = pcapFile(packets(merged({withLoss, tcpSegments(unknown.flights, {.client = endpoint("192.0.2.1", 50'002)})})));
    const QString file = QString::fromStdString(directory.write("bericht.pcap", capture.view().sub(0, capture.size() - 9)));
    const QString keyLog = QString::fromStdString(directory.write("keys.txt", known.keyLog));

    Document document;
    StreamsView view(document);
    std::string told;
    QObject::connect(&document, &Document::failed, [&](const QString& sentence) { told += sentence.toStdString(); });
    ASSERT_TRUE(opens(document, {file}, {keyLog}));
    const auto cell = [&](int row, Column column) {
        return view.model().index(row, static_cast<int>(column)).data().toString().toStdString();
    };
    ASSERT_TRUE(
        waitUntil([&] { return view.model().rowCount() == 2 && !cell(0, Column::detail).empty() && !cell(1, Column::detail).empty(); }));

    EXPECT_EQ(cell(0, Column::verdict), "teilweise entschlüsselt");
    EXPECT_EQ(cell(0, Column::received), "41,3 kB");
    EXPECT_EQ(cell(0, Column::detail),
              "Client: 2 von 2 Records, 8 Bytes; Server: 8 von 9 Records, 23.616 Bytes, 1 verloren, 1 Lücke mit 16.406 Bytes");
    EXPECT_EQ(cell(1, Column::verdict), "kein Schlüsselmaterial");
    EXPECT_THAT(cell(1, Column::detail), StartsWith("das Schlüsselprotokoll hat kein Geheimnis für diese Verbindung (Client Random "));
    EXPECT_THAT(cell(1, Column::detail),
                EndsWith("…); es hat 1 anderes, 1 aus diesem Mitschnitt: Wurde es überschrieben, oder hat ein anderes "
                         "Programm diese Verbindung geöffnet?"));
    EXPECT_THAT(told,
                EndsWith("/bericht.pcap: Paket bei Byte 45.390: die Datei endet nach 51 der 60 Bytes; davor wurden 50 Pakete gelesen"));
}

}  // namespace

}  // namespace sealscope::desktop
