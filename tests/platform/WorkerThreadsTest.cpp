// SPDX-License-Identifier: Apache-2.0
#include "platform/WorkerThreads.h"

#include <future>
#include <oneapi/tbb/task_arena.h>
#include <sched.h>

namespace sealscope {
namespace {

TEST(WorkerThreadsTest, HelpElsewhereThanWhereTheCallerIs)
{
    cpu_set_t allowed;
    ASSERT_EQ(sched_getaffinity(0, sizeof allowed, &allowed), 0);
    if (CPU_COUNT(&allowed) < 2) GTEST_SKIP() << "one processor";

    spreadWorkers();
    std::promise<cpu_set_t> ofWorker;
    oneapi::tbb::this_task_arena::enqueue([&] {
        cpu_set_t own;
        sched_getaffinity(0, sizeof own, &own);
        ofWorker.set_value(own);
    });
    const cpu_set_t own = ofWorker.get_future().get();
    EXPECT_EQ(CPU_COUNT(&own), CPU_COUNT(&allowed) - 1);

    cpu_set_t after;
    sched_getaffinity(0, sizeof after, &after);
    EXPECT_TRUE(CPU_EQUAL(&after, &allowed)) << "the caller may run where it might before";
}

}  // namespace
}  // namespace sealscope
