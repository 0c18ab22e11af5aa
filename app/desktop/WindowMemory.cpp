// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/WindowMemory.h"

#include "platform/UserDefaults.h"

#include <QFileInfo>
#include <QSettings>

#include <algorithm>

namespace sealscope::desktop {

namespace {

constexpr int mostRecentFiles = 10;
constexpr const char* recentKey = "recentFiles";
constexpr const char* appearanceKey = "appearance";

QSettings store()
{
    const std::filesystem::path settings = UserDefaults::standard().file();
    // Without a home folder nothing is remembered.
    if (settings.empty()) return QSettings(QStringLiteral("/dev/null"), QSettings::IniFormat);
    return QSettings(QString::fromStdString((settings.parent_path() / "desktop.ini").string()), QSettings::IniFormat);
}

}  // namespace

QByteArray WindowMemory::bytes(const char* key) { return store().value(QLatin1String(key)).toByteArray(); }
void WindowMemory::setBytes(const char* key, const QByteArray& bytes) { store().setValue(QLatin1String(key), bytes); }

Appearance WindowMemory::appearance()
{
    return static_cast<Appearance>(std::clamp(store().value(QLatin1String(appearanceKey)).toInt(), 0, 2));
}

void WindowMemory::setAppearance(Appearance appearance) { store().setValue(QLatin1String(appearanceKey), static_cast<int>(appearance)); }

QStringList WindowMemory::recentFiles() { return store().value(QLatin1String(recentKey)).toStringList(); }

void WindowMemory::addRecentFile(const QString& file)
{
    const QString path = QFileInfo(file).absoluteFilePath();
    QStringList files = recentFiles();
    files.removeAll(path);
    files.prepend(path);
    store().setValue(QLatin1String(recentKey), files.mid(0, mostRecentFiles));
}

void WindowMemory::clearRecentFiles() { store().remove(QLatin1String(recentKey)); }

}  // namespace sealscope::desktop
