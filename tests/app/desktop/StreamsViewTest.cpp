// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/views/StreamsView.h"

#include "app/desktop/models/StreamsModel.h"
#include "app/desktop/views/FilterBar.h"
#include "app/desktop/views/TableView.h"
#include "app/desktop/views/VerdictPanel.h"
#include "tests/app/desktop/Browsing.h"
#include "tests/app/desktop/DesktopTest.h"

#include <QAbstractItemModelTester>
#include <QApplication>
#include <QClipboard>
#include <QComboBox>
#include <QFile>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QTest>

namespace sealscope::desktop {

namespace {

using Column = StreamTable::Column;

/// The rows as text: some columns of each.
std::string rows(const StreamsModel& model, std::initializer_list<Column> columns)
{
    QStringList lines;
    for (int row = 0; row < model.rowCount(); ++row) {
        QStringList cells;
        for (const Column column : columns) cells.append(model.index(row, static_cast<int>(column)).data().toString());
        lines.append(cells.join(QStringLiteral(" | ")));
    }
    return lines.join(QLatin1Char('\n')).toStdString();
}

class StreamsViewTest : public DesktopTest {
protected:
    StreamsViewTest() : browsing(directory), view(document), tester(&view.model()) { view.resize(1'200, 700); }

    void open(const QStringList& keyLogs)
    {
        ASSERT_TRUE(opens(document, {browsing.capture}, keyLogs));
        view.show();
        ASSERT_TRUE(waitUntil([&] { return isJudged(); }));
    }
    bool isJudged() const
    {
        for (std::uint32_t row = 0; row < model().table().size(); ++row)
            if (model().table()[row].tone == Tone::pending || !model().table()[row].isMeasured) return false;
        return true;
    }
    const StreamsModel& model() const { return const_cast<StreamsView&>(view).model(); }
    QString buttons() const
    {
        QStringList shown;
        for (const QPushButton* button : const_cast<StreamsView&>(view).panel().findChildren<QPushButton*>())
            if (button->isVisible()) shown.append(button->text().remove(QLatin1Char('&')));
        return shown.join(QStringLiteral(", "));
    }
    QString sentence() const
    {
        QString longest;
        for (const QLabel* label : const_cast<StreamsView&>(view).panel().findChildren<QLabel*>())
            if (label->text().size() > longest.size()) longest = label->text();
        return longest;
    }

    TempDirectory directory;
    Browsing browsing;
    Document document;
    StreamsView view;
    QAbstractItemModelTester tester;
};

TEST_F(StreamsViewTest, SaysOfEachStreamWhatItIsAndWhatToDo)
{
    open({browsing.keyLog});
    EXPECT_EQ(rows(model(), {Column::number, Column::client, Column::server, Column::serverName, Column::version, Column::verdict}),
              "0 | 192.0.2.17:50001 | 203.0.113.10:443 | shop.example.org | TLS 1.3 | decrypted\n"
              "1 | 192.0.2.17:50002 | 198.51.100.25:443 | mail.example.net | TLS 1.2 | no key material\n"
              "2 | 192.0.2.17:50003 | 198.51.100.80:80 |  |  | not TLS\n"
              "3 | 192.0.2.17:50004 | 203.0.113.5:443 |  |  | no handshake\n"
              "4 | 192.0.2.17:50005 | 203.0.113.9:7000 |  |  | not TLS");
    struct Case { int row; const char* sentence; const char* buttons; };
    const Case cases[] = {{0, "Client 6 of 6 records", "Follow Stream"},
                          {1, "The key log has no secret for this connection", "Choose Key Log…, Copy SSLKEYLOGFILE Line, Follow Stream"},
                          {3, "The capture starts after the Client Hello", "Follow Stream"}};
    for (const auto& [row, expected, buttonsShown] : cases) {
        view.table().selectRow(row);
        EXPECT_TRUE(sentence().startsWith(QString::fromUtf8(expected))) << row << ": " << sentence().toStdString();
        EXPECT_EQ(buttons().toStdString(), buttonsShown) << row;
    }
    view.table().selectRow(1);
    for (QPushButton* button : view.panel().findChildren<QPushButton*>())
        if (button->text().contains(QStringLiteral("SSLKEYLOGFILE"))) button->click();
    const QString line = QApplication::clipboard()->text();
    ASSERT_TRUE(line.startsWith(QStringLiteral("SSLKEYLOGFILE=/"))) << line.toStdString();
    EXPECT_TRUE(QFile::exists(line.mid(14)));
}

TEST_F(StreamsViewTest, SortsAndFiltersWhileTheSelectionStays)
{
    open({browsing.keyLog});
    struct Case { Column column; Qt::SortOrder order; const char* numbers; };
    const Case sorts[] = {{Column::client, Qt::DescendingOrder, "4\n3\n2\n1\n0"},
                          {Column::server, Qt::AscendingOrder, "1\n2\n0\n3\n4"},
                          {Column::serverName, Qt::AscendingOrder, "1\n0\n2\n3\n4"},
                          {Column::received, Qt::DescendingOrder, "0\n1\n3\n2\n4"},
                          {Column::start, Qt::DescendingOrder, "4\n3\n2\n1\n0"},
                          {Column::verdict, Qt::AscendingOrder, "0\n3\n1\n2\n4"}};
    view.table().selectRow(1);
    for (const auto& [column, order, numbers] : sorts) {
        view.table().sortByColumn(static_cast<int>(column), order);
        EXPECT_EQ(rows(model(), {Column::number}), numbers) << static_cast<int>(column);
        EXPECT_EQ(view.selectedStreams(), std::vector<std::int64_t>{1}) << static_cast<int>(column);
    }
    view.table().sortByColumn(0, Qt::AscendingOrder);
    struct Filter { const char* words; const char* numbers; };
    const Filter filters[] = {{"EXAMPLE.org", "0"}, {"113 443", "0\n3"}, {":443 tls", "0\n1"}, {"7000", "4"}, {"decrypted", "0"}, {"[::1]", ""}};
    for (const auto& [words, numbers] : filters) {
        view.filter().field().setText(QString::fromUtf8(words));
        QTest::keyClick(&view.filter().field(), Qt::Key_Return);
        EXPECT_EQ(rows(model(), {Column::number}), numbers) << words;
    }
    QTest::keyClick(&view.filter().field(), Qt::Key_Escape);
    ASSERT_TRUE(waitUntil([&] { return model().rowCount() == 5; }));
    auto* const verdicts = view.findChild<QComboBox*>();
    verdicts->setCurrentText(QStringLiteral("not TLS"));
    EXPECT_EQ(rows(model(), {Column::number}), "2\n4");
}

TEST_F(StreamsViewTest, JudgesAnewWhenSecretsArrive)
{
    const QString keys = QString::fromStdString(directory.write("growing.keys", ""));
    open({keys});
    EXPECT_EQ(rows(model(), {Column::verdict}), "no key material\nno key material\nnot TLS\nno handshake\nnot TLS");
    QFile from(browsing.otherKeyLog), to(keys);
    ASSERT_TRUE(from.open(QIODevice::ReadOnly) && to.open(QIODevice::Append));
    to.write(from.readAll());
    to.close();
    EXPECT_TRUE(waitUntil([&] { return isJudged() && rows(model(), {Column::verdict}).starts_with("no key material\ndecrypted"); }))
        << rows(model(), {Column::verdict});
}

TEST_F(StreamsViewTest, FollowsTheCurrentStreamByKeyboard)
{
    open({});
    qint64 wanted = -1;
    QObject::connect(&document, &Document::streamWanted, [&](qint64 stream) { wanted = stream; });
    view.table().selectRow(2);
    QTest::keyClick(&view.table(), Qt::Key_Return);
    EXPECT_EQ(wanted, 2);
}

TEST(StreamTable, FindsItsWayAmongAMillionStreams)
{
    constexpr std::int64_t count = 1'000'000;
    StreamTable table;
    table.reset(count);
    const std::string names[] = {"", "a.example.org", "b.example.org", "c.example.net"};
    for (std::int64_t number = 0; number < count; ++number) {
        StreamSummary summary{.number = number, .clientBytes = number * 7'919 % 100'003, .startTime = static_cast<double>(number % 977)};
        summary.client.address[3] = static_cast<std::uint8_t>(number % 200);
        summary.client.port = static_cast<std::uint16_t>(number % 60'000);
        summary.server.port = 443;
        table.measure(summary);
        table.judge({.stream = number, .tone = number % 3 == 0 ? Tone::good : Tone::closed, .verdict = number % 3 == 0 ? "decrypted" : "key mismatch",
                     .serverName = names[number % 4]});
    }
    RowOrder order;
    table.arrange(order, Column::sent, RowOrder::Direction::descending, {}, 0);
    ASSERT_EQ(order.size(), count);
    for (std::int64_t i = 1; i < count; ++i) {
        ASSERT_GE(table[order[i - 1]].clientBytes, table[order[i]].clientBytes);
        if (table[order[i - 1]].clientBytes == table[order[i]].clientBytes) { ASSERT_LT(order[i - 1], order[i]); }
    }
    table.arrange(order, Column::client, RowOrder::Direction::ascending, FilterTerms("example.net :59 decrypted"), 0);
    std::int64_t expected = 0;
    for (std::int64_t number = 3; number < count; number += 12)
        expected += std::to_string(number % 60'000).starts_with("59");
    EXPECT_EQ(order.size(), expected);
    EXPECT_EQ(order.position(order[5]), 5);
    EXPECT_EQ(order.position(0), -1);
}

}  // namespace

}  // namespace sealscope::desktop
