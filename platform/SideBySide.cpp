// SPDX-License-Identifier: Apache-2.0
#include "platform/SideBySide.h"

#include <oneapi/tbb/parallel_invoke.h>
#include <oneapi/tbb/task_arena.h>

namespace sealscope {

void sideBySide(const std::function<void()>& first, const std::function<void()>& second)
{
    // While one waits for the other it takes up no other work, which might want what the caller has locked.
    oneapi::tbb::this_task_arena::isolate([&] { oneapi::tbb::parallel_invoke(first, second); });
}

}  // namespace sealscope
