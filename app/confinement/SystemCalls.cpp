// SPDX-License-Identifier: Apache-2.0
#include "app/confinement/SystemCalls.h"

#include "CallFilters.inc"
#include "app/confinement/OwnProcess.h"

#include <algorithm>
#include <linux/seccomp.h>
#include <span>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

namespace sealscope {

namespace {

std::span<const sock_filter> filterFor(Confinement::Calls calls)
{
    switch (calls) {
    case Confinement::Calls::writing: return writingFilter;
    case Confinement::Calls::packets: return packetsFilter;
    default: return readingFilter;
    }
}

}  // namespace

bool SystemCalls::restrict(Confinement::Calls calls)
{
    const std::span<const sock_filter> made = filterFor(calls);
    std::vector<sock_filter> filter(made.begin(), made.end());
    for (sock_filter& instruction : filter)
        if (isOwnProcess(instruction)) instruction.k = static_cast<std::uint32_t>(getpid());
    const sock_fprog program{.len = static_cast<unsigned short>(filter.size()), .filter = filter.data()};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return false;
    // Without the second, kernels before 5.16 make every branch dearer, against an attack that takes code of the attacker's own.
    for (const unsigned flags : {SECCOMP_FILTER_FLAG_TSYNC | SECCOMP_FILTER_FLAG_SPEC_ALLOW, SECCOMP_FILTER_FLAG_TSYNC})
        if (syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, flags, &program) == 0) return true;
    return false;
}

}  // namespace sealscope
