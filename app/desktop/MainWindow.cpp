// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/MainWindow.h"

#include "app/desktop/MessageBar.h"

#include <QApplication>
#include <QDragEnterEvent>
#include <QFileDialog>
#include <QLabel>
#include <QMenuBar>
#include <QMimeData>
#include <QProgressBar>
#include <QStatusBar>
#include <QTabWidget>
#include <QToolButton>
#include <QVBoxLayout>

namespace sealscope::desktop {

MainWindow::MainWindow() : messages_(new MessageBar), tabs_(new QTabWidget)
{
    setAcceptDrops(true);
    tabs_->setDocumentMode(true);
    auto* const centre = new QWidget;
    auto* const layout = new QVBoxLayout(centre);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->addWidget(messages_);
    layout->addWidget(tabs_, 1);
    setCentralWidget(centre);
    makeMenus();
    makeStatusBar();
    connect(&document_, &Document::failed, messages_, &MessageBar::tell);
    addViews();
    resize(1200, 800);
}

MainWindow::~MainWindow() = default;

// Every view of the document is made here, and nowhere else known.
void MainWindow::addViews()
{
    // Streams, exchanges and conversations:
    //     tabs_->addTab(new StreamsView(document_, this), tr("Streams"));
    //     tabs_->addTab(new ExchangesView(document_, this), tr("Exchanges"));
    //     addExportActions(*exportMenu_, document_);
}

void MainWindow::makeMenus()
{
    QMenu* const file = menuBar()->addMenu(tr("&File"));
    file->addAction(tr("&Open…"), QKeySequence::Open, this, &MainWindow::chooseCaptures);
    file->addAction(tr("Use &Key Log…"), QKeySequence(tr("Ctrl+K")), this, &MainWindow::chooseKeyLogs);
    file->addSeparator();
    file->addAction(tr("&Quit"), QKeySequence::Quit, this, &QWidget::close);
    menuBar()->addMenu(tr("&Edit"));
    menuBar()->addMenu(tr("&View"));
    menuBar()->addMenu(tr("&Capture"));
    exportMenu_ = menuBar()->addMenu(tr("E&xport"));
    menuBar()->addMenu(tr("&Help"));
}

void MainWindow::makeStatusBar()
{
    summary_ = new QLabel;
    summary_->setTextFormat(Qt::PlainText);
    progress_ = new QProgressBar;
    progress_->setMaximumWidth(240);
    progress_->setTextVisible(false);
    cancel_ = new QToolButton;
    cancel_->setText(tr("Cancel"));
    cancel_->setToolTip(tr("Stop reading and keep what has been read"));
    statusBar()->addWidget(summary_, 1);
    statusBar()->addPermanentWidget(progress_);
    statusBar()->addPermanentWidget(cancel_);
    progress_->hide();
    cancel_->hide();
    connect(cancel_, &QToolButton::clicked, &document_, &Document::cancel);
    connect(&document_, &Document::readingChanged, this, [this](bool isReading) {
        progress_->setVisible(isReading);
        cancel_->setVisible(isReading);
    });
    connect(&document_, &Document::progressed, this, [this](qint64 done, qint64 total) {
        progress_->setRange(0, total > 0 ? 1'000 : 0);
        if (total > 0) progress_->setValue(static_cast<int>(done * 1'000 / total));
    });
}

void MainWindow::chooseCaptures()
{
    const QStringList files = QFileDialog::getOpenFileNames(this, tr("Open Captures"));
    if (!files.isEmpty()) document_.open(files);
}

void MainWindow::chooseKeyLogs()
{
    const QStringList files = QFileDialog::getOpenFileNames(this, tr("Use Key Logs"));
    if (!files.isEmpty()) document_.addKeyLogs(files);
}

void MainWindow::dragEnterEvent(QDragEnterEvent* event)
{
    if (event->mimeData()->hasUrls()) event->acceptProposedAction();
}

void MainWindow::dropEvent(QDropEvent* event)
{
    QStringList files;
    for (const QUrl& url : event->mimeData()->urls())
        if (url.isLocalFile()) files.append(url.toLocalFile());
    if (!files.isEmpty()) document_.open(files);
}

void MainWindow::closeEvent(QCloseEvent* event) { QMainWindow::closeEvent(event); }

}  // namespace sealscope::desktop
