// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/confinement/Confinement.h"

namespace sealscope {

/// A filter of system calls (seccomp(2)) for every thread of the process.
struct SystemCalls {
    SystemCalls() = delete;
    /// False when the kernel has no such filters.
    static bool restrict(Confinement::Calls calls);
};

}  // namespace sealscope
