// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/views/ConversationView.h"

#include "app/desktop/models/BodyText.h"
#include "app/desktop/models/DetailModel.h"
#include "app/desktop/models/MessagesModel.h"
#include "app/desktop/views/BodyView.h"
#include "app/desktop/views/MessagePanel.h"
#include "tests/app/desktop/Browsing.h"
#include "tests/app/desktop/DesktopTest.h"

#include <QAbstractItemModelTester>
#include <QApplication>
#include <QClipboard>
#include <QElapsedTimer>
#include <QFile>
#include <QLineEdit>
#include <QListView>
#include <QMenu>
#include <QPushButton>
#include <QTest>
#include <QToolButton>

#include <algorithm>
#include <gmock/gmock.h>

namespace sealscope::desktop {

namespace {

using Page = BodyView::Page;

class ConversationViewTest : public DesktopTest {
protected:
    ConversationViewTest() : browsing(directory), view(document), tester(&view.messages())
    {
        QObject::connect(&document, &Document::failed, [this](const QString& sentence) { told = sentence; });
        view.resize(1'200, 700);
        view.show();
    }

    void follow(qint64 stream)
    {
        if (!document.session()) { ASSERT_TRUE(opens(document, {browsing.capture}, {browsing.keyLog})); }
        document.showStream(stream);
        ASSERT_TRUE(waitUntil([&] { return !view.messages().isLoading(); }));
    }
    /// Selects the message whose summary begins with a text, and waits for its body.
    void choose(const char* summary)
    {
        for (int row = 0; row < view.messages().rowCount(); ++row) {
            if (!view.messages().index(row).data().toString().startsWith(QString::fromUtf8(summary))) continue;
            view.list().setCurrentIndex(view.messages().index(row));
            ASSERT_TRUE(waitUntil([&] { return !body().isLoading(); }));
            return;
        }
        FAIL() << "no message " << summary;
    }
    std::string current() { return view.list().currentIndex().data().toString().toStdString(); }
    QString copied(const char* action)
    {
        QApplication::clipboard()->clear();
        for (QAction* each : view.panel().copyMenu().actions())
            if (each->text().remove(QLatin1Char('&')) == QString::fromUtf8(action)) each->trigger();
        told.clear();
        waitUntil([&] { return !QApplication::clipboard()->text().isEmpty() || !told.isEmpty(); });
        return QApplication::clipboard()->text();
    }
    BodyView& body() { return view.panel().body(); }

    TempDirectory directory;
    Browsing browsing;
    Document document;
    ConversationView view;
    QAbstractItemModelTester tester;
    QString told;
};

// Of two connections the second resumes the first one's session, and has no secret of its own.
TEST_F(ConversationViewTest, ShowsASessionThatIsResumed)
{
    const QString folder = sourceFile("tests/captures/openssl-tls12-resumption/");
    std::string secrets(readFile(folder.toStdString() + "keylog.txt").view().text());
    secrets.erase(secrets.rfind("CLIENT_RANDOM"));
    ASSERT_TRUE(opens(document, {folder + QStringLiteral("capture.pcap")}, {QString::fromStdString(directory.write("first.txt", secrets))}));
    follow(1);
    choose("Decrypted Application Data");
}

TEST_F(ConversationViewTest, ShowsWhoSaidWhatAndWhatAnswersWhat)
{
    follow(0);
    MessagesModel& messages = view.messages();
    EXPECT_EQ(messages.heading().toStdString(), "Stream 0:  192.0.2.17:50001  →  203.0.113.10:443");
    EXPECT_TRUE(messages.facts().startsWith(QStringLiteral("shop.example.org, TLS 1.3, TLS_AES_256_GCM_SHA384, ")));
    choose("GET https://shop.example.org/api/cart");
    EXPECT_TRUE(view.list().currentIndex().data(MessagesModel::ClientRole).toBool());
    EXPECT_TRUE(view.list().currentIndex().data(MessagesModel::DecryptedRole).toBool());
    const DetailModel& details = view.panel().details();
    std::string rows;
    for (int row = 0; row < details.rowCount(); ++row)
        rows += details.index(row, 0).data().toString().toStdString() + ": " + details.index(row, 1).data().toString().toStdString() + '\n';
    EXPECT_EQ(rows, "TLS: decrypted\nHost: shop.example.org\nUser-Agent: Browser/1.0\nAccept: application/json\nCookie: session=f00d\n");
    // The pairing, from both of its ends, by button and by key.
    view.panel().partner().click();
    EXPECT_EQ(current(), "200 (application/json, 172 bytes)");
    EXPECT_FALSE(view.list().currentIndex().data(MessagesModel::ClientRole).toBool());
    view.activateWindow();
    ASSERT_TRUE(QTest::qWaitForWindowActive(&view));
    view.list().setFocus();
    QTest::keyClick(&view.list(), Qt::Key_Return);
    EXPECT_EQ(current(), "GET https://shop.example.org/api/cart?full=1");
    view.search().setText(QStringLiteral("OLD-page"));
    QTest::keyClick(&view.search(), Qt::Key_Return);
    EXPECT_EQ(current(), "GET https://shop.example.org/old-page");
    follow(2);
    choose("GET http://plain.example.com/never");
    EXPECT_FALSE(view.panel().partner().isVisible());
    EXPECT_EQ(view.list().currentIndex().data(MessagesModel::PairingRole).toString().toStdString(), "no answer");
}

TEST_F(ConversationViewTest, ShowsBodiesAsWhatTheyAre)
{
    follow(0);
    choose("200 (text/html");
    EXPECT_EQ(body().pages(), (std::vector{Page::text, Page::bytes}));
    EXPECT_EQ(body().text().toStdString(), "<!doctype html>\n<title>Shop</title>\n<script>alert('never')</script>");
    EXPECT_TRUE(body().remark().startsWith(QStringLiteral("Text in UTF-8, 68 bytes"))) << body().remark().toStdString();
    choose("200 (application/json");
    EXPECT_EQ(body().pages(), (std::vector{Page::json, Page::text, Page::bytes}));
    EXPECT_TRUE(body().text().startsWith(QStringLiteral("{\n  \"cart\": {\n    \"items\": [\n      {\n        \"name\": \"Grüner Tee\",\n        \"price\": 4.50,")))
        << body().text().toStdString();
    EXPECT_TRUE(body().text().endsWith(QStringLiteral("\"id\": 12345678901234567890\n}")));
    body().showPage(Page::text);
    EXPECT_TRUE(body().text().startsWith(QStringLiteral("{\"cart\":{\"items\":[")));
    choose("200 (image/png");
    EXPECT_EQ(body().pages(), (std::vector{Page::image, Page::bytes}));
    EXPECT_TRUE(body().remark().startsWith(QStringLiteral("Image of 96 × 64 pixels"))) << body().remark().toStdString();
    follow(2);
    choose("200 (text/plain");
    // Latin 1 is read as such; what a terminal would obey stands as an escape, and a tab is one.
    EXPECT_EQ(body().text().toStdString(), "café\tand \\x1B[2Jmore");
    choose("200 (application/octet");
    EXPECT_EQ(body().pages(), std::vector{Page::bytes});
    choose("GET http://plain.example.com/data.bin");
    EXPECT_TRUE(body().pages().empty());
}

TEST_F(ConversationViewTest, ObeysNothingFromTheWire)
{
    follow(2);
    choose("GET http://plain.example.com/<b>bold</b>");
    const DetailModel& details = view.panel().details();
    EXPECT_EQ(details.index(2, 1).data().toString().toStdString(), "\\u{202E}evil\\x1B[31m <img src=x>");
    for (const QModelIndex& index : {details.index(2, 1), view.list().currentIndex()})
        EXPECT_FALSE(index.data(Qt::ToolTipRole).toString().contains(QStringLiteral("<img"))) << "a tool tip may be markup";
    EXPECT_FALSE(view.list().currentIndex().data(Qt::ToolTipRole).toString().contains(QStringLiteral("<b>")));
}

TEST_F(ConversationViewTest, CopiesAndSaves)
{
    follow(0);
    choose("POST https://shop.example.org/api/orders");
    EXPECT_EQ(copied("As Text").toStdString(), "→ POST https://shop.example.org/api/orders\nTLS: decrypted\nHost: shop.example.org\n"
                                               "User-Agent: Browser/1.0\nContent-Type: application/json\nContent-Length: 31\n\n"
                                               "{\"cart\":7,\"note\":\"it's urgent\"}\n");
    EXPECT_EQ(copied("As curl").toStdString(), "curl 'https://shop.example.org/api/orders' \\\n  --header 'User-Agent: Browser/1.0' \\\n"
                                               "  --header 'Content-Type: application/json' \\\n"
                                               "  --data-raw $'{\"cart\":7,\"note\":\"it\\x27s urgent\"}'\n");
    EXPECT_TRUE(copied("As har").contains(QStringLiteral("\"status\":201")));
    EXPECT_TRUE(copied("As pem").isEmpty());
    EXPECT_EQ(told.toStdString(), "This message has nothing that could be copied as pem");

    const QString file = QString::fromStdString(directory.file("order.json"));
    view.panel().saveBody(file);
    ASSERT_TRUE(waitUntil([&] { return QFile::exists(file); }));
    QFile saved(file);
    ASSERT_TRUE(saved.open(QIODevice::ReadOnly));
    EXPECT_EQ(saved.readAll().toStdString(), "{\"cart\":7,\"note\":\"it's urgent\"}");
    told.clear();
    view.panel().saveBody(QStringLiteral("/dev/full"));
    EXPECT_TRUE(waitUntil([&] { return told == QStringLiteral("/dev/full: No space left on device"); })) << told.toStdString();
}

TEST_F(ConversationViewTest, LeadsToPacketsAndBack)
{
    follow(0);
    choose("200 (application/json");
    qint64 packet = -1;
    QObject::connect(&document, &Document::packetWanted, [&](qint64 number) { packet = number; });
    view.panel().packets().click();
    ASSERT_GT(packet, 0);
    follow(2);
    view.showPacket(0, packet);
    ASSERT_TRUE(waitUntil([&] { return !view.messages().isLoading(); }));
    EXPECT_EQ(current(), "200 (application/json, 172 bytes)");
}

TEST_F(ConversationViewTest, StaysInPlaceWhenSecretsArrive)
{
    const QString keys = QString::fromStdString(directory.write("growing.keys", ""));
    ASSERT_TRUE(opens(document, {browsing.capture}, {keys}));
    follow(0);
    const int closed = view.messages().rowCount();
    view.list().setCurrentIndex(view.messages().index(closed - 1));
    const std::int64_t packet = view.messages().message(closed - 1).packetIds.front();
    QFile from(browsing.keyLog), to(keys);
    ASSERT_TRUE(from.open(QIODevice::ReadOnly) && to.open(QIODevice::Append));
    to.write(from.readAll());
    to.close();
    ASSERT_TRUE(waitUntil([&] { return view.messages().rowCount() > closed && !view.messages().isLoading(); }));
    ASSERT_TRUE(view.list().currentIndex().isValid());
    EXPECT_THAT(view.messages().message(view.list().currentIndex().row()).packetIds, testing::Contains(packet)) << current();
}

TEST_F(ConversationViewTest, HoldsAHundredThousandMessages)
{
    ASSERT_TRUE(opens(document, {manyRequests(directory, 50'000)}));
    follow(0);
    ASSERT_EQ(view.messages().rowCount(), 100'000);
    // To paint a screen costs the same wherever it is.
    const auto milliseconds = [&](int row) {
        view.list().setCurrentIndex(view.messages().index(row));
        view.list().scrollTo(view.messages().index(row));
        QElapsedTimer timer;
        timer.start();
        for (int i = 0; i < 20; ++i) view.list().grab();
        return timer.elapsed();
    };
    const qint64 atTheStart = milliseconds(10);
    EXPECT_LT(milliseconds(99'990), 5 * atTheStart + 100);
}

TEST(BodyText, IndentsJSONWithoutTouchingItsValues)
{
    struct Case { const char* text; std::optional<std::string> expected; };
    const Case cases[] = {{"{}", "{}"},
                          {" [ 1 ,2.50, [ ] ]\n", "[\n  1,\n  2.50,\n  []\n]"},
                          {R"({"b":"x\"{,:","a":null,"b":1e300})", "{\n  \"b\": \"x\\\"{,:\",\n  \"a\": null,\n  \"b\": 1e300\n}"},
                          {"{\"a\":1", std::nullopt},
                          {"plain", std::nullopt},
                          {"12", std::nullopt}};
    for (const auto& [text, expected] : cases) EXPECT_EQ(indentedJSON(text), expected) << text;
}

TEST(BodyText, BreaksLongLinesAndKeepsCharactersWhole)
{
    std::string line = "x";
    for (int i = 0; i < 3'000; ++i) line += "é";
    const auto text = bodyText(DataView(line), StreamBodyHint::text(TextEncoding::utf8));
    ASSERT_TRUE(text);
    std::string joined;
    std::ranges::copy_if(*text, std::back_inserter(joined), [](char letter) { return letter != '\n'; });
    EXPECT_EQ(joined, line);
    EXPECT_EQ(std::ranges::count(*text, '\n'), 3);
    EXPECT_EQ(bodyText(DataView(std::string_view("caf\xc3")), std::nullopt), "caf");
    EXPECT_EQ(bodyText(DataView(std::string_view("\x01\x02")), std::nullopt), std::nullopt);
}

}  // namespace

}  // namespace sealscope::desktop
