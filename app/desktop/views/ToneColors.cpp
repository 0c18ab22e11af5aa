// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/views/ToneColors.h"

namespace sealscope::desktop {

bool isDark(const QPalette& palette) { return palette.color(QPalette::Base).lightness() < 128; }

TintColors toneColors(Tone tone, const QPalette& palette)
{
    const bool dark = isDark(palette);
    switch (tone) {
    case Tone::good: return dark ? TintColors{QColor(0x1B4D2E), QColor(0xB6EFC8)} : TintColors{QColor(0xD6F3DF), QColor(0x0B5A2A)};
    case Tone::partly: return dark ? TintColors{QColor(0x5A4310), QColor(0xFFE3A3)} : TintColors{QColor(0xFFEFC7), QColor(0x6B4700)};
    case Tone::closed: return dark ? TintColors{QColor(0x5C2424), QColor(0xFFC9C4)} : TintColors{QColor(0xFBDEDB), QColor(0x8A1C12)};
    case Tone::none:
    case Tone::pending: break;
    }
    return dark ? TintColors{QColor(0x3A3D42), QColor(0xC9CDD3)} : TintColors{QColor(0xE9EBEE), QColor(0x474C54)};
}

TintColors clientColors(const QPalette& palette)
{
    return isDark(palette) ? TintColors{QColor(0x1F3A5C), QColor(0xE4EEFB)} : TintColors{QColor(0xE1EDFC), QColor(0x10243D)};
}

TintColors serverColors(const QPalette& palette)
{
    return isDark(palette) ? TintColors{QColor(0x3B3450), QColor(0xEFE9FB)} : TintColors{QColor(0xF1ECFA), QColor(0x2A1F42)};
}

QColor failureColor(const QPalette& palette) { return isDark(palette) ? QColor(0xFF9D94) : QColor(0xB3261E); }

QColor faintText(const QPalette& palette)
{
    const QColor text = palette.color(QPalette::Text), base = palette.color(QPalette::Base);
    const auto between = [](int one, int other) { return (one * 62 + other * 38) / 100; };
    return QColor(between(text.red(), base.red()), between(text.green(), base.green()), between(text.blue(), base.blue()));
}

QString toneSign(Tone tone)
{
    switch (tone) {
    case Tone::good: return QStringLiteral("✓");
    case Tone::partly: return QStringLiteral("◐");
    case Tone::closed: return QStringLiteral("✕");
    case Tone::none: return QStringLiteral("–");
    case Tone::pending: return QString();
    }
    return {};
}

}  // namespace sealscope::desktop
