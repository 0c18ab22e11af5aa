// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/Program.h"

#include "app/desktop/StringTableTranslator.h"
#include "platform/OpenPanel.h"
#include "platform/Pasteboard.h"

#include <QApplication>
#include <QClipboard>
#include <QFileDialog>
#include <QIcon>
#include <QLibraryInfo>
#include <QTranslator>

// The resources of a static library are registered from outside any namespace.
static void registerResources() { Q_INIT_RESOURCE(desktop); }

namespace sealscope::desktop {

namespace {

OpenPanel::Choice askForFiles(const OpenPanel& panel)
{
    QFileDialog dialog(QApplication::activeWindow());
    if (panel.canChooseDirectories && !panel.canChooseFiles)
        dialog.setFileMode(QFileDialog::Directory);
    else
        dialog.setFileMode(panel.allowsMultipleSelection ? QFileDialog::ExistingFiles : QFileDialog::ExistingFile);
    if (dialog.exec() != QDialog::Accepted || dialog.selectedFiles().isEmpty()) return std::nullopt;
    std::vector<std::filesystem::path> chosen;
    for (const QString& file : dialog.selectedFiles()) chosen.emplace_back(file.toStdString());
    return chosen;
}

bool writeToClipboard(const std::string& text)
{
    if (text.empty())
        QApplication::clipboard()->clear();
    else
        QApplication::clipboard()->setText(QString::fromStdString(text));
    return true;
}

}  // namespace

void prepareApplication()
{
    registerResources();
    QApplication::setApplicationName(QStringLiteral("sealscope-desktop"));
    QApplication::setApplicationDisplayName(QStringLiteral("Sealscope"));
    QApplication::setDesktopFileName(QStringLiteral("sealscope-desktop"));
    QApplication::setWindowIcon(QIcon(QStringLiteral(":/sealscope-desktop.svg")));
    auto* const toolkit = new QTranslator(qApp);
    if (toolkit->load(QLocale(), QStringLiteral("qtbase"), QStringLiteral("_"), QLibraryInfo::path(QLibraryInfo::TranslationsPath)))
        QApplication::installTranslator(toolkit);
    QApplication::installTranslator(new StringTableTranslator(qApp));
    OpenPanel::setChooser(askForFiles);
    Pasteboard::general().setWriter(writeToClipboard);
}

}  // namespace sealscope::desktop
