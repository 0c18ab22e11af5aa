// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/views/ColorButton.h"

#include <QColorDialog>
#include <QPainter>

namespace sealscope::desktop {

ColorButton::ColorButton(const QString& title, QWidget* parent) : QPushButton(parent), title_(title)
{
    setAutoDefault(false);
    setIconSize({32, 16});
    setAccessibleName(title);
    connect(this, &QPushButton::clicked, this, &ColorButton::choose);
}

void ColorButton::setColor(std::optional<QColor> color)
{
    color_ = color;
    QPixmap sample(iconSize() * devicePixelRatioF());
    sample.setDevicePixelRatio(devicePixelRatioF());
    sample.fill(Qt::transparent);
    QPainter painter(&sample);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(palette().color(QPalette::Mid));
    if (color) painter.setBrush(*color);
    painter.drawRoundedRect(QRectF(0.5, 0.5, iconSize().width() - 1, iconSize().height() - 1), 3, 3);
    setIcon(QIcon(sample));
    setText(color ? color->name().toUpper() : QStringLiteral("—"));
    setAccessibleDescription(text());
}

void ColorButton::choose()
{
    const QColor chosen = QColorDialog::getColor(color_.value_or(QColor(Qt::white)), this, title_);
    if (!chosen.isValid()) return;
    setColor(chosen);
    Q_EMIT colorChosen(chosen);
}

}  // namespace sealscope::desktop
