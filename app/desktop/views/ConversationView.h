// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/desktop/Document.h"

#include <QWidget>

#include <functional>

class QLabel;
class QLineEdit;
class QListView;

namespace sealscope::desktop {

class MessagePanel;
class MessagesModel;

/// A stream as a conversation: what client and server said, and beside it the message that is selected.
class ConversationView final : public QWidget {
    Q_OBJECT
public:
    explicit ConversationView(Document& document, QWidget* parent = nullptr);

    /// Shows a stream, and selects a message by its mark, or the first that a packet carries.
    void showStream(qint64 stream);
    void showMessage(qint64 stream, quint64 mark);
    void showPacket(qint64 stream, qint64 packet);
    /// The stream that is shown; -1 for none.
    qint64 stream() const;

    MessagesModel& messages() { return *messages_; }
    QListView& list() { return *list_; }
    MessagePanel& panel() { return *panel_; }
    QLineEdit& search() { return *search_; }

protected:
    bool eventFilter(QObject* object, QEvent* event) override;

private:
    /// Shows a stream and chooses a row as soon as there is one.
    void refresh();
    void showRow(qint64 stream, std::function<int()> row);
    void choose(int row);
    void chooseWanted();
    void find(int step);
    void showHeading();

    Document& document_;
    MessagesModel* messages_;
    QLabel* heading_;
    QLabel* facts_;
    QLineEdit* search_;
    QListView* list_;
    MessagePanel* panel_;
    std::function<int()> wanted_;  ///< finds the row to be chosen, while it was not found yet
};

}  // namespace sealscope::desktop
