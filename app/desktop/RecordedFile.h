// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QString>
#include <QTemporaryFile>
#include <expected>
#include <mutex>
#include <stop_token>
#include <string>

namespace sealscope {
class Capture;
}

namespace sealscope::desktop {

/// Why what was captured could not be kept.
struct RecordingProblem {
    QString file;
    QString reason;
    QString text() const { return QStringLiteral("%1: %2").arg(file, reason); }
};

/// A temporary file with what has been captured so far, so that its streams can be indexed and the user can keep it. For its
/// owner alone; gone with this. Any thread may use it.
class RecordedFile {
public:
    RecordedFile();
    QString path() const { return file_.fileName(); }
    /// Adds what came since the last time.
    std::expected<void, RecordingProblem> update(const Capture& capture);
    /// Writes the same to a file of the user's, in the place of one that is there.
    std::expected<void, RecordingProblem> copyTo(const std::string& file, const std::stop_token& stop) const;

    RecordedFile(const RecordedFile&) = delete;
    RecordedFile& operator=(const RecordedFile&) = delete;

private:
    std::mutex mutex_;
    QTemporaryFile file_;
    qint64 written_ = 0;
};

}  // namespace sealscope::desktop
