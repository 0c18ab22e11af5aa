// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/views/ExchangesView.h"

#include "app/desktop/models/ExchangesModel.h"
#include "app/desktop/models/MessagesModel.h"
#include "app/desktop/views/ConversationView.h"
#include "app/desktop/views/FilterBar.h"
#include "app/desktop/views/TableView.h"
#include "tests/app/desktop/Browsing.h"
#include "tests/app/desktop/DesktopTest.h"

#include <QAbstractItemModelTester>
#include <QLineEdit>
#include <QListView>
#include <QTest>

namespace sealscope::desktop {

namespace {

using ExchangeColumn = ExchangeTable::Column;

class ExchangesViewTest : public DesktopTest {
protected:
    ExchangesViewTest() : browsing(directory), view(document), tester(&view.model())
    {
        view.resize(1'200, 500);
        view.show();
    }

    void open()
    {
        ASSERT_TRUE(opens(document, {browsing.capture}, {browsing.keyLog}));
        ASSERT_TRUE(waitUntil([&] { return !view.model().isSearching(); }));
    }
    std::string rows(std::initializer_list<ExchangeColumn> columns)
    {
        QStringList lines;
        for (int row = 0; row < view.model().rowCount(); ++row) {
            QStringList cells;
            for (const ExchangeColumn column : columns) cells.append(view.model().index(row, static_cast<int>(column)).data().toString());
            lines.append(cells.join(QLatin1Char(' ')));
        }
        return lines.join(QLatin1Char('\n')).toStdString();
    }

    TempDirectory directory;
    Browsing browsing;
    Document document;
    ExchangesView view;
    QAbstractItemModelTester tester;
};

TEST_F(ExchangesViewTest, ListsSortsAndFilters)
{
    open();
    const std::initializer_list<ExchangeColumn> columns{ExchangeColumn::stream, ExchangeColumn::method, ExchangeColumn::status, ExchangeColumn::type, ExchangeColumn::url};
    EXPECT_EQ(rows(columns), "0 GET 200 text/html https://shop.example.org/\n"
                             "0 GET 200 application/json https://shop.example.org/api/cart?full=1\n"
                             "0 GET 200 image/png https://shop.example.org/static/logo.png\n"
                             "0 POST 201 application/json https://shop.example.org/api/orders\n"
                             "0 GET 404 text/plain https://shop.example.org/old-page\n"
                             "2 GET 200 text/plain http://plain.example.com/<b>bold</b>\n"
                             "2 GET 200 application/octet-stream http://plain.example.com/data.bin\n"
                             "2 GET none  http://plain.example.com/never-answered");
    view.table().sortByColumn(static_cast<int>(ExchangeColumn::size), Qt::DescendingOrder);
    EXPECT_TRUE(rows({ExchangeColumn::type}).starts_with("image/png\napplication/json\n")) << rows({ExchangeColumn::type, ExchangeColumn::size});
    view.table().sortByColumn(static_cast<int>(ExchangeColumn::url), Qt::AscendingOrder);
    EXPECT_TRUE(rows({ExchangeColumn::url}).starts_with("http://plain.example.com/<b>bold</b>\n")) << rows({ExchangeColumn::url});
    view.filter().field().setText(QStringLiteral("JSON shop 201"));
    QTest::keyClick(&view.filter().field(), Qt::Key_Return);
    EXPECT_EQ(rows({ExchangeColumn::url}), "https://shop.example.org/api/orders");
}

TEST_F(ExchangesViewTest, DrawsTimesAmongThoseThatAreShown)
{
    open();
    const ExchangesModel& model = view.model();
    double before = 0;
    for (int row = 0; row < model.rowCount(); ++row) {
        const ExchangesModel::Bar bar = model.bar(model.index(row, 0));
        EXPECT_TRUE(bar.begin >= before && bar.reply >= bar.begin && bar.end >= bar.reply && bar.end <= 1) << row;
        before = bar.begin;
    }
    EXPECT_EQ(model.bar(model.index(0, 0)).begin, 0);
    view.model().setFilter(QStringLiteral("logo.png"));
    EXPECT_EQ(model.bar(model.index(0, 0)).begin, 0);
    EXPECT_EQ(model.bar(model.index(0, 0)).end, 1);
}

TEST_F(ExchangesViewTest, LeadsToTheMessageInItsConversation)
{
    ConversationView conversation(document);
    QObject::connect(&view, &ExchangesView::messageChosen, &conversation, &ConversationView::showMessage);
    open();
    for (int row = 0; row < view.model().rowCount(); ++row) {
        view.table().selectRow(row);
        QTest::keyClick(&view.table(), Qt::Key_Return);
        ASSERT_TRUE(waitUntil([&] { return !conversation.messages().isLoading(); }));
        const QString url = view.model().index(row, static_cast<int>(ExchangeColumn::url)).data().toString();
        EXPECT_TRUE(conversation.list().currentIndex().data().toString().endsWith(url)) << url.toStdString();
    }
}

}  // namespace

}  // namespace sealscope::desktop
