// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/desktop/Appearance.h"

#include <QByteArray>
#include <QStringList>

namespace sealscope::desktop {

/// What windows remember from one run to the next, in a file of their own beside the settings: where they stood, how they were
/// divided, and which captures were open last.
struct WindowMemory {
    WindowMemory() = delete;

    static QByteArray bytes(const char* key);
    static void setBytes(const char* key, const QByteArray& bytes);

    static Appearance appearance();
    static void setAppearance(Appearance appearance);

    /// Captures that were opened, the latest first.
    static QStringList recentFiles();
    static void addRecentFile(const QString& file);
    static void clearRecentFiles();
};

}  // namespace sealscope::desktop
