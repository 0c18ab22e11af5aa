// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/desktop/Document.h"
#include "app/desktop/Job.h"
#include "app/desktop/models/MessagesModel.h"
#include "host/VELModels/VELExporting.h"

#include <QWidget>

#include <memory>

class QLabel;
class QMenu;
class QPushButton;
class QTableView;
class QToolButton;

namespace sealscope::desktop {

class BodyView;
class DetailModel;

/// One message: its details, what it answers, its packets and its body, and what can be done with them.
class MessagePanel final : public QWidget {
    Q_OBJECT
public:
    MessagePanel(Document& document, const MessagesModel& messages, QWidget* parent = nullptr);
    ~MessagePanel() override;

    /// Shows a row of the messages; none for -1.
    void setRow(int row);
    BodyView& body() { return *body_; }
    QPushButton& partner() { return *partner_; }
    QToolButton& packets() { return *packets_; }
    DetailModel& details() { return *detailModel_; }
    /// What the menu "Copy" holds: the text, and each format that a plug-in offers.
    QMenu& copyMenu() { return *copyMenu_; }
    /// Writes the body to a file.
    void saveBody(const QString& file);

Q_SIGNALS:
    void partnerChosen(int row);

private:
    QWidget* makeButtons();
    void fillCopyMenu();
    void fillPacketMenu(const StreamMessage& message);
    void chooseBodyFile();
    void copyText();
    void copyAs(const StreamExportFormat& format);

    Document& document_;
    const MessagesModel& messages_;
    int row_ = -1;
    DetailModel* detailModel_;
    QLabel* summary_;
    QLabel* note_;
    QPushButton* partner_;
    QToolButton* packets_;
    QPushButton* save_;
    QToolButton* copy_;
    QMenu* copyMenu_;
    QMenu* packetMenu_;
    QTableView* details_;
    BodyView* body_;
    std::unique_ptr<Job> copying_;
    std::unique_ptr<Job> saving_;
};

}  // namespace sealscope::desktop
