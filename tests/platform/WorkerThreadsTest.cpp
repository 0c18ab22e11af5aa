// SPDX-License-Identifier: Apache-2.0
#include "platform/WorkerThreads.h"

#include <future>
#include <oneapi/tbb/task_arena.h>
#include <sched.h>

namespace sealscope {
namespace {

TEST(WorkerThreadsTest, MayRunAnywhereOnceTheyAreSpread)
{
    const auto processors = [] {
        cpu_set_t set;
        CPU_ZERO(&set);
        sched_getaffinity(0, sizeof set, &set);
        return CPU_COUNT(&set);
    };
    const int allowed = processors();
    if (allowed < 2) GTEST_SKIP() << "one processor";

    spreadWorkers();
    std::promise<int> ofWorker;
    oneapi::tbb::this_task_arena::enqueue([&] { ofWorker.set_value(processors()); });
    EXPECT_EQ(ofWorker.get_future().get(), allowed) << "a worker";
    EXPECT_EQ(processors(), allowed) << "the caller";
}

}  // namespace
}  // namespace sealscope
