// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/LiveRecording.h"

#include <QCoreApplication>
#include <QFile>
#include <QStandardPaths>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <net/if.h>
#include <sys/stat.h>

namespace sealscope::desktop {

LiveRecording::LiveRecording(QObject* parent)
    : QObject(parent), program_(QCoreApplication::applicationDirPath() + QStringLiteral("/sealscope"))
{}

LiveRecording::~LiveRecording()
{
    if (!process_) return;
    process_->disconnect(this);
    process_->terminate();
    process_->closeReadChannel(QProcess::StandardOutput);
    process_->waitForFinished(1'000);
}

QStringList LiveRecording::interfaces()
{
    QStringList names;
    struct if_nameindex* const all = if_nameindex();
    for (const auto* one = all; one && one->if_index != 0; ++one) names.append(QString::fromLocal8Bit(one->if_name));
    if (all) if_freenameindex(all);
    names.append(QStringLiteral("any"));
    return names;
}

void LiveRecording::start(const QString& interface)
{
    if (process_) return;
    interface_ = interface;
    isStopping_ = hasPackets_ = false;
    folder_ = std::make_unique<QTemporaryDir>();
    const QString pipe = folder_->filePath(QStringLiteral("packets.pcap"));
    const QByteArray path = QFile::encodeName(pipe);
    if (!folder_->isValid() || mkfifo(path.constData(), 0600) != 0) {
        const QString problem = QString::fromUtf8(std::strerror(errno));
        Q_EMIT failedBeforePackets();
        return Q_EMIT ended(problem);
    }
    // Open for both, so that neither side waits for the other, nor sees an end before the process has ended.
    pipe_ = FileDescriptor(::open(path.constData(), O_RDWR | O_CLOEXEC | O_NONBLOCK));
    Q_EMIT started(pipe);
    run(Way::directly);
}

void LiveRecording::run(Way way)
{
    const QString pipe = folder_->filePath(QStringLiteral("packets.pcap"));
    QStringList arguments{QStringLiteral("live"),    QStringLiteral("--interface"), interface_, QStringLiteral("--write"), pipe,
                          QStringLiteral("--quiet"), QStringLiteral("--json")};
    QString program = program_;
    if (way == Way::throughPkexec) {
        arguments.prepend(program);
        program = QStandardPaths::findExecutable(QStringLiteral("pkexec"));
    }
    errors_.clear();
    process_ = new QProcess(this);
    // Its rows are not wanted, the packets come by the pipe.
    connect(process_, &QProcess::readyReadStandardOutput, process_, [process = process_] { process->readAllStandardOutput(); });
    connect(process_, &QProcess::readyReadStandardError, this, [this] { errors_ += process_->readAllStandardError(); });
    connect(process_, &QProcess::errorOccurred, this, [this, way](QProcess::ProcessError error) {
        if (error != QProcess::FailedToStart) return;
        errors_ = process_->errorString().toUtf8();
        finish(way, -1);
    });
    connect(process_, &QProcess::finished, this, [this, way](int status) { finish(way, status); });
    process_->start(program, arguments);
}

void LiveRecording::stop()
{
    if (!process_) return;
    isStopping_ = true;
    process_->terminate();
    // What may not be told by a signal ends when nobody reads its rows any more.
    process_->closeReadChannel(QProcess::StandardOutput);
}

void LiveRecording::finish(Way way, int status)
{
    errors_ += process_->readAllStandardError();
    process_->deleteLater();
    process_ = nullptr;
    const bool hasFailed = status != 0 && !isStopping_;
    if (hasFailed && !hasPackets_ && way == Way::directly && !QStandardPaths::findExecutable(QStringLiteral("pkexec")).isEmpty())
        return run(Way::throughPkexec);
    pipe_ = FileDescriptor();
    if (hasFailed && !hasPackets_) Q_EMIT failedBeforePackets();
    Q_EMIT ended(hasFailed ? complaint() : QString());
}

QString LiveRecording::complaint() const
{
    const QString text = QString::fromUtf8(errors_).trimmed().section(QLatin1Char('\n'), -1);
    const QString prefix = QStringLiteral("sealscope: ");
    if (text.isEmpty()) return tr("%1: the capture ended").arg(interface_);
    return text.startsWith(prefix) ? text.mid(prefix.size()) : text;
}

}  // namespace sealscope::desktop
