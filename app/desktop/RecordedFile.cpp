// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/RecordedFile.h"

#include "app/capture/Capture.h"

#include <QDir>

namespace sealscope::desktop {

RecordedFile::RecordedFile() : file_(QDir::tempPath() + QStringLiteral("/sealscope-XXXXXX.pcap"))
{
    file_.open();
}

QString RecordedFile::update(const Capture& capture)
{
    const std::lock_guard lock(mutex_);
    const DataView bytes = capture.fileBytes(0).from(written_);
    const qint64 added = file_.isOpen() ? file_.write(reinterpret_cast<const char*>(bytes.data()), bytes.size()) : -1;
    if (added > 0) written_ += added;
    if (added != bytes.size() || !file_.flush()) return QStringLiteral("%1: %2").arg(path(), file_.errorString());
    return {};
}

}  // namespace sealscope::desktop
