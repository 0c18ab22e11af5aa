// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Export.h"

namespace sealscope SEALSCOPE_API {

/// Has oneTBB's worker threads begin, and leave the processor of the calling thread, which they are about to help. By itself the kernel
/// starts a thread on the processor of the one that makes it, and in a virtual machine, whose idle processors look taken to it, may leave
/// it there for 4 to 16 ms: much of the time of work that takes 60.
void spreadWorkers();

}  // namespace sealscope SEALSCOPE_API
