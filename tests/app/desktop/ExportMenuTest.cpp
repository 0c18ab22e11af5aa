// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/export/ExportMenu.h"

#include "app/export/StreamDecryptor.h"
#include "host/VELModels/VELPlugInsController.h"
#include "tests/app/desktop/Browsing.h"
#include "tests/app/desktop/DesktopTest.h"

#include <QAction>
#include <QDir>
#include <QFile>
#include <QMenu>

#include <thread>

namespace sealscope::desktop {

namespace {

class ExportMenuTest : public DesktopTest {
protected:
    ExportMenuTest() : browsing(directory), exports(menu, document, [this] { return selected; })
    {
        QObject::connect(&document, &Document::failed, [this](const QString& sentence) { told = sentence; });
        QObject::connect(&exports, &ExportMenu::done, [this](const QString& sentence) { told = sentence; });
    }

    /// What the user is told about an export.
    std::string run(ExportMenu::Work work)
    {
        told.clear();
        exports.run(std::move(work));
        EXPECT_TRUE(waitUntil([&] { return !exports.isRunning(); }));
        return told.toStdString();
    }
    std::string path(const char* name) const { return directory.file(name); }
    static QByteArray contents(const std::string& file)
    {
        QFile read(QString::fromStdString(file));
        return read.open(QIODevice::ReadOnly) ? read.readAll() : QByteArray("(none)");
    }
    /// How many streams of a capture decrypt with the secrets that it carries.
    static std::int64_t decryptedStreams(const std::string& capture)
    {
        const auto session = Session::open({.files = {capture}});
        if (!session) return -1;
        const StreamVerdicts verdicts(**session);
        std::int64_t count = 0;
        for (std::int64_t number = 0; number < (*session)->streamCount(); ++number) {
            const auto verdict = verdicts.verdict((*session)->stream(number), ReportDepth::opened);
            count += verdict && verdict->outcome.isDecrypted();
        }
        return count;
    }

    TempDirectory directory;
    Browsing browsing;
    Document document;
    QMenu menu;
    std::vector<std::int64_t> selected;
    ExportMenu exports;
    QString told;
};

TEST_F(ExportMenuTest, ExportsInEveryForm)
{
    ASSERT_TRUE(opens(document, {browsing.capture}, {browsing.keyLog, browsing.otherKeyLog}));
    const auto saysPlaintext = [](const std::string& said, const std::string& where, const char* count) {
        return said.starts_with(where + ": plaintext of " + count + ", ");
    };
    const std::string plaintext = run([&](const ExportSource& source) { return exportPlaintextFiles(source, path("plain")); });
    EXPECT_TRUE(saysPlaintext(plaintext, path("plain"), "2 streams") && plaintext.ends_with("; 1 stream does not decrypt")) << plaintext;
    EXPECT_TRUE(contents(path("plain/stream-1-client.bin")).startsWith("GET /inbox HTTP/1.1\r\n"));
    EXPECT_TRUE(saysPlaintext(run([&](const ExportSource& source) { return exportPlaintextCapture(source, path("plain.pcap")); }),
                              path("plain.pcap"), "2 streams"))
        << told.toStdString();
    const auto plain = Session::open({.files = {path("plain.pcap")}});
    ASSERT_TRUE(plain);
    EXPECT_EQ((*plain)->streamCount(), 2);
    EXPECT_EQ(run([&](const ExportSource& source) { return exportWithSecrets(source, path("secrets.pcapng")); }),
              path("secrets.pcapng") + ": carries secrets for 2 connections");
    EXPECT_EQ(decryptedStreams(path("secrets.pcapng")), 2);
    EXPECT_TRUE(run([&](const ExportSource& source) { return exportObjects(source, path("objects")); }).starts_with(path("objects") + ": 9 objects, "))
        << told.toStdString();
    EXPECT_TRUE(contents(path("objects/logo.png")).startsWith("\x89PNG"));
    for (const StreamExportFormat* format : VELPlugInsController::sharedManager().exportFormats())
        EXPECT_EQ(run([&](const ExportSource& source) { return exportFormat(source, *format, path("out")); }),
                  path("out") + ": 5 streams as " + std::string(format->name));

    ASSERT_TRUE(opens(document, {QString::fromStdString(path("secrets.pcapng"))}));
    EXPECT_EQ(run([&](const ExportSource& source) { return exportWithoutSecrets(source, path("shared.pcapng")); }),
              path("shared.pcapng") + ": carries no secret");
    EXPECT_EQ(decryptedStreams(path("shared.pcapng")), 0);
}

TEST_F(ExportMenuTest, ExportsWhatIsSelected)
{
    ASSERT_TRUE(opens(document, {browsing.capture}, {browsing.keyLog, browsing.otherKeyLog}));
    selected = {1};
    Q_EMIT menu.aboutToShow();
    exports.selectedOnly().trigger();
    const std::string plaintext = run([&](const ExportSource& source) { return exportPlaintextFiles(source, path("plain")); });
    EXPECT_TRUE(plaintext.starts_with(path("plain") + ": plaintext of 1 stream, ")) << plaintext;
    EXPECT_EQ(QDir(QString::fromStdString(path("plain"))).entryList(QDir::Files).size(), 2);
    QStringList titles;
    for (const QAction* action : menu.actions())
        if (!action->isSeparator()) titles.append(action->text().remove(QLatin1Char('&')));
    EXPECT_TRUE(titles.join(QStringLiteral(", ")).startsWith(
        QStringLiteral("All Streams, Selected Streams (1), Plaintext Files…, Plaintext Capture…, Objects…, Capture with Secrets…, "
                       "Capture without Secrets…, ")))
        << titles.join(QStringLiteral(", ")).toStdString();
    for (const char* format : {"PEM File…", "HAR File…", "CURL File…"}) EXPECT_TRUE(titles.contains(QString::fromUtf8(format))) << format;
}

TEST_F(ExportMenuTest, TellsWhatGoesWrongAndLeavesNothingBehind)
{
    ASSERT_TRUE(opens(document, {browsing.capture}, {browsing.keyLog}));
    const std::string file = directory.write("there.txt", "mine"), folder = path("plain");
    struct Case { const char* name; ExportMenu::Work work; std::string told; };
    const Case cases[] = {
        {"a full disk", [&](const ExportSource& source) { return exportWithSecrets(source, "/dev/full"); },
         "/dev/full: No space left on device"},
        {"no such folder", [&](const ExportSource& source) { return exportWithSecrets(source, path("none/x.pcapng")); },
         path("none/x.pcapng") + ": No such file or directory"},
        {"a file in the place of a folder", [&](const ExportSource& source) { return exportObjects(source, file); }, file + ": is not a directory"},
        {"a plug-in that throws", [](const ExportSource&) -> ExportOutcome { throw std::runtime_error("broken"); }, "The export failed: broken"},
        {"files that are there", [&](const ExportSource& source) {
             exportPlaintextFiles(source, folder);
             return exportPlaintextFiles(source, folder);
         }, folder + "/stream-0-client.bin: exists already"},
    };
    for (const auto& [name, work, expected] : cases) EXPECT_EQ(run(work), expected) << name;
    EXPECT_EQ(contents(file), "mine");

    // One that is cancelled leaves no half a file.
    const std::string half = path("half.har");
    exports.run([&](const ExportSource& source) {
        while (!source.stop.stop_requested()) std::this_thread::yield();
        return exportWithoutSecrets(source, half);
    });
    exports.cancelAll();
    ASSERT_TRUE(waitUntil([&] { return !exports.isRunning(); }));
    EXPECT_EQ(told.toStdString(), half + ": the export was cancelled");
    EXPECT_FALSE(QFile::exists(QString::fromStdString(half)));
}

}  // namespace

}  // namespace sealscope::desktop
