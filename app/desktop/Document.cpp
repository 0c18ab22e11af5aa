// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/Document.h"

#include "platform/UserDefaults.h"

#include <chrono>
#include <expected>
#include <utility>

namespace sealscope::desktop {

namespace {

constexpr std::chrono::milliseconds betweenLooks{700};
constexpr std::chrono::milliseconds betweenProgress{50};

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
}

Document::~Document() = default;

void Document::open(const QStringList& files, const QStringList& keyLogs)
{
    if (files.isEmpty()) return;
    files_ = files;
    keyLogs_ = keyLogs;
    read();
}

void Document::addKeyLogs(const QStringList& keyLogs)
{
    keyLogs_ += keyLogs;
    keyLogs_.removeDuplicates();
    if (!files_.isEmpty()) read();
}

void Document::cancel()
{
    if (reading_) reading_->cancel();
}

void Document::read()
{
    const auto work = [this, files = paths(files_), keyLogs = paths(keyLogs_)](const Job::Context& context) {
        auto last = std::chrono::steady_clock::now();
        auto session = Session::open({
            .files = files,
            .keyLogs = keyLogs,
            .progress =
                [&](std::int64_t done, std::int64_t total) {
                    const auto now = std::chrono::steady_clock::now();
                    if (now - std::exchange(last, now) < betweenProgress) return;
                    context.deliver([this, done, total] { Q_EMIT progressed(done, total); });
                },
            .stop = context.stop(),
        });
        context.deliver([this, session = session ? std::shared_ptr<const Session>(std::move(*session)) : nullptr,
                         problem = session ? QString() : QString::fromStdString(session.error().text())] {
            if (session) return finish(session);
            reading_.reset();
            Q_EMIT readingChanged(false);
            tell(problem);
        });
    };
    session_.reset();
    Q_EMIT replaced();
    reading_ = std::make_unique<Job>(work, [this](const std::exception& problem) { tell(QString::fromUtf8(problem.what())); });
    Q_EMIT readingChanged(true);
}

void Document::finish(std::shared_ptr<const Session> session)
{
    session_ = std::move(session);
    secretsGeneration_ = session_->plugIns().secrets().generation();
    reading_.reset();
    Q_EMIT readingChanged(false);
    Q_EMIT opened(session_);
    for (const CaptureError& error : session_->errors()) tell(QString::fromStdString(error.text()));
}

void Document::lookForSecrets()
{
    UserDefaults::standard().synchronize();
    if (!session_ || looking_) return;
    looking_ = compute([session = session_](std::stop_token) { return std::pair(session, session->plugIns().secrets().generation()); },
                       [this](std::pair<std::shared_ptr<const Session>, std::uint64_t> found) {
                           looking_.reset();
                           if (found.first != session_ || found.second == secretsGeneration_) return;
                           secretsGeneration_ = found.second;
                           Q_EMIT secretsChanged(session_);
                       });
}

}  // namespace sealscope::desktop
