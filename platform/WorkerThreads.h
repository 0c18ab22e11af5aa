// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Export.h"

namespace sealscope SEALSCOPE_API {

/// Gets the worker threads of oneTBB going that will help the calling thread, on other processors than its own. By itself the kernel
/// starts a thread on the processor of the one that makes it, and in a virtual machine, whose idle processors look taken to it, may leave
/// it there for 4 to 16 ms: much of the time of work that takes 60. Called again it only notes where the calling thread is now.
void spreadWorkers();

}  // namespace SEALSCOPE_API
