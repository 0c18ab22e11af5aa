// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QString>

namespace sealscope::desktop {

/// A text as a tool tip shows it letter by letter: a tool tip decides by itself what it takes for markup, so it gets markup that says
/// nothing but the text.
inline QString plainToolTip(const QString& text)
{
    return text.isEmpty() ? QString() : QStringLiteral("<qt>") + text.toHtmlEscaped() + QStringLiteral("</qt>");
}

}  // namespace sealscope::desktop
