// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/Job.h"
#include "app/desktop/MainWindow.h"
#include "app/desktop/MessageBar.h"
#include "app/plugins/PlugInLoader.h"

#include <QApplication>
#include <QCommandLineParser>

#include <csignal>

using namespace sealscope;

int main(int argumentCount, char** arguments)
{
    std::signal(SIGPIPE, SIG_IGN);
    QApplication application(argumentCount, arguments);
    QApplication::setApplicationName(QStringLiteral("sealscope-desktop"));
    QApplication::setApplicationDisplayName(QStringLiteral("Sealscope"));
    QApplication::setApplicationVersion(QStringLiteral(SEALSCOPE_VERSION));

    QCommandLineParser parser;
    parser.setApplicationDescription(desktop::MainWindow::tr("Shows the TLS traffic of packet captures"));
    parser.addHelpOption();
    parser.addVersionOption();
    const QCommandLineOption keyLog({QStringLiteral("k"), QStringLiteral("keylog")},
                                    desktop::MainWindow::tr("Use this key log instead of the one in the settings"), QStringLiteral("FILE"));
    parser.addOption(keyLog);
    parser.addPositionalArgument(QStringLiteral("FILE"), desktop::MainWindow::tr("Captures to open, read as one"), QStringLiteral("[FILE…]"));
    parser.process(application);

    const PlugInLoading plugIns = PlugInLoader::load({});
    int status = 0;
    {
        desktop::MainWindow window;
        for (const PlugInProblem& problem : plugIns.problems) window.messages().tell(QString::fromStdString(problem.text()));
        window.document().open(parser.positionalArguments(), parser.values(keyLog));
        window.show();
        status = QApplication::exec();
    }
    desktop::Job::waitForAll();
    return status;
}
