// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/desktop/Document.h"
#include "app/desktop/Job.h"
#include "app/desktop/LiveRecording.h"

#include <QMainWindow>
#include <QPointer>

#include <memory>

class QAction;
class QDialog;
class QLabel;
class QMenu;
class QProgressBar;
class QStackedWidget;
class QTabWidget;
class QToolButton;

namespace sealscope::desktop {

class MessageBar;
class PacketsView;
class WelcomeView;

/// The window: menus, the views of one document as tabs, and what it has to tell.
class MainWindow final : public QMainWindow {
    Q_OBJECT
public:
    MainWindow();
    ~MainWindow() override;

    Document& document() { return document_; }
    QTabWidget& tabs() { return *tabs_; }
    MessageBar& messages() { return *messages_; }
    PacketsView& packets() { return *packets_; }
    LiveRecording& recording() { return recording_; }

    /// Copies what is chosen in the view that has the focus.
    void copy();
    QDialog* showSettings();
    void showAbout();

protected:
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dropEvent(QDropEvent* event) override;
    void closeEvent(QCloseEvent* event) override;

private:
    void makeMenus();
    void makeFileMenu();
    void makeEditMenu();
    void makeViewMenu();
    void makeCaptureMenu();
    void makeHelpMenu();
    void makeStatusBar();
    void addViews();
    void followDocument();
    void updateRecentFiles();
    void chooseCaptures();
    void chooseKeyLogs();
    void saveRecorded();
    void remember() const;
    void recall();

    Document document_;
    LiveRecording recording_;
    std::unique_ptr<Job> saving_;
    MessageBar* messages_;
    QStackedWidget* pages_;
    WelcomeView* welcome_;
    QTabWidget* tabs_;
    PacketsView* packets_ = nullptr;
    QLabel* summary_ = nullptr;
    QProgressBar* progress_ = nullptr;
    QToolButton* cancel_ = nullptr;
    QMenu* recent_ = nullptr;
    QMenu* viewMenu_ = nullptr;
    QMenu* exportMenu_ = nullptr;
    QPointer<QDialog> settings_;
};

}  // namespace sealscope::desktop
