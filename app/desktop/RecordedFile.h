// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QString>
#include <QTemporaryFile>

#include <mutex>
#include <stop_token>
#include <string>

namespace sealscope {
class Capture;
}

namespace sealscope::desktop {

/// A temporary file with what has been captured so far, so that its streams can be indexed and the user can keep it. For its
/// owner alone; gone with this. Any thread may use it.
class RecordedFile {
public:
    RecordedFile();
    QString path() const { return file_.fileName(); }
    /// Adds what came since the last time. Gives what went wrong, as a sentence; empty when nothing did.
    QString update(const Capture& capture);
    /// Writes the same to a file of the user's, in the place of one that is there. Gives what went wrong, as `update` does.
    std::string copyTo(const std::string& file, const std::stop_token& stop) const;

    RecordedFile(const RecordedFile&) = delete;
    RecordedFile& operator=(const RecordedFile&) = delete;

private:
    std::mutex mutex_;
    QTemporaryFile file_;
    qint64 written_ = 0;
};

}  // namespace sealscope::desktop
