// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QTimer>
#include <QWidget>

class QHBoxLayout;
class QLabel;
class QLineEdit;

namespace sealscope::desktop {

/// The line above a table: words to find rows by, and how many there are.
class FilterBar final : public QWidget {
    Q_OBJECT
public:
    FilterBar(const QString& placeholder, const QString& accessibleName, QWidget* parent = nullptr);

    QLineEdit& field() { return *field_; }
    /// Puts another control between the field and the count.
    void add(QWidget* control);
    /// "12 of 340 streams"
    void showCount(qint64 shown, qint64 all, const QString& noun);

Q_SIGNALS:
    /// The words have changed, and the user pauses.
    void changed(const QString& words);

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

Q_SIGNALS:
    /// The user wants to go on to the rows.
    void left();

private:
    QHBoxLayout* layout_;
    QLineEdit* field_;
    QLabel* count_;
    QTimer pause_;
};

}  // namespace sealscope::desktop
