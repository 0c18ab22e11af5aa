// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/views/WaterfallDelegate.h"

#include "app/desktop/models/ExchangesModel.h"
#include "app/desktop/views/ToneColors.h"

#include <QPainter>

#include <algorithm>

namespace sealscope::desktop {

void WaterfallDelegate::paint(QPainter* painter, const QStyleOptionViewItem& option, const QModelIndex& index) const
{
    QStyledItemDelegate::paint(painter, option, index);
    const ExchangesModel::Bar bar = model_.bar(index);
    const QRectF room = QRectF(option.rect).adjusted(6, 0, -6, 0);
    const auto at = [&](double part) { return room.left() + part * room.width(); };
    constexpr double narrowest = 3;  // pixels
    const double left = std::min(at(bar.begin), room.right() - narrowest);
    const double right = std::max(at(bar.end), left + narrowest);
    const double reply = std::clamp(at(bar.reply), left, right);
    const double height = std::min(room.height() - 8, 10.0);
    const QRectF whole(left, room.center().y() - height / 2, right - left, height);
    const bool isFailure = index.data(ExchangesModel::FailureRole).toBool();
    const bool isSelected = option.state & QStyle::State_Selected;
    const QColor full = isSelected ? option.palette.color(QPalette::HighlightedText)
                        : isFailure ? failureColor(option.palette) : isDark(option.palette) ? QColor(0x6CB2FF) : QColor(0x1F6FD0);
    QColor light = full;
    light.setAlpha(130);
    painter->save();
    painter->fillRect(whole, light);
    painter->fillRect(QRectF(QPointF(reply, whole.top()), whole.bottomRight()), full);
    painter->restore();
}

}  // namespace sealscope::desktop
