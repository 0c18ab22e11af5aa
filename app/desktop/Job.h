// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QObject>

#include <exception>
#include <functional>
#include <memory>
#include <stop_token>
#include <type_traits>
#include <utility>

namespace sealscope::desktop {

/// Work that runs beside the main thread and tells it what it finds. Made, asked and let go on the main thread; letting it go
/// cancels it, and nothing is delivered after that. The work itself must hold what it uses, since it may end later.
class Job {
public:
    /// What the work has of its job. Any thread may call it.
    class Context {
    public:
        const std::stop_token& stop() const { return stop_; }
        bool isCancelled() const { return stop_.stop_requested(); }
        /// Has a function run on the main thread, in the order of the calls, unless the job was let go meanwhile.
        void deliver(std::function<void()> function) const;

    private:
        friend class Job;
        struct Channel;
        std::shared_ptr<Channel> channel_;
        std::stop_token stop_;
    };

    /// Starts work. What it throws is handed to `failed` on the main thread; without one it is let drop.
    explicit Job(std::function<void(const Context&)> work, std::function<void(const std::exception&)> failed = {});
    ~Job();

    /// Asks the work to end early with what it has; what it delivers still arrives.
    void cancel() { stop_.request_stop(); }

    Job(const Job&) = delete;
    Job& operator=(const Job&) = delete;

    /// Waits for all work that was started and not ended; for the end of the program.
    static void waitForAll();

private:
    std::stop_source stop_;
    std::shared_ptr<Context::Channel> channel_;
};

/// Has `work(stop)` run beside the main thread and `done(result)` on it.
template <class Work, class Done>
std::unique_ptr<Job> compute(Work work, Done done, std::function<void(const std::exception&)> failed = {})
{
    using Result = std::invoke_result_t<Work&, std::stop_token>;
    return std::make_unique<Job>(
        [work = std::move(work), done = std::move(done)](const Job::Context& context) mutable {
            // A function object must be copyable, a result need not be.
            auto result = std::make_shared<Result>(work(context.stop()));
            context.deliver([result = std::move(result), done = std::move(done)]() mutable { done(std::move(*result)); });
        },
        std::move(failed));
}

}  // namespace sealscope::desktop
