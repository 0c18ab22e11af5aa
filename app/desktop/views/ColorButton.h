// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QColor>
#include <QPushButton>

#include <optional>

namespace sealscope::desktop {

/// Shows a colour and lets the user choose another.
class ColorButton final : public QPushButton {
    Q_OBJECT
public:
    explicit ColorButton(const QString& title, QWidget* parent = nullptr);
    void setColor(std::optional<QColor> color);
    const std::optional<QColor>& color() const { return color_; }

Q_SIGNALS:
    void colorChosen(const QColor& color);

private:
    void choose();
    QString title_;
    std::optional<QColor> color_;
};

}  // namespace sealscope::desktop
