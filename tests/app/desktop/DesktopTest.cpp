// SPDX-License-Identifier: Apache-2.0
#include "tests/app/desktop/DesktopTest.h"

#include "app/desktop/Program.h"
#include "app/plugins/PlugInLoader.h"
#include "harness/TempDirectory.h"

#include <QAbstractButton>
#include <QApplication>
#include <QElapsedTimer>
#include <QFileDialog>
#include <QLineEdit>
#include <QMessageBox>
#include <QTest>
#include <QTimer>

namespace sealscope::desktop {

void prepareForTests()
{
    static const TempDirectory settings;
    for (const char* variable : {"XDG_CONFIG_HOME", "XDG_DATA_HOME"}) setenv(variable, settings.path().c_str(), 1);
    for (const char* variable : {"SSLKEYLOGFILE", "SEALSCOPE_PLUGIN_PATH"}) unsetenv(variable);
    if (!PlugInLoader::loaded().empty()) return;
    prepareApplication();
    PlugInLoader::load({});
}

void DesktopTest::SetUpTestSuite() { prepareForTests(); }

QString sourceFile(const char* path) { return QStringLiteral(SEALSCOPE_SOURCE_DIR "/") + QString::fromUtf8(path); }

bool waitUntil(const std::function<bool()>& holds, int milliseconds) { return QTest::qWaitFor(holds, milliseconds); }

void answerFilePanel(const QString& file)
{
    auto* const timer = new QTimer(qApp);
    QObject::connect(timer, &QTimer::timeout, timer, [timer, file, asked = QElapsedTimer()]() mutable {
        // A file that is there is asked about.
        if (auto* const question = qobject_cast<QMessageBox*>(QApplication::activeModalWidget()))
            if (QAbstractButton* const yes = question->button(QMessageBox::Yes)) return yes->click();
        auto* const panel = qobject_cast<QFileDialog*>(QApplication::activeModalWidget());
        if (!panel && asked.isValid()) timer->deleteLater();
        if (!panel) return;
        if (!asked.isValid()) {
            asked.start();
            auto* const name = panel->findChild<QLineEdit*>(QStringLiteral("fileNameEdit"));
            name->setText(file);
            // Not from here, since what is asked then would wait for this timer.
            QTimer::singleShot(0, name, [name] { QTest::keyClick(name, Qt::Key_Return); });
        } else if (asked.elapsed() > 10'000) {
            panel->reject();
        }
    });
    timer->start(20);
}

testing::AssertionResult opens(Document& document, const QStringList& files, const QStringList& keyLogs)
{
    QString problem;
    const auto connection = QObject::connect(&document, &Document::failed, [&](const QString& sentence) { problem = sentence; });
    document.open(files, keyLogs);
    const bool isRead = waitUntil([&] { return !document.isReading(); });
    QObject::disconnect(connection);
    if (isRead && document.session()) return testing::AssertionSuccess();
    return testing::AssertionFailure() << (isRead ? problem.toStdString() : "reading does not end");
}

}  // namespace sealscope::desktop
