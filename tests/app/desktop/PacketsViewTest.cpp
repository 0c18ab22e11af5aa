// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/views/PacketsView.h"

#include "app/desktop/models/FieldModel.h"
#include "app/desktop/models/PacketModel.h"
#include "app/desktop/views/ActivityChart.h"
#include "app/desktop/views/HexView.h"
#include "platform/UserDefaults.h"
#include "tests/app/desktop/DesktopTest.h"
#include "tests/cli/Program.h"

#include <QAbstractItemModelTester>
#include <QComboBox>
#include <QLineEdit>
#include <QTableView>
#include <QTest>
#include <QTreeView>

namespace sealscope::desktop {

namespace {

class PacketsViewTest : public DesktopTest {
protected:
    PacketsViewTest()
    {
        // The tester would fetch while it still takes the model for being reset.
        fieldTester.setUseFetchMore(false);
        view.resize(1'000, 800);
        view.show();
    }

    void open(const char* file = "examples/https.pcapng")
    {
        ASSERT_TRUE(opens(document, {sourceFile(file)}));
        ASSERT_TRUE(settles());
    }
    bool settles()
    {
        QTest::qWait(0);
        return waitUntil([&] { return !view.packets().isFiltering(); });
    }
    std::string cell(int row, int column) const { return view_model().index(row, column).data().toString().toStdString(); }
    const PacketModel& view_model() const { return const_cast<PacketsView&>(view).packets(); }
    void filter(const char* text)
    {
        view.findChild<QLineEdit*>()->setText(QString::fromUtf8(text));
        QTest::keyClick(view.findChild<QLineEdit*>(), Qt::Key_Return);
        ASSERT_TRUE(settles());
    }
    QString chosenField() const
    {
        return const_cast<PacketsView&>(view).fields().currentIndex().siblingAtColumn(FieldModel::name).data().toString();
    }

    Document document;
    PacketsView view{document};
    QAbstractItemModelTester tester{&view.packets(), QAbstractItemModelTester::FailureReportingMode::Fatal};
    QAbstractItemModelTester fieldTester{view.fields().model(), QAbstractItemModelTester::FailureReportingMode::Fatal};
};

TEST_F(PacketsViewTest, ListsWhatTheCommandLineLists)
{
    open();
    const auto lines = cli::jsonLines(cli::sealscope({"packets", "--json", sourceFile("examples/https.pcapng").toStdString()}).output);
    ASSERT_EQ(view_model().rowCount(), static_cast<int>(lines.size()));
    for (int row = 0; row < view_model().rowCount(); ++row) {
        const auto& line = lines[static_cast<std::size_t>(row)];
        EXPECT_EQ(cell(row, PacketModel::number), std::to_string(line["number"].get<int>()));
        EXPECT_EQ(cell(row, PacketModel::source), line["source"].get<std::string>());
        EXPECT_EQ(cell(row, view_model().infoColumn()), line["info"].get<std::string>());
        EXPECT_EQ(cell(row, PacketModel::firstOfPlugIns), line["tlsServerName"].is_string() ? line["tlsServerName"].get<std::string>() : "");
    }
}

TEST_F(PacketsViewTest, FiltersByWhatColumnsDeclare)
{
    open();
    auto* const kinds = view.findChild<QComboBox*>();
    ASSERT_GE(kinds->findText(QStringLiteral("TLS Server Name contains")), 0);
    filter("EXAMPLE");
    EXPECT_EQ(view_model().rowCount(), 1) << "any column: the Client Hello alone names the server";
    kinds->setCurrentText(QStringLiteral("TLS Server Name contains"));
    filter("hello");
    EXPECT_EQ(view_model().rowCount(), 0) << "only its summary says so";
    filter("ample.o");
    ASSERT_EQ(view_model().rowCount(), 1);
    EXPECT_EQ(cell(0, PacketModel::number), "4");
    filter("");
    EXPECT_GT(view_model().rowCount(), 1);
}

TEST_F(PacketsViewTest, FieldsAndBytesChooseEachOther)
{
    open();
    view.showPacket(4);
    QTest::qWait(0);
    HexView& bytes = view.bytes();
    // The legacy session id of a Client Hello stands behind record header, message header, version and random (RFC 8446 §4.1.2),
    // a byte with its length before it.
    const qint64 sessionId = 5 + 4 + 2 + 32;
    QTest::mouseClick(bytes.viewport(), Qt::LeftButton, {}, bytes.placeOf(sessionId + 5));
    EXPECT_EQ(chosenField(), QStringLiteral("Session ID"));
    EXPECT_LE(bytes.marked().first, sessionId + 5);
    EXPECT_GE(bytes.marked().first + bytes.marked().second, sessionId + 6);

    view.fields().setCurrentIndex(view.fields().model()->index(0, 0));
    EXPECT_EQ(bytes.marked().first, 0) << "the root's bytes begin the payload";
    QTest::mouseClick(bytes.viewport(), Qt::LeftButton, {}, bytes.placeOf(0));
    QTest::keyClick(&bytes, Qt::Key_Right);
    EXPECT_EQ(chosenField(), QStringLiteral("Version")) << "the record's version is its second byte";
    EXPECT_EQ(bytes.copiedText(), QStringLiteral("0301"));
}

TEST_F(PacketsViewTest, ShowsThePacketThatAnotherViewNames)
{
    open();
    filter("example");
    view.showPacket(16);
    ASSERT_TRUE(settles());
    EXPECT_TRUE(view.showsEveryPacket()) << "no plug-in recognizes it by itself";
    EXPECT_EQ(view.table().currentIndex().siblingAtColumn(PacketModel::number).data().toString(), QStringLiteral("16"));
    EXPECT_EQ(view_model().rowCount(), document.packets()->size());
}

TEST_F(PacketsViewTest, DraggingOverTheChartChoosesASpan)
{
    open();
    ActivityChart& chart = view.chart();
    ASSERT_TRUE(waitUntil([&] { return !chart.bins().bins.empty(); }));
    const int all = view_model().rowCount(), middle = chart.height() / 2;
    QTest::mousePress(&chart, Qt::LeftButton, {}, {chart.width() / 2, middle});
    QTest::mouseMove(&chart, {chart.width() - 1, middle});
    QTest::mouseRelease(&chart, Qt::LeftButton, {}, {chart.width() - 1, middle});
    ASSERT_TRUE(chart.times());
    ASSERT_TRUE(settles());
    EXPECT_GT(view_model().rowCount(), 0);
    EXPECT_LT(view_model().rowCount(), all);
    for (int row = 0; row < view_model().rowCount(); ++row)
        EXPECT_GE((*document.packets())[view_model().position(row)].time, chart.times()->first);
    QTest::keyClick(&chart, Qt::Key_Escape);
    ASSERT_TRUE(settles());
    EXPECT_EQ(view_model().rowCount(), all);
}

TEST_F(PacketsViewTest, ColoursRowsAsTheSettingsSay)
{
    open();
    const auto background = [&] { return view_model().index(0, 0).data(Qt::BackgroundRole).value<QBrush>(); };
    EXPECT_EQ(background().style(), Qt::NoBrush);
    UserDefaults& defaults = UserDefaults::standard();
    const std::string prefix = "com_quillmarshworks_vel_tls_color";
    defaults.set(prefix, std::string("#102030"));
    // As another process would.
    EXPECT_EQ(cli::sealscope({"settings", "set", prefix + "_use", "true"}, {.environment = {"XDG_CONFIG_HOME=" + std::string(getenv("XDG_CONFIG_HOME"))}}).status, 0);
    EXPECT_TRUE(waitUntil([&] { return background().color() == QColor(0x10, 0x20, 0x30); }));
    EXPECT_EQ(view_model().index(0, 0).data(Qt::ForegroundRole).value<QBrush>().color(), QColor(Qt::white)) << "readable on it";
    defaults.set(prefix + "_use", false);
    EXPECT_TRUE(waitUntil([&] { return background().style() == Qt::NoBrush; }));
}

}  // namespace

}  // namespace sealscope::desktop
