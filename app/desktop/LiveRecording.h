// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/FileDescriptor.h"

#include <QObject>
#include <QProcess>
#include <QStringList>
#include <QTemporaryDir>
#include <memory>

namespace sealscope::desktop {

/// A capture of a network interface by a process of its own, the command line program, which alone has the privilege that
/// takes: as it is installed, or else granted by the user through pkexec. This process gets the packets through a pipe.
class LiveRecording final : public QObject {
    Q_OBJECT
public:
    explicit LiveRecording(QObject* parent = nullptr);
    ~LiveRecording() override;

    /// The network interfaces of this machine, "any" last.
    static QStringList interfaces();

    void start(const QString& interface);
    void stop();
    /// Whoever reads the pipe has got packets: what ends it from here on is no lack of privilege.
    void noteArrival() { hasPackets_ = true; }
    bool isRunning() const { return process_ != nullptr; }
    const QString& interface() const { return interface_; }
    /// The program that captures, where it is not the one beside this.
    void setProgram(const QString& program) { program_ = program; }

Q_SIGNALS:
    /// Packets will come out of a pipe, as a capture file.
    void started(const QString& pipe);
    /// It has ended. `problem` says why, where the user did not end it.
    void ended(const QString& problem);
    /// Before that, where it ended by itself and without any packet.
    void failedBeforePackets();

private:
    enum class Way : std::uint8_t { directly, throughPkexec };
    void run(Way way);
    void finish(Way way, int status);
    QString complaint() const;

    QString program_;
    QString interface_;
    std::unique_ptr<QTemporaryDir> folder_;
    FileDescriptor pipe_;  ///< holds the pipe open while nobody writes into it yet
    QProcess* process_ = nullptr;
    QByteArray errors_;
    bool hasPackets_ = false;
    bool isStopping_ = false;
};

}  // namespace sealscope::desktop
