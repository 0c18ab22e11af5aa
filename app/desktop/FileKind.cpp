// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/FileKind.h"

#include <QFile>

#include <algorithm>

namespace sealscope::desktop {

FilesByKind filesByKind(const QStringList& files)
{
    constexpr qint64 looked = 4'096;
    FilesByKind found;
    for (const QString& name : files) {
        QFile file(name);
        const QByteArray begin = file.open(QIODevice::ReadOnly) && !file.isSequential() ? file.read(looked) : QByteArray();
        const bool isText = !begin.isEmpty() && std::ranges::none_of(begin, [](char byte) {
            const auto value = static_cast<unsigned char>(byte);
            return value < 0x20 && value != '\n' && value != '\r' && value != '\t';
        });
        (isText ? found.keyLogs : found.captures).append(name);
    }
    return found;
}

}  // namespace sealscope::desktop
