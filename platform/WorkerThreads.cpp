// SPDX-License-Identifier: Apache-2.0
#include "platform/WorkerThreads.h"

#include <oneapi/tbb/task_arena.h>
#include <sched.h>
#include <thread>

namespace sealscope {

namespace {

constexpr int timesGivenWay = 4;  // to workers that begin where the caller is; each leaves as soon as it runs

}  // namespace

void spreadWorkers()
{
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    if (sched_getaffinity(0, sizeof allowed, &allowed) != 0 || CPU_COUNT(&allowed) < 2) return;
    const auto leave = [allowed, caller = std::this_thread::get_id(), from = sched_getcpu()] {
        if (std::this_thread::get_id() == caller || sched_getcpu() != from) return;
        // Once it is elsewhere a thread may go where it likes.
        cpu_set_t others = allowed;
        CPU_CLR(from, &others);
        if (sched_setaffinity(0, sizeof others, &others) == 0) sched_setaffinity(0, sizeof allowed, &allowed);
    };
    for (int worker = 1; worker < oneapi::tbb::this_task_arena::max_concurrency(); ++worker) oneapi::tbb::this_task_arena::enqueue(leave);
    for (int i = 0; i < timesGivenWay; ++i) sched_yield();
}

}  // namespace sealscope
