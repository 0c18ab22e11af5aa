// SPDX-License-Identifier: Apache-2.0
// Makes a picture of every view in both colour schemes: Screenshots FOLDER

#include "app/desktop/Appearance.h"
#include "app/desktop/MainWindow.h"
#include "app/desktop/MessageBar.h"
#include "app/desktop/Program.h"
#include "app/desktop/StreamTabs.h"
#include "app/desktop/models/ExchangesModel.h"
#include "app/desktop/models/MessagesModel.h"
#include "app/desktop/views/ActivityChart.h"
#include "app/desktop/views/ConversationView.h"
#include "app/desktop/views/ExchangesView.h"
#include "app/desktop/views/HexView.h"
#include "app/desktop/views/PacketsView.h"
#include "app/desktop/views/StreamsView.h"
#include "app/desktop/views/TableView.h"
#include "tests/app/desktop/Browsing.h"
#include "tests/app/desktop/DesktopTest.h"

#include <QApplication>
#include <QDialog>
#include <QLineEdit>
#include <QListView>
#include <QTabWidget>
#include <QTableView>
#include <QTest>

#include <cstdio>
#include <utility>

namespace sealscope::desktop {

namespace {

class Photographer {
public:
    Photographer(QString folder, Appearance appearance)
        : folder_(std::move(folder)), scheme_(appearance == Appearance::dark ? QStringLiteral("dark") : QStringLiteral("light"))
    {
        apply(appearance);
    }

    bool take(QWidget& widget, const char* name)
    {
        QTest::qWait(200);  // what is found beside the main thread arrives
        const QString path = folder_ + QLatin1Char('/') + QLatin1String(name) + QLatin1Char('-') + scheme_ + QLatin1String(".png");
        return widget.grab().save(path);
    }

private:
    QString folder_;
    QString scheme_;
};

/// Streams, exchanges, and a conversation with bodies of several kinds.
bool photographStreams(MainWindow& window, Photographer& photographer)
{
    const TempDirectory directory;
    const Browsing browsing(directory);
    StreamTabs& tabs = *window.findChild<StreamTabs*>();
    if (!opens(window.document(), {browsing.capture}, {browsing.keyLog})) return false;
    window.tabs().setCurrentWidget(&tabs.streams());
    tabs.streams().table().selectRow(1);
    bool isDone = photographer.take(window, "streams");
    window.tabs().setCurrentWidget(&tabs.exchanges());
    isDone &= waitUntil([&] { return !tabs.exchanges().model().isSearching(); });
    tabs.exchanges().table().selectRow(1);
    isDone &= photographer.take(window, "exchanges");
    window.document().showStream(0);
    MessagesModel& messages = tabs.conversation().messages();
    isDone &= waitUntil([&] { return !messages.isLoading(); });
    for (const auto& [summary, name] : {std::pair("200 (application/json", "conversation"), std::pair("200 (image/png", "image")}) {
        tabs.conversation().list().setCurrentIndex(messages.index(messages.find(QLatin1String(summary), -1, 1)));
        isDone &= photographer.take(window, name);
    }
    return isDone;
}

bool photograph(const QString& folder, Appearance appearance)
{
    MainWindow window;
    Photographer photographer(folder, appearance);
    window.resize(1200, 800);
    window.show();
    bool isDone = photographer.take(window, "welcome");
    Document& document = window.document();
    if (!opens(document, {sourceFile("examples/https.pcapng")})) return false;
    PacketsView& packets = window.packets();
    packets.showPacket(4);
    QTest::qWait(200);
    Q_EMIT packets.bytes().byteChosen(60);
    isDone &= photographer.take(window, "packets");
    packets.setShowsEveryPacket(true);
    document.tell(QStringLiteral("office.pcapng: block at byte 88104: length 12 is too short for an Enhanced Packet Block (32); 411 packets "
                                 "before it were read"));
    isDone &= photographer.take(window, "message");
    packets.findChild<QLineEdit*>()->setText(QStringLiteral("nothing has this in it"));
    QTest::qWait(400);
    isDone &= photographer.take(window, "filtered");
    isDone &= photographer.take(*window.showSettings(), "settings");
    packets.findChild<QLineEdit*>()->clear();
    return photographStreams(window, photographer) && isDone;
}

}  // namespace

}  // namespace sealscope::desktop

int main(int argumentCount, char** arguments)
{
    using namespace sealscope::desktop;
    if (argumentCount != 2) {
        std::fprintf(stderr, "use: Screenshots FOLDER\n");
        return 2;
    }
    QApplication application(argumentCount, arguments);
    prepareForTests();
    const QString folder = QString::fromLocal8Bit(arguments[1]);
    bool isDone = true;
    for (const Appearance appearance : {Appearance::light, Appearance::dark}) isDone &= photograph(folder, appearance);
    Job::waitForAll();
    return isDone ? 0 : 1;
}
