// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/views/ElidedLabel.h"

#include <QPainter>

namespace sealscope::desktop {

ElidedLabel::ElidedLabel(Qt::TextElideMode mode, QWidget* parent) : QLabel(parent), mode_(mode)
{
    setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
}

QSize ElidedLabel::minimumSizeHint() const { return {fontMetrics().averageCharWidth() * 8, QLabel::minimumSizeHint().height()}; }

void ElidedLabel::paintEvent(QPaintEvent* event)
{
    // What fits, or is being selected, is drawn as any label is.
    if (fontMetrics().horizontalAdvance(text()) <= contentsRect().width() || hasSelectedText()) return QLabel::paintEvent(event);
    QPainter painter(this);
    painter.setPen(palette().color(foregroundRole()));
    painter.drawText(contentsRect(), static_cast<int>(alignment()), fontMetrics().elidedText(text(), mode_, contentsRect().width()));
}

}  // namespace sealscope::desktop
