// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/Document.h"

#include "app/desktop/FileKind.h"
#include "app/desktop/StringTableTranslator.h"
#include "app/records/DecoderSentences.h"
#include "app/records/VerdictSentence.h"
#include "app/verdict/StreamVerdict.h"
#include "platform/UserDefaults.h"

#include <algorithm>
#include <chrono>
#include <expected>
#include <utility>

namespace sealscope::desktop {

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::milliseconds betweenLooks{700};
constexpr std::chrono::milliseconds betweenReports{40};  ///< of what was read

std::vector<std::string> paths(const QStringList& files)
{
    std::vector<std::string> paths;
    for (const QString& file : files) paths.push_back(file.toStdString());
    return paths;
}

}  // namespace

Document::Document(QObject* parent) : QObject(parent)
{
    timer_.setInterval(betweenLooks);
    connect(&timer_, &QTimer::timeout, this, &Document::lookForSecrets);
    timer_.start();
    liveTimer_.setInterval(betweenReports);
    connect(&liveTimer_, &QTimer::timeout, this, &Document::followLive);
}

Document::~Document() = default;

void Document::open(const QStringList& files, const QStringList& keyLogs)
{
    if (files.isEmpty()) return;
    // A key log that was dropped before its capture is meant for it.
    const bool isFirst = files_.isEmpty() && keyLogs.isEmpty();
    readPackets({.files = files, .keyLogs = isFirst ? keyLogs_ : keyLogs, .liveName = {}});
}

void Document::openLive(const QString& pipe, const QString& name) { readPackets({.files = {pipe}, .keyLogs = keyLogs_, .liveName = name}); }

void Document::abandon()
{
    reading_ = {};
    isLive_ = false;
    Q_EMIT readingChanged(false);
}

void Document::cancel()
{
    if (reading_.packets) reading_.packets->cancel();
    if (reading_.streams) reading_.streams->cancel();
}

void Document::readPackets(const Request& request)
{
    const auto work = [this, request](const Job::Context& context) {
        auto opened = PacketIndex::open(paths(request.files), context.stop());
        if (!opened) {
            context.deliver([this, problem = opened.error()] {
                endPackets();
                tell(QString::fromStdString(problem.text(windowReader())));
            });
            return;
        }
        const std::shared_ptr<PacketIndex> index = *std::move(opened);
        context.deliver([this, index, request] { replace(index, request); });
        // A screen of rows comes at once, then a batch for each few frames.
        std::int64_t step = 256;
        auto last = Clock::now() - betweenReports;
        while (index->read(step)) {
            if (Clock::now() - last < betweenReports) continue;
            last = Clock::now();
            step = 4'096;
            context.deliver([this, count = index->size(), done = index->bytesRead(), total = index->bytesTotal()] {
                Q_EMIT packetsFound(count);
                Q_EMIT progressed(done, total);
            });
        }
        context.deliver([this, index] {
            Q_EMIT packetsFound(index->size());
            endPackets();
            tellDamage(index->errors(), index->notes(), index->size());
            if (const auto& failure = index->plugInFailure()) tell(QString::fromStdString(failure->text(windowReader())));
        });
    };
    const bool wasReading = isReading();
    reading_.packets = std::make_unique<Job>(work, [this](const std::exception& problem) {
        endPackets();
        tell(tr("Reading ended: %1").arg(QString::fromUtf8(problem.what())));
    });
    if (!wasReading) Q_EMIT readingChanged(true);
}

void Document::replace(std::shared_ptr<const PacketIndex> packets, const Request& request)
{
    isLive_ = !request.liveName.isEmpty();
    files_ = isLive_ ? QStringList(request.liveName) : request.files;
    keyLogs_ = request.keyLogs;
    packets_ = std::move(packets);
    session_.reset();
    lost_.clear();
    recorded_ = isLive_ ? std::make_shared<RecordedFile>() : nullptr;
    reading_.streams.reset();
    Q_EMIT replaced();
    if (!isLive_) return readStreams(request.files);
    nextRecording_ = 0;
    liveTimer_.start();
}

void Document::followLive()
{
    if (!isLive_) return liveTimer_.stop();
    Q_EMIT packetsFound(packets_->size());
    if (!reading_.streams && Clock::now().time_since_epoch().count() >= nextRecording_) readRecordedStreams();
}

void Document::readRecordedStreams()
{
    // Indexing costs the more the more there is, so it takes a tenth of the time at most.
    static constexpr int pause = 10;
    static constexpr auto leastPause = std::chrono::seconds(2);
    const auto work = [this, packets = packets_, recorded = recorded_, keyLogs = keyLogs_](const Job::Context& context) {
        const auto begin = Clock::now();
        const auto recording = recorded->update(packets->capture());
        const QString problem = recording ? QString() : recording.error().text();
        auto session =
            Session::open({.files = {recorded->path().toStdString()}, .keyLogs = paths(keyLogs), .progress = {}, .stop = context.stop()});
        const auto next = Clock::now() + std::max<Clock::duration>(leastPause, pause * (Clock::now() - begin));
        context.deliver([this, problem, keyLogs, next, session = session ? std::shared_ptr<const Session>(*std::move(session)) : nullptr] {
            nextRecording_ = next.time_since_epoch().count();
            keyLogsInUse_ = keyLogs;
            if (session) take(session);
            endStreams();
            tell(problem);
        });
    };
    reading_.streams = std::make_unique<Job>(work, [this](const std::exception& problem) {
        endStreams();
        tell(QString::fromUtf8(problem.what()));
    });
}

void Document::readStreams(const QStringList& files)
{
    keyLogsInUse_ = keyLogs_;
    const auto work = [this, files = paths(files), keyLogs = paths(keyLogs_)](const Job::Context& context) {
        auto session = Session::open({.files = files, .keyLogs = keyLogs, .progress = {}, .stop = context.stop()});
        // That a file cannot be opened any more is told, as all else is by the other pass.
        const QString problem = session ? QString() : QString::fromStdString(session.error().text(windowReader()));
        context.deliver([this, problem, session = session ? std::shared_ptr<const Session>(*std::move(session)) : nullptr] {
            if (session) take(session);
            endStreams();
            tell(problem);
        });
    };
    reading_.streams = std::make_unique<Job>(work, [this](const std::exception& problem) {
        endStreams();
        tell(tr("Reading ended: %1").arg(QString::fromUtf8(problem.what())));
    });
}

void Document::take(std::shared_ptr<const Session> session)
{
    // Key logs that were named while the streams were being read.
    if (keyLogsInUse_ != keyLogs_) session = session->withKeyLogs(paths(keyLogs_));
    keyLogsInUse_ = keyLogs_;
    const bool hasGrown = recorded_ && session_ && session->streamCount() >= session_->streamCount();
    session_ = std::move(session);
    secretsGeneration_ = session_->plugIns().secrets().generation();
    if (hasGrown)
        Q_EMIT grown(session_);
    else
        Q_EMIT opened(session_);
}

void Document::endPackets()
{
    reading_.packets.reset();
    // Once more, of all that came.
    if (std::exchange(isLive_, false)) readRecordedStreams();
    if (!isReading()) Q_EMIT readingChanged(false);
}

void Document::endStreams()
{
    reading_.streams.reset();
    if (!isReading()) Q_EMIT readingChanged(false);
}

void Document::tellDamage(const std::vector<CaptureError>& errors, const DecoderNotes& notes, qint64 packets)
{
    for (const CaptureError& error : errors) tell(QString::fromStdString(error.text(windowReader())));
    const DecoderSentences sentences = decoderSentences(paths(files_), notes, packets, windowReader());
    for (const auto* part : {&sentences.unknownLinkTypes, &sentences.losses})
        for (const std::string& sentence : *part) tell(QString::fromStdString(sentence));
}

void Document::addKeyLogs(const QStringList& keyLogs)
{
    keyLogs_ += keyLogs;
    keyLogs_.removeDuplicates();
    examining_ = compute(
        [files = paths(keyLogs)](std::stop_token) {
            QStringList problems;
            for (const std::string& file : files)
                if (const auto problem = keyLogProblem(file))
                    problems.append(QString::fromStdString(problemText(*problem, windowReader())));
            return problems;
        },
        [this](const QStringList& problems) {
            for (const QString& problem : problems) tell(problem);
        });
    if (!session_) return;
    session_ = session_->withKeyLogs(paths(keyLogs_));
    keyLogsInUse_ = keyLogs_;
    secretsGeneration_ = session_->plugIns().secrets().generation();
    Q_EMIT secretsChanged(session_);
}

void Document::openDropped(const QStringList& files)
{
    sorting_ = compute([files](std::stop_token) { return filesByKind(files); },
                       [this](const FilesByKind& found) {
                           if (!found.captures.isEmpty()) return open(found.captures, found.keyLogs);
                           if (!found.keyLogs.isEmpty()) addKeyLogs(found.keyLogs);
                       });
}

void Document::lookForSecrets()
{
    UserDefaults::standard().synchronize();
    if (packets_)
        for (const CaptureError& error : packets_->capture().lostFiles()) {
            const QString file = QString::fromStdString(error.file);
            if (lost_.contains(file)) continue;
            lost_.append(file);
            tell(QString::fromStdString(error.text(windowReader())));
        }
    if (!session_ || looking_) return;
    looking_ = compute([session = session_](std::stop_token) { return std::pair(session, session->plugIns().secrets().generation()); },
                       [this](const std::pair<std::shared_ptr<const Session>, std::uint64_t>& found) {
                           looking_.reset();
                           if (found.first != session_ || found.second == secretsGeneration_) return;
                           secretsGeneration_ = found.second;
                           Q_EMIT secretsChanged(session_);
                       });
}

}  // namespace sealscope::desktop
