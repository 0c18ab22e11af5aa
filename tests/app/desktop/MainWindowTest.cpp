// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/MainWindow.h"

#include "app/desktop/MessageBar.h"
#include "app/desktop/StreamTabs.h"
#include "app/desktop/WindowMemory.h"
#include "app/desktop/models/ExchangeTable.h"
#include "app/desktop/models/PacketModel.h"
#include "app/desktop/views/ExchangesView.h"
#include "app/desktop/views/PacketsView.h"
#include "app/desktop/views/StreamsView.h"
#include "app/desktop/views/TableView.h"
#include "app/verdict/StreamVerdict.h"
#include "harness/CaptureFile.h"
#include "harness/PacketPath.h"
#include "harness/TLSSession.h"
#include "harness/TempDirectory.h"
#include "platform/UserDefaults.h"
#include "tests/app/desktop/DesktopTest.h"

#include <QAccessible>
#include <QApplication>
#include <QDropEvent>
#include <QLabel>
#include <QMenu>
#include <QMimeData>
#include <QProcess>
#include <QPushButton>
#include <QTest>
#include <QToolButton>

#include <fstream>
#include <gmock/gmock.h>

namespace sealscope::desktop {

namespace {

class MainWindowTest : public DesktopTest {
protected:
    MainWindowTest() { window.show(); }

    /// Drops files on the window as a file manager does.
    void drop(const QStringList& files)
    {
        QMimeData data;
        QList<QUrl> urls;
        for (const QString& file : files) urls.append(QUrl::fromLocalFile(file));
        data.setUrls(urls);
        QDragEnterEvent enter(window.rect().center(), Qt::CopyAction, &data, Qt::LeftButton, {});
        QApplication::sendEvent(&window, &enter);
        EXPECT_TRUE(enter.isAccepted());
        QDropEvent event(window.rect().center(), Qt::CopyAction, &data, Qt::LeftButton, {});
        QApplication::sendEvent(&window, &event);
    }
    bool isDecrypted()
    {
        const auto session = window.document().session();
        if (!session) return false;
        const auto verdict = StreamVerdicts(*session).verdict(session->stream(0), ReportDepth::opened);
        return verdict && adviceOn(*verdict) == Advice::nothing;
    }
    void open(const QString& file)
    {
        ASSERT_TRUE(opens(window.document(), {file}));
        ASSERT_TRUE(waitUntil([&] { return window.packets().packets().rowCount() > 0 && !window.packets().packets().isFiltering(); }));
    }
    /// Chooses in a menu, and a file in the panel that comes for it.
    void choose(const char* title, const QString& file)
    {
        for (QAction* const action : window.findChildren<QAction*>()) {
            if (action->text().remove(QLatin1Char('&')) != QString::fromUtf8(title)) continue;
            answerFilePanel(file);
            return action->trigger();
        }
        ADD_FAILURE() << title;
    }
    std::string message() { return window.messages().text().toStdString(); }

    TempDirectory directory;
    MainWindow window;
};

TEST_F(MainWindowTest, TakesCapturesAndKeyLogsThatAreDropped)
{
    drop({sourceFile("examples/tls12.keylog"), sourceFile("examples/tls12.pcap")});
    EXPECT_TRUE(waitUntil([&] { return isDecrypted(); })) << "both at once, in any order";
    drop({sourceFile("tests/captures/openssl-tls13/capture.pcap")});
    ASSERT_TRUE(waitUntil([&] { return window.document().session() && window.document().files().front().contains(QLatin1String("tls13")); }));
    EXPECT_FALSE(isDecrypted()) << "the key log was for the other capture";
    drop({sourceFile("tests/captures/openssl-tls13/keylog.txt")});
    EXPECT_TRUE(isDecrypted() || waitUntil([&] { return isDecrypted(); })) << "the key log alone, afterwards";
    EXPECT_EQ(message(), "");
    EXPECT_EQ(WindowMemory::recentFiles().front(), sourceFile("tests/captures/openssl-tls13/capture.pcap"));
}

TEST_F(MainWindowTest, OpensByMenuAndByArgument)
{
    choose("Open…", sourceFile("examples/tls12.pcap"));
    ASSERT_TRUE(waitUntil([&] { return window.document().session() && !window.document().isReading(); }));
    EXPECT_FALSE(isDecrypted());
    choose("Use Key Log…", sourceFile("examples/tls12.keylog"));
    EXPECT_TRUE(waitUntil([&] { return isDecrypted(); }));

    // The program itself remembers what it opened.
    QProcess program;
    program.start(QStringLiteral(SEALSCOPE_BINARY_DIR "/bin/sealscope-desktop"), {sourceFile("examples/https.pcapng")});
    EXPECT_TRUE(waitUntil([&] {
        UserDefaults::standard().synchronize();
        return WindowMemory::recentFiles().contains(sourceFile("examples/https.pcapng"));
    })) << program.readAllStandardError().toStdString();
    program.terminate();
    EXPECT_TRUE(program.waitForFinished());
}

TEST_F(MainWindowTest, TellsWhatCannotBeOpenedAndKeepsWhatIsOpen)
{
    open(sourceFile("examples/https.pcapng"));
    const auto session = window.document().session();
    const int rows = window.packets().packets().rowCount();
    const struct {
        QString file;
        const char* told;
    } cases[] = {
        {QString::fromStdString(directory.file("gone.pcap")), "gone.pcap: "},
        {QString::fromStdString(directory.write("note.pcap", "this is not a capture, but text")), "note.pcap: "},
        {QString::fromStdString(directory.path().string()), directory.path().c_str()},
    };
    for (const auto& [file, told] : cases) {
        window.messages().clear();
        window.document().open({file});
        ASSERT_TRUE(waitUntil([&] { return !window.document().isReading(); }));
        EXPECT_THAT(message(), testing::HasSubstr(told));
        EXPECT_EQ(window.document().session(), session);
        EXPECT_EQ(window.packets().packets().rowCount(), rows);
    }
    window.document().addKeyLogs({QString::fromStdString(directory.file("no-keys.txt"))});
    EXPECT_TRUE(waitUntil([&] { return message().contains("no-keys.txt: "); }));
    QTest::mouseClick(window.messages().findChild<QToolButton*>(), Qt::LeftButton);
    EXPECT_TRUE(window.messages().isHidden());
}

TEST_F(MainWindowTest, ReadsADamagedCaptureUpToItsDamage)
{
    Data whole = readFile(sourceFile("examples/tls12.pcap").toStdString());
    const std::string cut = directory.write("cut.pcap", whole.view().sub(0, whole.size() - 10));
    open(QString::fromStdString(cut));
    EXPECT_TRUE(waitUntil([&] { return message().contains("cut.pcap: "); }));

    // And one that becomes shorter while it is open.
    window.messages().clear();
    const std::string shrinking = directory.write("shrinking.pcap", whole);
    ASSERT_TRUE(opens(window.document(), {QString::fromStdString(shrinking)}));
    std::filesystem::resize_file(shrinking, 100);
    window.packets().showPacket(8);
    EXPECT_TRUE(waitUntil([&] { return message().contains("shrinking.pcap: "); }));
}

TEST_F(MainWindowTest, PicksUpAKeyLogThatGrows)
{
    const TLSSession session = runTLS({}, {clientSends("one"), serverSends("two")});
    const auto capture = directory.write("one.pcap", pcapFile(packets(tcpSegments(session.flights))));
    const auto keys = directory.write("keys.txt", "# to be filled\n");
    ASSERT_TRUE(opens(window.document(), {QString::fromStdString(capture)}, {QString::fromStdString(keys)}));
    EXPECT_FALSE(isDecrypted());
    int changes = 0;
    QObject::connect(&window.document(), &Document::secretsChanged, &window, [&] { ++changes; });
    std::ofstream(keys, std::ios::app) << session.keyLog;
    EXPECT_TRUE(waitUntil([&] { return changes > 0; }));
    EXPECT_TRUE(isDecrypted());
}

TEST_F(MainWindowTest, StopsReadingWithWhatHasBeenRead)
{
    // Many times the same packets: reading them takes a while.
    PcapBuilder large(1);
    const auto few = packets(tcpSegments(runTLS({}, {clientSends("one")}).flights));
    for (int round = 0; round < 80'000; ++round)
        for (const CapturePacket& packet : few) large.packet(packet);
    const auto capture = directory.write("large.pcap", DataView(large.bytes()));
    const auto all = static_cast<std::int64_t>(few.size()) * 80'000;
    bool isReading = false;
    QObject::connect(&window.packets().packets(), &QAbstractItemModel::rowsInserted, &window, [&] {
        isReading |= window.document().isReading();
        window.document().cancel();
    });
    // A busy machine may keep the window waiting until the reader is about to end, but not five times.
    for (int turn = 0; turn < 5; ++turn) {
        window.document().open({QString::fromStdString(capture)});
        ASSERT_TRUE(waitUntil([&] { return window.packets().packets().rowCount() > 0; }));
        ASSERT_TRUE(isReading) << "rows come while it is being read";
        ASSERT_TRUE(waitUntil([&] { return !window.document().isReading(); }));
        if (window.document().packets()->size() < all) break;
    }
    EXPECT_LT(window.document().packets()->size(), all);
    EXPECT_TRUE(window.document().session());
    EXPECT_TRUE(waitUntil([&] { return !window.packets().packets().isFiltering(); }));
    EXPECT_GT(window.packets().packets().rowCount(), 0);
}

TEST_F(MainWindowTest, FollowsACaptureThatGoesOn)
{
    // In the place of the program that captures: it hands a capture over in two parts, and then waits to be ended.
    const auto connection = [](std::uint16_t port) {
        TCPConversation conversation({.client = endpoint("192.0.2.1", port), .server = endpoint("192.0.2.2", 80)});
        conversation.open();
        conversation.send(TCPSegment::Direction::clientToServer, Data::fromText("GET /" + std::to_string(port) + " HTTP/1.1\r\nHost: h\r\n\r\n"));
        conversation.send(TCPSegment::Direction::serverToClient, Data::fromText("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"));
        return packets(conversation.segments);
    };
    auto both = connection(50'001);
    const std::string half = std::to_string(pcapFile(both).size());
    for (const CapturePacket& packet : connection(50'002)) both.push_back(packet);
    const std::string first = directory.write("both.pcap", pcapFile(both)), go = directory.file("go");
    const std::string program = directory.write("capture", "#!/bin/sh\n[ $3 = lo ] || { echo 'sealscope: it has no such interface' >&2; exit 1; }\n"
                                                           "trap 'exit 0' TERM; exec >\"$5.rows\"; head -c " + half + ' ' + first +
                                                               " >$5; until [ -e " + go + " ]; do sleep 0.05; done; tail -c +$((1 + " + half + ")) " +
                                                               first + " >$5; while :; do sleep 0.05; done\n");
    std::filesystem::permissions(program, std::filesystem::perms::owner_all);
    window.packets().setShowsEveryPacket(true);
    open(QString::fromStdString(first));
    const qint64 all = window.document().packets()->size();
    LiveRecording& recording = window.recording();
    recording.setProgram(QString::fromStdString(program));
    recording.start(QStringLiteral("lo"));
    StreamTabs& tabs = *window.findChild<StreamTabs*>();
    TableView& streams = tabs.streams().table();
    TableView& exchanges = tabs.exchanges().table();
    const auto hasRows = [&](int count) { return streams.model()->rowCount() == count && exchanges.model()->rowCount() == count; };
    ASSERT_TRUE(waitUntil([&] { return window.document().isLive() && hasRows(1); })) << "streams are there while it goes on";
    streams.selectRow(0);
    exchanges.sortByColumn(static_cast<int>(ExchangeTable::Column::url), Qt::DescendingOrder);
    exchanges.selectRow(0);
    directory.write("go", "");
    EXPECT_TRUE(waitUntil([&] { return window.document().packets()->size() == all; })) << "also what comes later";
    EXPECT_TRUE(waitUntil([&] { return hasRows(2); }));
    EXPECT_EQ(streams.currentIndex().row(), 0);
    EXPECT_EQ(exchanges.currentIndex().row(), 1) << "what was chosen stays so";
    EXPECT_EQ(exchanges.currentIndex().siblingAtColumn(static_cast<int>(ExchangeTable::Column::url)).data().toString(), QStringLiteral("http://h/50001"));
    recording.stop();
    ASSERT_TRUE(waitUntil([&] { return !recording.isRunning() && !window.document().isReading(); }));
    EXPECT_FALSE(window.document().isLive());
    const std::string kept = directory.write("kept.pcap", "mine");
    choose("Save Packets As…", QString::fromStdString(kept));
    EXPECT_TRUE(waitUntil([&] { return readFile(kept) == readFile(first); })) << "what was captured can be kept";
    choose("Save Packets As…", QStringLiteral("/dev/full"));
    EXPECT_TRUE(waitUntil([&] { return message() == "/dev/full: No space left on device"; })) << message();
    window.messages().clear();
    EXPECT_EQ(message(), "");

    const auto packets = window.document().packets();
    qputenv("PATH", "/nowhere");  // there is nobody to ask for the privilege
    recording.start(QStringLiteral("eth7"));
    ASSERT_TRUE(waitUntil([&] { return !message().empty(); }));
    EXPECT_EQ(message(), "it has no such interface");
    EXPECT_FALSE(window.document().isReading());
    EXPECT_EQ(window.document().packets(), packets) << "what is open stays";
}

TEST_F(MainWindowTest, TakesNoTextForMarkup)
{
    const QString file = QString::fromStdString(directory.file("<b>x</b>.pcap"));
    window.document().open({file});
    ASSERT_TRUE(waitUntil([&] { return !message().empty(); }));
    EXPECT_THAT(message(), testing::HasSubstr("<b>x</b>.pcap"));
    for (const QLabel* label : window.findChildren<QLabel*>())
        EXPECT_TRUE(label->textFormat() == Qt::PlainText || label->text().isEmpty()) << label->text().toStdString();
}

TEST_F(MainWindowTest, RemembersWhereItStood)
{
    window.resize(777, 555);
    window.close();
    EXPECT_EQ(MainWindow().size(), QSize(777, 555));
}

TEST_F(MainWindowTest, NamesEveryControlForAssistiveTechnology)
{
    ASSERT_TRUE(opens(window.document(), {sourceFile("examples/https.pcapng")}));
    for (QWidget* const widget : window.findChildren<QWidget*>()) {
        if (widget->focusPolicy() == Qt::NoFocus || !widget->isVisibleTo(&window) || widget->objectName().startsWith(QLatin1String("qt_")))
            continue;
        const QAccessibleInterface* const found = QAccessible::queryAccessibleInterface(widget);
        ASSERT_TRUE(found);
        const bool isContainer = found->role() == QAccessible::PageTabList || found->role() == QAccessible::Client;
        EXPECT_TRUE(isContainer || !found->text(QAccessible::Name).isEmpty()) << widget->metaObject()->className();
    }
}

}  // namespace

}  // namespace sealscope::desktop
