// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/MainWindow.h"

#include "app/desktop/Appearance.h"
#include "app/desktop/MessageBar.h"
#include "app/desktop/SettingsDialog.h"
#include "app/desktop/ShownText.h"
#include "app/desktop/StreamTabs.h"
#include "app/desktop/WindowMemory.h"
#include "app/desktop/views/PacketsView.h"
#include "app/desktop/views/WelcomeView.h"

#include <QActionGroup>
#include <QApplication>
#include <QClipboard>
#include <QDragEnterEvent>
#include <QFileDialog>
#include <QFileInfo>
#include <QLabel>
#include <QLineEdit>
#include <QMenuBar>
#include <QMessageBox>
#include <QMimeData>
#include <QProgressBar>
#include <QScreen>
#include <QStackedWidget>
#include <QStatusBar>
#include <QTabWidget>
#include <QTableView>
#include <QToolButton>
#include <QVBoxLayout>

namespace sealscope::desktop {

namespace {

constexpr const char* geometryKey = "geometry";
constexpr const char* packetsKey = "packets";

/// The chosen row of a list or a tree, columns apart by tabs.
QString copiedText(const QAbstractItemView& view)
{
    const QModelIndex current = view.currentIndex();
    if (!current.isValid()) return {};
    QStringList cells;
    for (int column = 0; column < current.model()->columnCount(current.parent()); ++column)
        cells.append(current.siblingAtColumn(column).data().toString());
    return cells.join(QLatin1Char('\t'));
}

QString withoutMnemonic(QString text) { return text.replace(QLatin1Char('&'), QLatin1String("&&")); }

QStringList localFiles(const QMimeData& dropped)
{
    QStringList files;
    for (const QUrl& url : dropped.urls())
        if (url.isLocalFile()) files.append(url.toLocalFile());
    return files;
}

}  // namespace

MainWindow::MainWindow() : messages_(new MessageBar), pages_(new QStackedWidget), welcome_(new WelcomeView), tabs_(new QTabWidget)
{
    apply(WindowMemory::appearance());
    setAcceptDrops(true);
    tabs_->setDocumentMode(true);
    pages_->addWidget(welcome_);
    pages_->addWidget(tabs_);
    auto* const centre = new QWidget;
    auto* const layout = new QVBoxLayout(centre);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->addWidget(messages_);
    layout->addWidget(pages_, 1);
    setCentralWidget(centre);
    makeStatusBar();
    makeMenus();
    addViews();
    followDocument();
    updateRecentFiles();
    recall();
}

MainWindow::~MainWindow() = default;

// Every view of the document is made here; nobody else knows of it.
void MainWindow::addViews()
{
    packets_ = new PacketsView(document_);
    tabs_->addTab(packets_, tr("Packets"));
    connect(packets_, &PacketsView::summaryChanged, summary_, &QLabel::setText);
    connect(&document_, &Document::packetWanted, this, [this](qint64 number) {
        tabs_->setCurrentWidget(packets_);
        packets_->showPacket(number);
    });
    auto* const streams = new StreamTabs(document_, *tabs_, *packets_, *exportMenu_);
    connect(streams, &StreamTabs::done, this, [this](const QString& sentence) { statusBar()->showMessage(sentence, 20'000); });
    for (int tab = 0; tab < tabs_->count(); ++tab) {
        QAction* const action = new QAction(tabs_->tabText(tab), this);
        action->setShortcut(QKeySequence(Qt::CTRL | static_cast<Qt::Key>(Qt::Key_1 + tab)));
        connect(action, &QAction::triggered, this, [this, tab] { tabs_->setCurrentIndex(tab); });
        viewMenu_->insertAction(viewMenu_->actions().constFirst(), action);
    }
    QAction* const everything = viewMenu_->addAction(tr("All &Packets"));
    everything->setCheckable(true);
    connect(everything, &QAction::toggled, packets_, &PacketsView::setShowsEveryPacket);
    connect(packets_, &PacketsView::showsEveryPacketChanged, everything, &QAction::setChecked);
}

void MainWindow::followDocument()
{
    // What is opened takes the place of what is being captured.
    connect(&document_, &Document::replaced, this, [this] {
        if (document_.isLive())
            recording_.noteArrival();
        else
            recording_.stop();
    });
    connect(&document_, &Document::failed, messages_, &MessageBar::tell);
    connect(&document_, &Document::replaced, this, [this] {
        // What was told of the capture before; at the start it may be of plug-ins.
        if (pages_->currentWidget() == tabs_) messages_->clear();
        pages_->setCurrentWidget(tabs_);
        packets_->table().setFocus();
        QStringList names;
        for (const QString& file : document_.files()) {
            names.append(QFileInfo(file).fileName());
            if (!document_.isLive()) WindowMemory::addRecentFile(file);
        }
        updateRecentFiles();
        setWindowTitle(shownText(names.join(QLatin1String(", ")).toStdString()));
    });
    connect(&document_, &Document::readingChanged, this, [this](bool isReading) {
        progress_->setRange(0, 0);
        progress_->setVisible(isReading);
        cancel_->setVisible(isReading);
    });
    connect(&document_, &Document::progressed, this, [this](qint64 done, qint64 total) {
        progress_->setRange(0, total > 0 ? 1'000 : 0);
        if (total > 0) progress_->setValue(static_cast<int>(static_cast<double>(done) / static_cast<double>(total) * 1'000));
    });
    connect(welcome_, &WelcomeView::openWanted, this, &MainWindow::chooseCaptures);
    connect(welcome_, &WelcomeView::fileWanted, this, [this](const QString& file) { document_.open({file}); });
}

void MainWindow::makeMenus()
{
    makeFileMenu();
    makeEditMenu();
    makeViewMenu();
    makeCaptureMenu();
    exportMenu_ = menuBar()->addMenu(tr("E&xport"));
    makeHelpMenu();
}

void MainWindow::makeFileMenu()
{
    QMenu* const menu = menuBar()->addMenu(tr("&File"));
    menu->addAction(tr("&Open…"), QKeySequence::Open, this, &MainWindow::chooseCaptures);
    recent_ = menu->addMenu(tr("Open &Recent"));
    menu->addAction(tr("Use &Key Log…"), QKeySequence(Qt::CTRL | Qt::Key_K), this, &MainWindow::chooseKeyLogs);
    menu->addSeparator();
    menu->addAction(tr("&Quit"), QKeySequence::Quit, this, &QWidget::close);
}

void MainWindow::makeEditMenu()
{
    QMenu* const menu = menuBar()->addMenu(tr("&Edit"));
    menu->addAction(tr("&Copy"), QKeySequence::Copy, this, &MainWindow::copy);
    menu->addAction(tr("&Filter"), QKeySequence::Find, this, [this] {
        // The view that is in front has the filter.
        if (auto* const edit = tabs_->currentWidget()->findChild<QLineEdit*>()) {
            edit->setFocus(Qt::ShortcutFocusReason);
            edit->selectAll();
        }
    });
    menu->addSeparator();
    menu->addAction(tr("&Settings…"), QKeySequence(Qt::CTRL | Qt::Key_Comma), this, &MainWindow::showSettings);
}

void MainWindow::makeViewMenu()
{
    viewMenu_ = menuBar()->addMenu(tr("&View"));
    viewMenu_->addSeparator();
    QMenu* const colors = viewMenu_->addMenu(tr("&Appearance"));
    auto* const group = new QActionGroup(this);
    const std::pair<Appearance, QString> choices[] = {
        {Appearance::system, tr("As the &System")}, {Appearance::light, tr("&Light")}, {Appearance::dark, tr("&Dark")}};
    for (const auto& [appearance, title] : choices) {
        QAction* const action = colors->addAction(title);
        action->setCheckable(true);
        action->setChecked(WindowMemory::appearance() == appearance);
        group->addAction(action);
        connect(action, &QAction::triggered, this, [appearance = appearance] {
            WindowMemory::setAppearance(appearance);
            apply(appearance);
        });
    }
}

void MainWindow::makeCaptureMenu()
{
    QMenu* const menu = menuBar()->addMenu(tr("&Capture"));
    QMenu* const start = menu->addMenu(tr("&Start"));
    QAction* const stop = menu->addAction(tr("S&top"), QKeySequence(Qt::CTRL | Qt::Key_E), &recording_, &LiveRecording::stop);
    menu->addSeparator();
    QAction* const save = menu->addAction(tr("Save &Packets As…"), QKeySequence::SaveAs, this, &MainWindow::saveRecorded);
    const auto update = [this, start, stop, save] {
        start->setEnabled(!recording_.isRunning());
        stop->setEnabled(recording_.isRunning());
        save->setEnabled(document_.recorded() && !recording_.isRunning());
    };
    update();
    connect(menu, &QMenu::aboutToShow, this, update);
    connect(start, &QMenu::aboutToShow, this, [this, start] {
        start->clear();
        for (const QString& interface : LiveRecording::interfaces())
            start->addAction(withoutMnemonic(interface), this, [this, interface] { recording_.start(interface); });
    });
    connect(&recording_, &LiveRecording::started, this, [this, stop, update](const QString& pipe) {
        document_.openLive(pipe, recording_.interface());
        update();
        stop->setEnabled(true);
    });
    connect(&recording_, &LiveRecording::failedBeforePackets, &document_, &Document::abandon);
    connect(&recording_, &LiveRecording::ended, this, [this, update](const QString& problem) {
        document_.tell(problem);
        update();
    });
}

void MainWindow::saveRecorded()
{
    const QString name = QFileDialog::getSaveFileName(this, tr("Save Packets"), recording_.interface() + QStringLiteral(".pcap"));
    if (name.isEmpty()) return;
    saving_ = compute(
        [recorded = document_.recorded(), file = name.toStdString()](const std::stop_token& stop) { return recorded->copyTo(file, stop); },
        [this](const std::expected<void, RecordingProblem>& copied) {
            document_.tell(copied ? QString() : shownText(copied.error().text().toStdString()));
        });
}

void MainWindow::makeHelpMenu()
{
    QMenu* const menu = menuBar()->addMenu(tr("&Help"));
    menu->addAction(tr("&About Sealscope"), this, &MainWindow::showAbout);
}

void MainWindow::makeStatusBar()
{
    summary_ = new QLabel;
    summary_->setTextFormat(Qt::PlainText);
    progress_ = new QProgressBar;
    progress_->setMaximumWidth(240);
    progress_->setTextVisible(false);
    progress_->setAccessibleName(tr("Reading"));
    cancel_ = new QToolButton;
    cancel_->setText(tr("Stop Reading"));
    cancel_->setToolTip(tr("Stop reading and keep what has been read"));
    statusBar()->addWidget(summary_, 1);
    statusBar()->addPermanentWidget(progress_);
    statusBar()->addPermanentWidget(cancel_);
    progress_->hide();
    cancel_->hide();
    connect(cancel_, &QToolButton::clicked, this, [this] {
        recording_.stop();
        document_.cancel();
    });
}

void MainWindow::updateRecentFiles()
{
    const QStringList files = WindowMemory::recentFiles();
    welcome_->setRecentFiles(files);
    recent_->clear();
    recent_->setEnabled(!files.isEmpty());
    for (const QString& file : files)
        recent_->addAction(withoutMnemonic(shownText(file.toStdString())), this, [this, file] { document_.open({file}); });
    recent_->addSeparator();
    recent_->addAction(tr("&Clear"), this, [this] {
        WindowMemory::clearRecentFiles();
        updateRecentFiles();
    });
}

void MainWindow::copy()
{
    QWidget* const focused = QApplication::focusWidget();
    if (const auto* view = qobject_cast<QAbstractItemView*>(focused)) {
        if (const QString text = copiedText(*view); !text.isEmpty()) QApplication::clipboard()->setText(text);
    } else if (focused && focused->metaObject()->indexOfMethod("copy()") >= 0) {
        QMetaObject::invokeMethod(focused, "copy");
    }
}

QDialog* MainWindow::showSettings()
{
    if (!settings_) {
        settings_ = new SettingsDialog(this);
        settings_->setAttribute(Qt::WA_DeleteOnClose);
    }
    settings_->show();
    settings_->raise();
    settings_->activateWindow();
    return settings_;
}

void MainWindow::showAbout()
{
    QMessageBox box(this);
    box.setWindowTitle(tr("About Sealscope"));
    box.setIconPixmap(windowIcon().pixmap(64, 64));
    box.setTextFormat(Qt::PlainText);
    box.setText(tr("Sealscope %1").arg(QApplication::applicationVersion()));
    box.setInformativeText(tr("Sees into the TLS traffic of packet captures. Licensed under the Apache License 2.0."));
    box.exec();
}

void MainWindow::chooseCaptures()
{
    const QStringList files = QFileDialog::getOpenFileNames(this, tr("Open Captures"));
    if (!files.isEmpty()) document_.openDropped(files);
}

void MainWindow::chooseKeyLogs()
{
    const QStringList files = QFileDialog::getOpenFileNames(this, tr("Use Key Logs"));
    if (!files.isEmpty()) document_.addKeyLogs(files);
}

void MainWindow::dragEnterEvent(QDragEnterEvent* event)
{
    if (!localFiles(*event->mimeData()).isEmpty()) event->acceptProposedAction();
}

void MainWindow::dropEvent(QDropEvent* event)
{
    const QStringList files = localFiles(*event->mimeData());
    if (files.isEmpty()) return;
    event->acceptProposedAction();
    document_.openDropped(files);
}

void MainWindow::remember() const
{
    WindowMemory::setBytes(geometryKey, saveGeometry());
    WindowMemory::setBytes(packetsKey, packets_->layoutState());
}

void MainWindow::recall()
{
    if (!restoreGeometry(WindowMemory::bytes(geometryKey))) resize(QSize(1200, 800).boundedTo(screen()->availableSize()));
    packets_->restoreLayoutState(WindowMemory::bytes(packetsKey));
}

void MainWindow::closeEvent(QCloseEvent* event)
{
    remember();
    QMainWindow::closeEvent(event);
}

}  // namespace sealscope::desktop
