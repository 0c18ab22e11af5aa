// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/desktop/Document.h"

#include <QMainWindow>

class QLabel;
class QMenu;
class QProgressBar;
class QTabWidget;
class QToolButton;

namespace sealscope::desktop {

class MessageBar;

/// The window: menus, the views of one document as tabs, and what it has to tell.
class MainWindow final : public QMainWindow {
    Q_OBJECT
public:
    MainWindow();
    ~MainWindow() override;

    Document& document() { return document_; }
    QTabWidget& tabs() { return *tabs_; }
    MessageBar& messages() { return *messages_; }

protected:
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dropEvent(QDropEvent* event) override;
    void closeEvent(QCloseEvent* event) override;

private:
    void makeMenus();
    void makeStatusBar();
    void addViews();
    void chooseCaptures();
    void chooseKeyLogs();

    Document document_;
    MessageBar* messages_;
    QTabWidget* tabs_;
    QLabel* summary_ = nullptr;
    QProgressBar* progress_ = nullptr;
    QToolButton* cancel_ = nullptr;
    QMenu* exportMenu_ = nullptr;
};

}  // namespace sealscope::desktop
