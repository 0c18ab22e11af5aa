// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Data.h"

#include <QAbstractScrollArea>

#include <utility>

namespace sealscope::desktop {

/// Bytes in hexadecimal and as text, with one range marked. A byte is chosen with the mouse or the arrow keys.
class HexView final : public QAbstractScrollArea {
    Q_OBJECT
public:
    explicit HexView(QWidget* parent = nullptr);

    void setBytes(Data bytes);
    /// Marks bytes and shows the first of them; none with a length of 0.
    void mark(qint64 offset, qint64 length);
    std::pair<qint64, qint64> marked() const { return {markOffset_, markLength_}; }
    /// The byte that was chosen last; -1 when there is none.
    qint64 cursor() const { return cursor_; }
    /// The marked bytes, or else all, as hexadecimal digits.
    QString copiedText() const;
    /// The centre of a byte's digits in the viewport, when it is in sight.
    QPoint placeOf(qint64 byte) const;

public Q_SLOTS:
    void copy();

Q_SIGNALS:
    /// The user chose a byte.
    void byteChosen(qint64 offset);

protected:
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void changeEvent(QEvent* event) override;

private:
    static constexpr int bytesPerLine = 16;
    /// Positions in characters.
    static constexpr int firstDigit = 8, firstLetter = firstDigit + 3 * bytesPerLine + 2, lineLength = firstLetter + bytesPerLine + 1;

    void updateMetrics();
    void updateScrollBars();
    void choose(qint64 byte);
    void show(qint64 byte);
    qint64 byteAt(QPoint point) const;
    bool isMarked(qint64 byte) const { return byte >= markOffset_ && byte < markOffset_ + markLength_; }

    Data bytes_;
    qint64 markOffset_ = 0;
    qint64 markLength_ = 0;
    qint64 cursor_ = -1;
    int lineHeight_ = 1;
    qreal letterWidth_ = 1;
};

}  // namespace sealscope::desktop
