// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/views/VerdictDelegate.h"

#include "app/desktop/models/StreamsModel.h"
#include "app/desktop/views/ToneColors.h"

#include <QApplication>
#include <QPainter>

#include <algorithm>

namespace sealscope::desktop {

namespace {

constexpr int padding = 8, slack = 4;  ///< a sign of another font may be a little wider than it is measured

QString badgeText(const QModelIndex& index)
{
    const QString sign = toneSign(static_cast<Tone>(index.data(StreamsModel::ToneRole).toInt()));
    const QString words = index.data(Qt::DisplayRole).toString();
    return sign.isEmpty() ? words : sign + QStringLiteral("  ") + words;
}

}  // namespace

void VerdictDelegate::paint(QPainter* painter, const QStyleOptionViewItem& option, const QModelIndex& index) const
{
    QStyleOptionViewItem background = option;
    initStyleOption(&background, index);
    background.text.clear();
    const QStyle* const style = option.widget ? option.widget->style() : QApplication::style();
    style->drawControl(QStyle::CE_ItemViewItem, &background, painter, option.widget);

    const auto colors = toneColors(static_cast<Tone>(index.data(StreamsModel::ToneRole).toInt()), option.palette);
    const QString text = badgeText(index);
    QRect badge = option.rect.adjusted(3, 2, -3, -2);
    badge.setWidth(std::min(badge.width(), option.fontMetrics.horizontalAdvance(text) + 2 * padding + slack));
    painter->save();
    painter->setRenderHint(QPainter::Antialiasing);
    painter->setPen(Qt::NoPen);
    painter->setBrush(colors.fill);
    painter->drawRoundedRect(badge, badge.height() / 2.0, badge.height() / 2.0);
    painter->setPen(colors.text);
    const QRect words = badge.adjusted(padding, 0, -padding, 0);
    painter->drawText(words, Qt::AlignLeft | Qt::AlignVCenter | Qt::TextSingleLine,
                      option.fontMetrics.elidedText(text, Qt::ElideRight, words.width()));
    painter->restore();
}

QSize VerdictDelegate::sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const
{
    QSize size = QStyledItemDelegate::sizeHint(option, index);
    size.setWidth(option.fontMetrics.horizontalAdvance(badgeText(index)) + 2 * padding + slack + 6);
    return size;
}

}  // namespace sealscope::desktop
