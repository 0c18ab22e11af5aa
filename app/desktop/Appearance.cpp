// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/Appearance.h"

#include <QApplication>
#include <QStyle>
#include <QStyleFactory>

namespace sealscope::desktop {

namespace {

struct Shades {
    QRgb window, base, alternate, button, text, faint, disabled, highlight, link, tip, light, mid, dark;
};

QPalette paletteOf(const Shades& shades)
{
    QPalette palette;
    const auto set = [&](QPalette::ColorRole role, QRgb color) { palette.setColor(role, QColor::fromRgb(color)); };
    set(QPalette::Window, shades.window);
    set(QPalette::WindowText, shades.text);
    set(QPalette::Base, shades.base);
    set(QPalette::AlternateBase, shades.alternate);
    set(QPalette::Text, shades.text);
    set(QPalette::PlaceholderText, shades.faint);
    set(QPalette::Button, shades.button);
    set(QPalette::ButtonText, shades.text);
    set(QPalette::BrightText, 0xFF'FFFFFF);
    set(QPalette::Highlight, shades.highlight);
    set(QPalette::HighlightedText, 0xFF'FFFFFF);
    set(QPalette::Link, shades.link);
    set(QPalette::LinkVisited, shades.link);
    set(QPalette::ToolTipBase, shades.tip);
    set(QPalette::ToolTipText, shades.text);
    set(QPalette::Light, shades.light);
    set(QPalette::Midlight, shades.light);
    set(QPalette::Mid, shades.mid);
    set(QPalette::Dark, shades.dark);
    set(QPalette::Shadow, 0xFF'000000);
    for (const auto role : {QPalette::WindowText, QPalette::Text, QPalette::ButtonText})
        palette.setColor(QPalette::Disabled, role, QColor::fromRgb(shades.disabled));
    palette.setColor(QPalette::Disabled, QPalette::Highlight, QColor::fromRgb(shades.mid));
    return palette;
}

}  // namespace

QPalette lightPalette()
{
    return paletteOf({.window = 0xFF'F4F4F5, .base = 0xFF'FFFFFF, .alternate = 0xFF'F7F8FA, .button = 0xFF'F4F4F5, .text = 0xFF'1B1C1E,
                      .faint = 0xFF'6A6F76, .disabled = 0xFF'9A9EA4, .highlight = 0xFF'2A6FB8, .link = 0xFF'1E62A8, .tip = 0xFF'FFF6D8,
                      .light = 0xFF'FFFFFF, .mid = 0xFF'C4C7CC, .dark = 0xFF'A0A4AA});
}

QPalette darkPalette()
{
    return paletteOf({.window = 0xFF'2A2C30, .base = 0xFF'1E2023, .alternate = 0xFF'24262A, .button = 0xFF'34373C, .text = 0xFF'E8E9EB,
                      .faint = 0xFF'9BA1A9, .disabled = 0xFF'74797F, .highlight = 0xFF'3A7BC2, .link = 0xFF'7DB5F0, .tip = 0xFF'45401F,
                      .light = 0xFF'3E4147, .mid = 0xFF'4A4E55, .dark = 0xFF'17181A});
}

void apply(Appearance appearance)
{
    static const QString systemStyle = QApplication::style()->name();
    static const QPalette systemPalette = QApplication::palette();
    // A style that draws with the system's own pictures has no use for other colours.
    QApplication::setStyle(appearance == Appearance::system ? systemStyle : QStringLiteral("fusion"));
    switch (appearance) {
    case Appearance::system: return QApplication::setPalette(systemPalette);
    case Appearance::light: return QApplication::setPalette(lightPalette());
    case Appearance::dark: return QApplication::setPalette(darkPalette());
    }
}

}  // namespace sealscope::desktop
