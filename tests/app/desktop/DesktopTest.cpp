// SPDX-License-Identifier: Apache-2.0
#include "tests/app/desktop/DesktopTest.h"

#include "app/desktop/Program.h"
#include "app/plugins/PlugInLoader.h"
#include "harness/TempDirectory.h"

#include <QApplication>
#include <QTest>

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
