// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QLabel>

namespace sealscope::desktop {

/// One line of plain text that is cut to the room there is. All of it is selected, copied and read aloud.
class ElidedLabel final : public QLabel {
    Q_OBJECT
public:
    explicit ElidedLabel(Qt::TextElideMode mode, QWidget* parent = nullptr);
    QSize minimumSizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    Qt::TextElideMode mode_;
};

}  // namespace sealscope::desktop
