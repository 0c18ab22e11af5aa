// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QFrame>

class QLabel;
class QToolButton;

namespace sealscope::desktop {

/// Says below the menus what went wrong, without taking anything from the user: it stays until it is closed, further
/// messages join it, and what is open goes on.
class MessageBar final : public QFrame {
    Q_OBJECT
public:
    explicit MessageBar(QWidget* parent = nullptr);
    /// Shows a sentence, which is never markup.
    void tell(const QString& sentence);
    void clear();
    /// The sentences that are shown, one a line.
    QString text() const;

protected:
    void changeEvent(QEvent* event) override;

private:
    void showSentences();

    QStringList sentences_;
    QLabel* label_;
    QToolButton* close_;
};

}  // namespace sealscope::desktop
