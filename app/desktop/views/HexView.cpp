// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/views/HexView.h"

#include <QApplication>
#include <QClipboard>
#include <QFontDatabase>
#include <QKeyEvent>
#include <QPainter>
#include <QScrollBar>

#include <algorithm>

namespace sealscope::desktop {

namespace {

constexpr qint64 mostCopied = 1 << 20;  ///< bytes; what is more is no text for a clipboard
constexpr char digits[] = "0123456789abcdef";

QString hexText(quint64 number, int width) { return QString::number(number, 16).rightJustified(width, QLatin1Char('0')); }

}  // namespace

HexView::HexView(QWidget* parent) : QAbstractScrollArea(parent)
{
    setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
    setFocusPolicy(Qt::StrongFocus);
    setAccessibleName(tr("Bytes"));
    viewport()->setCursor(Qt::IBeamCursor);
    viewport()->setBackgroundRole(QPalette::Base);
    updateMetrics();
}

void HexView::setBytes(Data bytes)
{
    bytes_ = std::move(bytes);
    markLength_ = 0;
    cursor_ = -1;
    verticalScrollBar()->setValue(0);
    updateScrollBars();
    viewport()->update();
}

void HexView::mark(qint64 offset, qint64 length)
{
    markOffset_ = std::clamp<qint64>(offset, 0, bytes_.size());
    markLength_ = std::clamp<qint64>(length, 0, bytes_.size() - markOffset_);
    if (markLength_ > 0) {
        show(markOffset_ + markLength_ - 1);
        show(markOffset_);
    }
    setAccessibleDescription(markLength_ > 0 ? tr("%n bytes marked, from offset %1", nullptr, static_cast<int>(markLength_)).arg(markOffset_)
                                             : QString());
    viewport()->update();
}

void HexView::updateMetrics()
{
    const QFontMetricsF metrics(font());
    lineHeight_ = static_cast<int>(std::ceil(metrics.height())) + 2;
    letterWidth_ = metrics.horizontalAdvance(QLatin1Char('0'));
    updateScrollBars();
}

void HexView::updateScrollBars()
{
    const int lines = static_cast<int>((bytes_.size() + bytesPerLine - 1) / bytesPerLine);
    const int shown = std::max(viewport()->height() / lineHeight_, 1);
    verticalScrollBar()->setRange(0, std::max(lines - shown, 0));
    verticalScrollBar()->setPageStep(shown);
    const int width = static_cast<int>(letterWidth_ * (lineLength + 1));
    horizontalScrollBar()->setRange(0, std::max(width - viewport()->width(), 0));
    horizontalScrollBar()->setPageStep(viewport()->width());
}

void HexView::paintEvent(QPaintEvent*)
{
    QPainter painter(viewport());
    painter.setFont(font());
    const QPalette& colors = palette();
    const QFontMetricsF metrics(font());
    const qreal left = letterWidth_ * 0.75 - horizontalScrollBar()->value();
    const qint64 firstLine = verticalScrollBar()->value();
    const int lines = viewport()->height() / lineHeight_ + 1;
    const auto x = [&](int character) { return left + letterWidth_ * character; };
    const QColor faint = colors.color(QPalette::PlaceholderText);
    for (int line = 0; line < lines; ++line) {
        const qint64 offset = (firstLine + line) * bytesPerLine;
        if (offset >= bytes_.size()) break;
        const int top = line * lineHeight_;
        const qreal base = top + 1 + metrics.ascent();
        painter.setPen(faint);
        painter.drawText(QPointF(x(0), base), hexText(static_cast<quint64>(offset), 6));
        const auto count = static_cast<int>(std::min<qint64>(bytesPerLine, bytes_.size() - offset));
        for (int i = 0; i < count; ++i) {
            const qint64 byte = offset + i;
            const std::uint8_t value = bytes_.view().u8(byte);
            const qreal digit = x(firstDigit + 3 * i + (i >= bytesPerLine / 2 ? 1 : 0));
            const qreal letter = x(firstLetter + i);
            const bool isMarked = this->isMarked(byte);
            if (isMarked) {
                // The gap to the next byte belongs to the mark, unless that is not marked.
                const bool joins = i + 1 < count && this->isMarked(byte + 1);
                const qreal gap = i + 1 == bytesPerLine / 2 ? 2 : 1;
                painter.fillRect(QRectF(digit, top, letterWidth_ * (joins ? 2 + gap : 2), lineHeight_), colors.highlight());
                painter.fillRect(QRectF(letter, top, letterWidth_, lineHeight_), colors.highlight());
            }
            const bool isLetter = value >= 0x20 && value < 0x7F;
            painter.setPen(isMarked ? colors.color(QPalette::HighlightedText) : colors.color(QPalette::Text));
            painter.drawText(QPointF(digit, base), QString(QLatin1Char(digits[value >> 4])) + QLatin1Char(digits[value & 15]));
            if (!isLetter && !isMarked) painter.setPen(faint);
            painter.drawText(QPointF(letter, base), QString(QLatin1Char(isLetter ? static_cast<char>(value) : '.')));
            if (byte == cursor_ && hasFocus()) {
                painter.setPen(colors.color(isMarked ? QPalette::HighlightedText : QPalette::Text));
                painter.drawRect(QRectF(digit - 1, top, 2 * letterWidth_ + 1, lineHeight_ - 1));
            }
        }
    }
}

QPoint HexView::placeOf(qint64 byte) const
{
    const auto column = static_cast<int>(byte % bytesPerLine);
    const qreal left = letterWidth_ * 0.75 - horizontalScrollBar()->value();
    const qreal x = left + letterWidth_ * (firstDigit + 3 * column + (column >= bytesPerLine / 2 ? 1 : 0) + 1);
    const qint64 line = byte / bytesPerLine - verticalScrollBar()->value();
    return {static_cast<int>(x), static_cast<int>(line * lineHeight_ + lineHeight_ / 2)};
}

qint64 HexView::byteAt(QPoint point) const
{
    const qint64 line = verticalScrollBar()->value() + point.y() / lineHeight_;
    const qreal character = (point.x() + horizontalScrollBar()->value() - letterWidth_ * 0.75) / letterWidth_;
    int column = -1;
    if (character >= firstLetter && character < firstLetter + bytesPerLine)
        column = static_cast<int>(character) - firstLetter;
    else if (character >= firstDigit - 0.5 && character < firstLetter - 1)
        column = std::clamp(static_cast<int>((character + 0.5 - firstDigit - (character >= firstDigit + 24.5 ? 1 : 0)) / 3), 0, bytesPerLine - 1);
    const qint64 byte = line * bytesPerLine + column;
    return column < 0 || point.y() < 0 || byte >= bytes_.size() ? -1 : byte;
}

void HexView::show(qint64 byte)
{
    const int line = static_cast<int>(byte / bytesPerLine);
    QScrollBar& bar = *verticalScrollBar();
    if (line < bar.value()) bar.setValue(line);
    if (line >= bar.value() + bar.pageStep()) bar.setValue(line - bar.pageStep() + 1);
}

void HexView::choose(qint64 byte)
{
    if (byte < 0 || byte >= bytes_.size()) return;
    cursor_ = byte;
    Q_EMIT byteChosen(byte);
    show(byte);
    viewport()->update();
}

void HexView::mousePressEvent(QMouseEvent* event)
{
    if (event->button() == Qt::LeftButton) choose(byteAt(event->position().toPoint()));
}

void HexView::mouseMoveEvent(QMouseEvent* event)
{
    const qint64 byte = byteAt(event->position().toPoint());
    if (event->buttons() & Qt::LeftButton && byte != cursor_) choose(byte);
}

void HexView::keyPressEvent(QKeyEvent* event)
{
    if (event->matches(QKeySequence::Copy)) return copy();
    const qint64 start = std::max<qint64>(cursor_, 0);
    const qint64 page = qint64{verticalScrollBar()->pageStep()} * bytesPerLine;
    const auto moved = [&]() -> qint64 {
        switch (event->key()) {
        case Qt::Key_Left: return start - 1;
        case Qt::Key_Right: return start + 1;
        case Qt::Key_Up: return start - bytesPerLine;
        case Qt::Key_Down: return start + bytesPerLine;
        case Qt::Key_PageUp: return std::max<qint64>(start - page, start % bytesPerLine);
        case Qt::Key_PageDown: return std::min<qint64>(start + page, bytes_.size() - 1);
        case Qt::Key_Home: return event->modifiers() & Qt::ControlModifier ? 0 : start - start % bytesPerLine;
        case Qt::Key_End:
            return event->modifiers() & Qt::ControlModifier ? bytes_.size() - 1
                                                            : std::min<qint64>(start - start % bytesPerLine + bytesPerLine, bytes_.size()) - 1;
        default: return -2;
        }
    }();
    if (moved == -2) return QAbstractScrollArea::keyPressEvent(event);
    choose(cursor_ < 0 ? 0 : moved);
}

QString HexView::copiedText() const
{
    const qint64 offset = markLength_ > 0 ? markOffset_ : 0;
    const qint64 length = std::min(markLength_ > 0 ? markLength_ : bytes_.size(), mostCopied);
    const DataView view = bytes_.view().sub(offset, length);
    return QString::fromLatin1(QByteArray(reinterpret_cast<const char*>(view.data()), static_cast<qsizetype>(view.size())).toHex());
}

void HexView::copy() { QApplication::clipboard()->setText(copiedText()); }

void HexView::resizeEvent(QResizeEvent* event)
{
    QAbstractScrollArea::resizeEvent(event);
    updateScrollBars();
}

void HexView::changeEvent(QEvent* event)
{
    QAbstractScrollArea::changeEvent(event);
    if (event->type() == QEvent::FontChange) updateMetrics();
}

}  // namespace sealscope::desktop
