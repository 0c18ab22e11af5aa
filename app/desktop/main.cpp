// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/MainWindow.h"
#include "app/desktop/MessageBar.h"
#include "app/desktop/Program.h"
#include "app/plugins/PlugInLoader.h"

#include <QApplication>
#include <QCommandLineParser>

#include <csignal>

using namespace sealscope;

int main(int argumentCount, char** arguments)
{
    std::signal(SIGPIPE, SIG_IGN);
    QApplication application(argumentCount, arguments);
    QApplication::setApplicationVersion(QStringLiteral(SEALSCOPE_VERSION));
    desktop::prepareApplication();

    using desktop::MainWindow;
    QCommandLineParser parser;
    parser.setApplicationDescription(MainWindow::tr("Shows the packets, streams and exchanges of captures in a window"));
    parser.addHelpOption();
    parser.addVersionOption();
    const QCommandLineOption keyLog({QStringLiteral("k"), QStringLiteral("keylog")},
                                    MainWindow::tr("Use this key log instead of the one in the settings"), QStringLiteral("FILE"));
    const QCommandLineOption plugIns(QStringLiteral("plugin-path"), MainWindow::tr("Look for plug-ins in this folder first"),
                                     QStringLiteral("DIR"));
    parser.addOptions({keyLog, plugIns});
    parser.addPositionalArgument(QStringLiteral("FILE"), MainWindow::tr("Captures to open, read as one"), QStringLiteral("[FILE…]"));
    parser.process(application);

    std::vector<std::filesystem::path> folders;
    for (const QString& folder : parser.values(plugIns)) folders.emplace_back(folder.toStdString());
    const PlugInLoading loading = PlugInLoader::load(folders);
    int status = 0;
    {
        MainWindow window;
        for (const PlugInProblem& problem : loading.problems) window.messages().tell(QString::fromStdString(problem.text()));
        window.show();
        window.document().open(parser.positionalArguments(), parser.values(keyLog));
        status = QApplication::exec();
    }
    desktop::Job::waitForAll();
    return status;
}
