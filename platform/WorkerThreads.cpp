// SPDX-License-Identifier: Apache-2.0
#include "platform/WorkerThreads.h"

#include <atomic>
#include <oneapi/tbb/task_arena.h>
#include <oneapi/tbb/task_scheduler_observer.h>
#include <sched.h>

namespace sealscope {

namespace {

constexpr int timesGivenWay = 4;  // to workers that start where this thread is; each leaves as soon as it runs

/// Keeps the workers that help a thread off the processor that it is on, for as long as they do.
class WorkersElsewhere final : private oneapi::tbb::task_scheduler_observer {
public:
    WorkersElsewhere()
    {
        noteProcessor();
        CPU_ZERO(&allowed_);
        if (sched_getaffinity(0, sizeof allowed_, &allowed_) != 0 || CPU_COUNT(&allowed_) < 2) return;
        observe(true);
        oneapi::tbb::this_task_arena::enqueue([] {});
        for (int i = 0; i < timesGivenWay; ++i) sched_yield();
    }
    ~WorkersElsewhere() override { observe(false); }

    void noteProcessor() { processor_ = sched_getcpu(); }

    WorkersElsewhere(const WorkersElsewhere&) = delete;
    WorkersElsewhere& operator=(const WorkersElsewhere&) = delete;

private:
    void on_scheduler_entry(bool isWorker) override
    {
        cpu_set_t others = allowed_;
        CPU_CLR(processor_, &others);
        if (isWorker && CPU_COUNT(&others) > 0) sched_setaffinity(0, sizeof others, &others);
    }
    void on_scheduler_exit(bool isWorker) override
    {
        if (isWorker) sched_setaffinity(0, sizeof allowed_, &allowed_);
    }

    cpu_set_t allowed_;
    std::atomic<int> processor_;
};

}  // namespace

void spreadWorkers()
{
    // A worker has its place already.
    if (oneapi::tbb::this_task_arena::current_thread_index() > 0) return;
    thread_local WorkersElsewhere workers;
    workers.noteProcessor();
}

}  // namespace sealscope
