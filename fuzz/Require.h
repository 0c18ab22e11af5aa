// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdio>
#include <cstdlib>

namespace sealscope {

/// Ends a fuzz target with what does not hold, so that its input is kept.
inline void require(bool holds, const char* what)
{
    if (holds) return;
    std::fprintf(stderr, "does not hold: %s\n", what);
    std::abort();
}

}  // namespace sealscope
