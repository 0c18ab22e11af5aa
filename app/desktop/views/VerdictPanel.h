// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/desktop/models/StreamTable.h"

#include <QFrame>

class QLabel;
class QPushButton;

namespace sealscope::desktop {

/// Says of one stream whether it opens, and what to do when it does not; with a button that does it.
class VerdictPanel final : public QFrame {
    Q_OBJECT
public:
    explicit VerdictPanel(QWidget* parent = nullptr);

    void describe(const QString& stream, Tone tone, const QString& verdict, const QString& sentence, Advice advice);
    void clear();

Q_SIGNALS:
    void keyLogWanted();
    void keyLogLineWanted();
    void conversationWanted();

protected:
    void changeEvent(QEvent* event) override;

private:
    void color();

    Tone tone_ = Tone::pending;
    QLabel* stream_;
    QLabel* badge_;
    QLabel* sentence_;
    QPushButton* chooseKeyLog_;
    QPushButton* copyLine_;
    QPushButton* follow_;
};

}  // namespace sealscope::desktop
