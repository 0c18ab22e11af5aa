// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/views/MessageDelegate.h"

#include "app/desktop/models/MessagesModel.h"
#include "app/desktop/views/ToneColors.h"

#include <QMouseEvent>
#include <QPainter>

#include <algorithm>

namespace sealscope::desktop {

namespace {

constexpr int padding = 8, gap = 3;

QFont small(const QFont& font)
{
    QFont smaller = font;
    smaller.setPointSizeF(font.pointSizeF() * 0.87);
    return smaller;
}

/// An open padlock of a height, for what was decrypted.
void drawLock(QPainter& painter, QPointF topLeft, double height, const QColor& color)
{
    const QRectF body(topLeft.x(), topLeft.y() + height * 0.45, height * 0.72, height * 0.5);
    painter.setPen(QPen(color, height * 0.12));
    painter.setBrush(Qt::NoBrush);
    painter.drawArc(QRectF(body.left() + height * 0.32, topLeft.y() + height * 0.08, height * 0.46, height * 0.7), 0, 180 * 16);
    painter.setPen(Qt::NoPen);
    painter.setBrush(color);
    painter.drawRoundedRect(body, 1, 1);
}

}  // namespace

/// Where the parts of a message are painted.
struct MessageDelegate::Places {
    QRect bubble, summary, note, partner;
    QString partnerText;
};

MessageDelegate::Places MessageDelegate::places(const QStyleOptionViewItem& option, const QModelIndex& index)
{
    Places places;
    const bool isClient = index.data(MessagesModel::ClientRole).toBool();
    const int indent = option.rect.width() / 7;
    places.bubble = option.rect.adjusted(isClient ? 6 : indent, gap, isClient ? -indent : -6, -gap);
    const QRect inside = places.bubble.adjusted(padding, padding / 2, -padding, -padding / 2);
    places.summary = {inside.left(), inside.top(), inside.width(), option.fontMetrics.height()};
    const QFontMetrics smaller(small(option.font));
    places.note = {inside.left(), inside.bottom() - smaller.height() + 1, inside.width(), smaller.height()};
    places.partnerText = index.data(MessagesModel::PairingRole).toString();
    if (!places.partnerText.isEmpty()) {
        places.partnerText.prepend(QStringLiteral("↔ "));
        const int width = std::min(smaller.horizontalAdvance(places.partnerText) + 4, places.note.width() * 2 / 3);
        places.partner = {places.note.right() - width + 1, places.note.top(), width, places.note.height()};
        places.note.setRight(places.partner.left() - padding);
    }
    return places;
}

void MessageDelegate::paint(QPainter* painter, const QStyleOptionViewItem& option, const QModelIndex& index) const
{
    const Places places = MessageDelegate::places(option, index);
    const bool isClient = index.data(MessagesModel::ClientRole).toBool();
    const auto kind = static_cast<StreamMessageKind>(index.data(MessagesModel::KindRole).toInt());
    const TintColors colors = isClient ? clientColors(option.palette) : serverColors(option.palette);
    const bool isSelected = option.state & QStyle::State_Selected;

    painter->save();
    painter->setRenderHint(QPainter::Antialiasing);
    painter->setPen(isSelected ? QPen(option.palette.color(QPalette::Highlight), 2) : QPen(Qt::NoPen));
    painter->setBrush(colors.fill);
    painter->drawRoundedRect(places.bubble, 6, 6);

    QFont font = option.font;
    font.setBold(kind == StreamMessageKind::request || kind == StreamMessageKind::reply);
    painter->setFont(font);
    painter->setPen(colors.text);
    const QString arrow = isClient ? QStringLiteral("→  ") : QStringLiteral("←  ");
    painter->drawText(places.summary, Qt::AlignLeft | Qt::AlignVCenter | Qt::TextSingleLine,
                      QFontMetrics(font).elidedText(arrow + index.data(Qt::DisplayRole).toString(), Qt::ElideRight, places.summary.width()));

    QColor faint = colors.text;
    faint.setAlpha(170);
    const QFont smaller = small(option.font);
    painter->setFont(smaller);
    painter->setPen(faint);
    const QString note = index.data(MessagesModel::NoteRole).toString();
    QRect noteRect = places.note;
    if (index.data(MessagesModel::DecryptedRole).toBool()) {
        const int height = noteRect.height() * 3 / 4;
        drawLock(*painter, QPointF(noteRect.left(), noteRect.top() + (noteRect.height() - height) / 2.0), height, colors.text);
        noteRect.setLeft(noteRect.left() + height + 4);
        painter->setPen(faint);
    }
    painter->drawText(noteRect, Qt::AlignLeft | Qt::AlignVCenter | Qt::TextSingleLine,
                      QFontMetrics(smaller).elidedText(note, Qt::ElideRight, noteRect.width()));
    if (!places.partnerText.isEmpty()) {
        painter->setPen(colors.text);
        painter->drawText(places.partner, Qt::AlignRight | Qt::AlignVCenter | Qt::TextSingleLine,
                          QFontMetrics(smaller).elidedText(places.partnerText, Qt::ElideRight, places.partner.width()));
    }
    painter->restore();
}

QSize MessageDelegate::sizeHint(const QStyleOptionViewItem& option, const QModelIndex&) const
{
    return {100, option.fontMetrics.height() + QFontMetrics(small(option.font)).height() + padding + 2 + 2 * gap};
}

bool MessageDelegate::editorEvent(QEvent* event, QAbstractItemModel* model, const QStyleOptionViewItem& option, const QModelIndex& index)
{
    if (event->type() == QEvent::MouseButtonRelease) {
        const auto* const mouse = static_cast<QMouseEvent*>(event);
        if (mouse->button() == Qt::LeftButton && places(option, index).partner.contains(mouse->position().toPoint())) {
            Q_EMIT partnerChosen(index);
            return true;
        }
    }
    return QStyledItemDelegate::editorEvent(event, model, option, index);
}

}  // namespace sealscope::desktop
