// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/SettingsDialog.h"

#include "app/desktop/views/ViewBuilder.h"
#include "harness/TempDirectory.h"
#include "host/VELCommonTools/KeylogLocations.h"
#include "host/VELCommonTools/KeylogUserFile.h"
#include "platform/UserDefaults.h"
#include "tests/app/desktop/DesktopTest.h"

#include <QApplication>
#include <QCheckBox>
#include <QClipboard>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QTest>

namespace sealscope::desktop {

namespace {

class SettingsDialogTest : public DesktopTest {
protected:
    SettingsDialogTest() { dialog.show(); }

    QPushButton* button(const char* title)
    {
        for (QPushButton* const found : dialog.findChildren<QPushButton*>())
            if (found->text() == QString::fromUtf8(title)) return found;
        return nullptr;
    }

    UserDefaults& defaults = UserDefaults::standard();
    const std::string usesColorKey = "com_quillmarshworks_vel_tls_color_use";
    const std::string pathKey{KeylogUserFile::pathDefaultsKey()};
    SettingsDialog dialog;
};

TEST_F(SettingsDialogTest, KeepsWhatIsSetAndShowsWhatOthersSet)
{
    auto* const box = dialog.findChild<QCheckBox*>();
    auto* const path = dialog.findChild<QLineEdit*>();
    ASSERT_TRUE(box && path);
    QTest::mouseClick(box, Qt::LeftButton, {}, {8, box->height() / 2});
    QTest::keyClicks(path, QStringLiteral("/keys.txt"));
    // What another process finds in the file.
    UserDefaults other(defaults.file());
    EXPECT_TRUE(other.boolean(usesColorKey));
    EXPECT_EQ(other.string(pathKey), "/keys.txt");

    other.set(usesColorKey, false);
    other.set(pathKey, std::string("/other.txt"));
    defaults.synchronize();
    EXPECT_TRUE(waitUntil([&] { return !box->isChecked() && path->text() == QLatin1String("/other.txt"); }));

    QTest::mouseClick(button("Restore Defaults"), Qt::LeftButton);
    EXPECT_TRUE(waitUntil([&] { return path->text().isEmpty(); }));
}

TEST_F(SettingsDialogTest, ReachesFilesAndTheClipboard)
{
    const TempDirectory directory;
    const std::string chosen = directory.write("chosen.txt", "");
    answerFilePanel(QString::fromStdString(chosen));
    QTest::mouseClick(button("Choose…"), Qt::LeftButton);
    EXPECT_EQ(defaults.string(pathKey), chosen);
    EXPECT_TRUE(waitUntil([&] { return dialog.findChild<QLineEdit*>()->text().toStdString() == chosen; }));
    QTest::mouseClick(button("Copy SSLKEYLOGFILE=…"), Qt::LeftButton);
    EXPECT_EQ(QApplication::clipboard()->text().toStdString(), "SSLKEYLOGFILE=" + KeylogLocations::liveKeylog().string());
    EXPECT_TRUE(std::filesystem::exists(KeylogLocations::liveKeylog()));
    defaults.remove(pathKey);
}

TEST_F(SettingsDialogTest, RendersEachKindOfView)
{
    bool isOn = false, wasPressed = false;
    std::string text = "<b>not bold</b>";
    const AnyView view = VStack{.children = {
                                    AnyView(Text{text}).selectable(),
                                    EmptyView{},
                                    HStack{.children = {Toggle{"a & b", {[&] { return isOn; }, [&](bool now) { isOn = now; }, {}}},
                                                        Button{"Press", [&] { wasPressed = true; }}}},
                                    TextField{"Ports", {[&] { return text; }, [&](std::string now) { text = now; }, {}}, "443", true},
                                }};
    const std::unique_ptr<QWidget> widget(makeWidget(view));
    widget->show();
    EXPECT_EQ(widget->findChild<QLabel*>()->textFormat(), Qt::PlainText);
    QTest::mouseClick(widget->findChild<QCheckBox*>(), Qt::LeftButton, {}, {8, 8});
    EXPECT_TRUE(isOn);
    QTest::mouseClick(widget->findChild<QPushButton*>(), Qt::LeftButton);
    EXPECT_TRUE(wasPressed);
    widget->findChild<QLineEdit*>()->clear();
    QTest::keyClicks(widget->findChild<QLineEdit*>(), QStringLiteral("8443"));
    EXPECT_EQ(text, "8443");
}

}  // namespace

}  // namespace sealscope::desktop
