// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/confinement/Confinement.h"

namespace sealscope {

/// Access to files and TCP by the kernel's own interface (landlock(7)), at the version that the kernel has.
struct Landlock {
    Landlock() = delete;
    /// Confines this thread and those that it starts, from version 8 on all threads. Gives the version; 0 when the kernel has none.
    static int restrict(const Confinement& confinement);
    /// From this version on threads that run already are confined with the others.
    static constexpr int coversAllThreads = 8;
};

}  // namespace sealscope
