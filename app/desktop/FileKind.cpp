// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/FileKind.h"

#include "platform/SecretMemory.h"

#include <QFile>
#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace sealscope::desktop {

FilesByKind filesByKind(const QStringList& files)
{
    constexpr qint64 looked = 4'096;
    FilesByKind found;
    for (const QString& name : files) {
        QFile file(name);
        // What is read may be secrets, which belong in no memory that is freed as it is.
        SecretBytes begin(looked);
        const bool isOpen = file.open(QIODevice::ReadOnly | QIODevice::Unbuffered) && !file.isSequential();
        begin.resize(static_cast<std::size_t>(isOpen ? std::max<qint64>(file.read(reinterpret_cast<char*>(begin.data()), looked), 0) : 0));
        const bool isText = !begin.empty() && std::ranges::none_of(begin, [](std::uint8_t value) {
            return value < 0x20 && value != '\n' && value != '\r' && value != '\t';
        });
        (isText ? found.keyLogs : found.captures).append(name);
    }
    return found;
}

}  // namespace sealscope::desktop
