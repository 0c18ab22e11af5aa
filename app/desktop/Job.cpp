// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/Job.h"

#include <QMetaObject>
#include <QThread>
#include <QThreadPool>

#include <algorithm>
#include <atomic>
#include <stdexcept>
#include <string>

namespace sealscope::desktop {

/// The way from the work to the main thread. It outlives both ends, and goes on the main thread.
struct Job::Context::Channel final : QObject {
    bool isOpen = true;  ///< main thread only
};

namespace {

/// Long passes over a capture must not keep waiting what the user asks for meanwhile.
QThreadPool& pool()
{
    static QThreadPool* const threads = [] {
        auto* const made = new QThreadPool;
        made->setMaxThreadCount(std::max(QThread::idealThreadCount(), 1) + 4);
        return made;
    }();
    return *threads;
}

}  // namespace

void Job::Context::deliver(std::function<void()> function) const
{
    QMetaObject::invokeMethod(
        channel_.get(),
        [channel = channel_.get(), function = std::move(function)] {
            if (channel->isOpen) function();
        },
        Qt::QueuedConnection);
}

Job::Job(std::function<void(const Context&)> work, std::function<void(const std::exception&)> failed)
    : channel_(new Context::Channel, [](Context::Channel* channel) { channel->deleteLater(); })
{
    Context context;
    context.channel_ = channel_;
    context.stop_ = stop_.get_token();
    pool().start([context = std::move(context), work = std::move(work), failed = std::move(failed)] {
        try {
            work(context);
        } catch (const std::exception& problem) {
            if (failed)
                context.deliver([failed, reason = std::string(problem.what())] { failed(std::runtime_error(reason)); });
        }
    });
}

Job::~Job()
{
    stop_.request_stop();
    channel_->isOpen = false;
}

void Job::waitForAll() { pool().waitForDone(); }

}  // namespace sealscope::desktop
