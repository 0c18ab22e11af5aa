// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/desktop/models/StreamTable.h"

#include <QColor>
#include <QPalette>
#include <QString>

namespace sealscope::desktop {

/// Colours for one meaning, readable on each other and on a window's background, light or dark.
struct TintColors {
    QColor fill;
    QColor text;
};

bool isDark(const QPalette& palette);
TintColors toneColors(Tone tone, const QPalette& palette);
/// What a client said, and what a server said.
TintColors clientColors(const QPalette& palette);
TintColors serverColors(const QPalette& palette);
/// For what went wrong, as text on a table's background.
QColor failureColor(const QPalette& palette);
/// A colour between a palette's text and its background: for what is secondary.
QColor faintText(const QPalette& palette);

/// A sign for a tone, so that it is told not by colour alone.
QString toneSign(Tone tone);

}  // namespace sealscope::desktop
