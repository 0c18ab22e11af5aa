// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/desktop/Job.h"
#include "app/session/Session.h"

#include <QObject>
#include <QStringList>
#include <QTimer>

#include <cstdint>
#include <memory>

namespace sealscope::desktop {

/// One opened capture, as every view of a window looks at it. Lives on the main thread; reads and indexes beside it. What is
/// open stays until something else could be opened.
class Document final : public QObject {
    Q_OBJECT
public:
    explicit Document(QObject* parent = nullptr);
    ~Document() override;

    /// Opens captures, read as one, in the place of what is open. Key logs, where some are named, take the place of the user's.
    void open(const QStringList& files, const QStringList& keyLogs = {});
    /// Uses key logs besides those that were named before.
    void addKeyLogs(const QStringList& keyLogs);
    /// Ends the reading early, with what has been read.
    void cancel();
    bool isReading() const { return reading_ != nullptr; }

    const QStringList& files() const { return files_; }
    const QStringList& keyLogs() const { return keyLogs_; }
    /// The capture with its streams; null until all of it has been read. Hold it as long as it is used.
    const std::shared_ptr<const Session>& session() const { return session_; }

    /// Has the window show a packet in the list of packets, or a stream as a conversation: for links between views.
    void showPacket(qint64 number) { Q_EMIT packetWanted(number); }
    void showStream(qint64 number) { Q_EMIT streamWanted(number); }
    /// Has the window tell the user what went wrong, in one sentence.
    void tell(const QString& sentence) { Q_EMIT failed(sentence); }

Q_SIGNALS:
    /// Something else is being opened, and could be: views let go of what they show. `session` is null from here on.
    void replaced();
    /// The streams are there.
    void opened(std::shared_ptr<const sealscope::Session> session);
    /// The secrets may have become others: what was asked about decryption may be answered anew. `session` may be another one,
    /// of the same streams.
    void secretsChanged(std::shared_ptr<const sealscope::Session> session);
    /// Bytes read, of how many in all; negative when unknown.
    void progressed(qint64 done, qint64 total);
    /// Reading has begun, or has ended.
    void readingChanged(bool isReading);
    void failed(const QString& sentence);
    void packetWanted(qint64 number);
    void streamWanted(qint64 number);

private:
    void read();
    void finish(std::shared_ptr<const Session> session);
    void lookForSecrets();

    QStringList files_;
    QStringList keyLogs_;
    std::shared_ptr<const Session> session_;
    std::unique_ptr<Job> reading_;
    std::unique_ptr<Job> looking_;
    QTimer timer_;                      ///< between two looks at the key logs and the settings
    std::uint64_t secretsGeneration_ = 0;
};

}  // namespace sealscope::desktop
