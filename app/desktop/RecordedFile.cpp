// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/RecordedFile.h"

#include "app/capture/Capture.h"
#include "platform/OutputFile.h"

#include <QDir>
#include <QFile>

namespace sealscope::desktop {

RecordedFile::RecordedFile() : file_(QDir::tempPath() + QStringLiteral("/sealscope-XXXXXX.pcap"))
{
    file_.open();
}

std::expected<void, RecordingProblem> RecordedFile::update(const Capture& capture)
{
    const std::lock_guard lock(mutex_);
    const DataView bytes = capture.fileBytes(0).from(written_);
    const qint64 added = file_.isOpen() ? file_.write(reinterpret_cast<const char*>(bytes.data()), bytes.size()) : -1;
    if (added > 0) written_ += added;
    if (added != bytes.size() || !file_.flush()) return std::unexpected(RecordingProblem{path(), file_.errorString()});
    return {};
}

std::expected<void, RecordingProblem> RecordedFile::copyTo(const std::string& file, const std::stop_token& stop) const
{
    const auto failed = [&](const QString& reason) { return std::unexpected(RecordingProblem{QString::fromStdString(file), reason}); };
    QFile recorded(path());
    if (!recorded.open(QIODevice::ReadOnly)) return failed(recorded.errorString());
    auto copy = OutputFile::create(file, ExistingFile::isReplaced, OutputFile::Kind::anything);
    if (!copy) return failed(QString::fromStdString(copy.error().text()));
    while (copy->isGood() && !recorded.atEnd()) {
        if (stop.stop_requested()) return {};
        const QByteArray piece = recorded.read(qint64{1} << 20);
        if (piece.isEmpty()) return failed(recorded.errorString());
        copy->write(DataView(std::string_view(piece.constData(), static_cast<std::size_t>(piece.size()))));
    }
    if (const auto finished = copy->finish(); !finished) return failed(QString::fromStdString(finished.error().text()));
    return {};
}

}  // namespace sealscope::desktop
