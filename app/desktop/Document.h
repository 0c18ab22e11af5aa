// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/desktop/Job.h"
#include "app/desktop/RecordedFile.h"
#include "app/session/PacketIndex.h"
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

    /// Opens captures, read as one, in the place of what is open once they can be. Key logs, where some are named, take the
    /// place of the user's.
    void open(const QStringList& files, const QStringList& keyLogs = {});
    /// Opens a capture that a pipe brings, which goes on until the pipe ends. `name` is what the user calls it.
    void openLive(const QString& pipe, const QString& name);
    /// Lets go of what is being opened and could not be yet.
    void abandon();
    /// Uses key logs besides those that were named before.
    void addKeyLogs(const QStringList& keyLogs);
    /// Finds out by their content which files are key logs; opens the others and uses these.
    void openDropped(const QStringList& files);
    /// Ends the reading early, with what has been read.
    void cancel();
    bool isReading() const { return reading_.packets || reading_.streams; }

    /// Whether the capture goes on, packets coming as they pass an interface.
    bool isLive() const { return isLive_; }

    /// What was captured live; null when nothing was.
    const std::shared_ptr<RecordedFile>& recorded() const { return recorded_; }

    const QStringList& files() const { return files_; }
    const QStringList& keyLogs() const { return keyLogs_; }
    /// The capture's packets, as far as they have been read; null when none is open.
    const std::shared_ptr<const PacketIndex>& packets() const { return packets_; }
    /// The capture with its streams; null until all of it has been read. Hold it as long as it is used.
    const std::shared_ptr<const Session>& session() const { return session_; }

    /// Has the window show a packet in the list of packets, or a stream as a conversation: for links between views.
    void showPacket(qint64 number) { Q_EMIT packetWanted(number); }
    void showStream(qint64 number) { Q_EMIT streamWanted(number); }
    /// Has the window tell the user what went wrong, in one sentence.
    void tell(const QString& sentence) { Q_EMIT failed(sentence); }

Q_SIGNALS:
    /// Something else could be opened: `packets` is that from here on, and `session` null. Views let go of what they show.
    void replaced();
    /// More packets were read; there are so many now.
    void packetsFound(qint64 count);
    /// The streams are there.
    void opened(std::shared_ptr<const sealscope::Session> session);
    /// More has been captured: the same streams, of which each may go on, and further ones.
    void grown(std::shared_ptr<const sealscope::Session> session);
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
    /// Both passes over the capture: packets come at once, streams when all have been read.
    struct Reading {
        std::unique_ptr<Job> packets;
        std::unique_ptr<Job> streams;
    };

    /// What shall be opened.
    struct Request {
        QStringList files;
        QStringList keyLogs;
        QString liveName;  ///< of a capture that goes on; empty for files
    };

    void readPackets(const Request& request);
    void readStreams(const QStringList& files);
    /// Indexes the streams of what has been captured so far.
    void readRecordedStreams();
    void replace(std::shared_ptr<const PacketIndex> packets, const Request& request);
    void followLive();
    void take(std::shared_ptr<const Session> session);
    void endPackets();
    void endStreams();
    void tellDamage(const std::vector<CaptureError>& errors, const DecoderNotes& notes, qint64 packets);
    void lookForSecrets();

    QStringList files_;
    QStringList keyLogs_;
    QStringList keyLogsInUse_;
    QStringList lost_;  ///< files that became shorter while they are open, of which the user knows
    std::shared_ptr<const PacketIndex> packets_;
    std::shared_ptr<const Session> session_;
    bool isLive_ = false;
    std::shared_ptr<RecordedFile> recorded_;
    QTimer liveTimer_;         ///< between two looks at what came
    qint64 nextRecording_ = 0; ///< when the streams are indexed again, on the steady clock
    Reading reading_;
    std::unique_ptr<Job> sorting_;      ///< of dropped files
    std::unique_ptr<Job> examining_;    ///< of key logs
    std::unique_ptr<Job> looking_;      ///< at the key logs in use
    QTimer timer_;                      ///< between two looks at the key logs and the settings
    std::uint64_t secretsGeneration_ = 0;
};

}  // namespace sealscope::desktop
