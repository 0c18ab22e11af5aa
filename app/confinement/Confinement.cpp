// SPDX-License-Identifier: Apache-2.0
#include "app/confinement/Confinement.h"

#include "app/confinement/Landlock.h"
#include "app/confinement/SystemCalls.h"

#include <sys/resource.h>
#include <sys/stat.h>

namespace sealscope {

namespace {

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define SEALSCOPE_HAS_SANITIZER
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define SEALSCOPE_HAS_SANITIZER
#endif
#ifdef SEALSCOPE_HAS_SANITIZER
constexpr bool hasSanitizer = true;
#else
constexpr bool hasSanitizer = false;
#endif

bool hasOtherThreads()
{
    struct stat status = {};
    // One link for each thread, beside the two that every folder has.
    return stat("/proc/self/task", &status) == 0 && status.st_nlink > 3;
}

std::int64_t limitMemory(std::int64_t bytes)
{
    const rlimit limit{.rlim_cur = static_cast<rlim_t>(bytes), .rlim_max = static_cast<rlim_t>(bytes)};
    return bytes > 0 && setrlimit(RLIMIT_DATA, &limit) == 0 ? bytes : 0;
}

}  // namespace

Protection confine(const Confinement& confinement)
{
    if (hasSanitizer) return {};
    Protection protection;
    protection.memory = limitMemory(confinement.memory);
    const bool hasOthers = hasOtherThreads();
    protection.landlockVersion = Landlock::restrict(confinement);
    protection.coversOldThreads = !hasOthers || protection.landlockVersion >= Landlock::coversAllThreads;
    protection.filtersCalls = SystemCalls::restrict(confinement.calls);
    return protection;
}

}  // namespace sealscope
