// SPDX-License-Identifier: Apache-2.0
//
// Writes the filters of system calls as code that SystemCalls.cpp includes. It runs when the program is built: libseccomp takes most of
// a millisecond to put one together, which is a tenth of a start.
//
// A filter is a list of what is allowed. What it does not name does not exist for the process (ENOSYS), which is how the C library finds
// out that a newer call has to be done in an older way; what a break-in would try first is named, and refused (EPERM).
#include "app/confinement/OwnProcess.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <linux/filter.h>
#include <memory>
#include <sched.h>
#include <seccomp.h>
#include <span>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>
#include <vector>

// libseccomp's macros for comparisons are compound literals, which every compiler here takes and Clang calls foreign.
#ifdef __clang__
#pragma clang diagnostic ignored "-Wc99-extensions"
#endif

namespace {

constexpr int computing[] = {
    // Memory; making it executable is seen to below.
    SCMP_SYS(brk), SCMP_SYS(munmap), SCMP_SYS(mremap), SCMP_SYS(madvise), SCMP_SYS(mincore), SCMP_SYS(mlock), SCMP_SYS(mlock2),
    SCMP_SYS(munlock), SCMP_SYS(msync),
    // Threads
    SCMP_SYS(futex), SCMP_SYS(set_robust_list), SCMP_SYS(rseq), SCMP_SYS(sched_yield), SCMP_SYS(sched_getaffinity), SCMP_SYS(getcpu),
    SCMP_SYS(membarrier), SCMP_SYS(gettid), SCMP_SYS(getpid), SCMP_SYS(getppid), SCMP_SYS(exit), SCMP_SYS(exit_group),
    SCMP_SYS(restart_syscall),
    // Signals
    SCMP_SYS(rt_sigaction), SCMP_SYS(rt_sigprocmask), SCMP_SYS(rt_sigreturn), SCMP_SYS(sigaltstack),
    // Time
    SCMP_SYS(clock_gettime), SCMP_SYS(clock_getres), SCMP_SYS(clock_nanosleep), SCMP_SYS(nanosleep), SCMP_SYS(gettimeofday), SCMP_SYS(time),
    // What and where we are
    SCMP_SYS(uname), SCMP_SYS(sysinfo), SCMP_SYS(getrusage), SCMP_SYS(times), SCMP_SYS(getrlimit), SCMP_SYS(getuid), SCMP_SYS(geteuid),
    SCMP_SYS(getgid), SCMP_SYS(getegid), SCMP_SYS(getcwd), SCMP_SYS(getrandom),
    // The end of a program that was started before, such as a pager
    SCMP_SYS(wait4), SCMP_SYS(waitid)};

constexpr int files[] = {SCMP_SYS(open), SCMP_SYS(openat), SCMP_SYS(close), SCMP_SYS(close_range), SCMP_SYS(read), SCMP_SYS(readv),
                         SCMP_SYS(pread64), SCMP_SYS(preadv), SCMP_SYS(preadv2), SCMP_SYS(write), SCMP_SYS(writev), SCMP_SYS(pwrite64),
                         SCMP_SYS(pwritev), SCMP_SYS(pwritev2), SCMP_SYS(lseek), SCMP_SYS(_llseek), SCMP_SYS(fstat), SCMP_SYS(stat),
                         SCMP_SYS(lstat), SCMP_SYS(newfstatat), SCMP_SYS(statx), SCMP_SYS(statfs), SCMP_SYS(fstatfs), SCMP_SYS(access),
                         SCMP_SYS(faccessat), SCMP_SYS(faccessat2), SCMP_SYS(readlink), SCMP_SYS(readlinkat), SCMP_SYS(getdents64),
                         SCMP_SYS(fcntl), SCMP_SYS(dup), SCMP_SYS(dup2), SCMP_SYS(dup3), SCMP_SYS(fadvise64), SCMP_SYS(poll),
                         SCMP_SYS(ppoll), SCMP_SYS(select), SCMP_SYS(pselect6), SCMP_SYS(flock), SCMP_SYS(fallocate), SCMP_SYS(ftruncate),
                         SCMP_SYS(fsync), SCMP_SYS(fdatasync),
                         // A temporary file, where a file system makes none without a name, and the folder that it was in
                         SCMP_SYS(unlink), SCMP_SYS(unlinkat), SCMP_SYS(rmdir)};

constexpr int namedFiles[] = {SCMP_SYS(rename),   SCMP_SYS(renameat), SCMP_SYS(renameat2),      SCMP_SYS(mkdir),
                              SCMP_SYS(mkdirat),  SCMP_SYS(chmod),    SCMP_SYS(fchmod),         SCMP_SYS(fchmodat),
                              SCMP_SYS(truncate), SCMP_SYS(umask),    SCMP_SYS(copy_file_range)};

constexpr int receiving[] = {SCMP_SYS(recvfrom), SCMP_SYS(recvmsg), SCMP_SYS(getsockopt), SCMP_SYS(getsockname)};

/// Refused by name, so that who is refused learns why.
constexpr int refused[] = {SCMP_SYS(execve),
                           SCMP_SYS(execveat),
                           SCMP_SYS(fork),
                           SCMP_SYS(vfork),
                           SCMP_SYS(ptrace),
                           SCMP_SYS(process_vm_readv),
                           SCMP_SYS(process_vm_writev),
                           SCMP_SYS(kill),
                           SCMP_SYS(tkill),
                           SCMP_SYS(pidfd_open),
                           SCMP_SYS(pidfd_getfd),
                           SCMP_SYS(socket),
                           SCMP_SYS(socketpair),
                           SCMP_SYS(connect),
                           SCMP_SYS(bind),
                           SCMP_SYS(listen),
                           SCMP_SYS(accept),
                           SCMP_SYS(accept4),
                           SCMP_SYS(sendto),
                           SCMP_SYS(sendmsg),
                           SCMP_SYS(sendmmsg),
                           SCMP_SYS(memfd_create),
                           SCMP_SYS(userfaultfd),
                           SCMP_SYS(bpf),
                           SCMP_SYS(perf_event_open),
                           SCMP_SYS(io_uring_setup),
                           SCMP_SYS(keyctl),
                           SCMP_SYS(add_key),
                           SCMP_SYS(request_key),
                           SCMP_SYS(mount),
                           SCMP_SYS(umount2),
                           SCMP_SYS(chroot),
                           SCMP_SYS(unshare),
                           SCMP_SYS(setns),
                           SCMP_SYS(setuid),
                           SCMP_SYS(setgid),
                           SCMP_SYS(setresuid),
                           SCMP_SYS(setresgid),
                           SCMP_SYS(setrlimit),
                           SCMP_SYS(symlink),
                           SCMP_SYS(symlinkat),
                           SCMP_SYS(link),
                           SCMP_SYS(linkat),
                           SCMP_SYS(mknod),
                           SCMP_SYS(mknodat)};

/// A filter while it is put together. Calls that the processor's interface does not have are left out.
class Filter {
public:
    Filter() : context_(seccomp_init(SCMP_ACT_ERRNO(ENOSYS)))
    {
        if (!context_) return;
        seccomp_attr_set(context_.get(), SCMP_FLTATR_CTL_OPTIMIZE, 2);
    }

    void add(std::uint32_t action, std::span<const int> calls)
    {
        for (const int call : calls) isGood_ &= isAdded(seccomp_rule_add_array(context_.get(), action, call, 0, nullptr));
    }
    void allow(int call, std::initializer_list<scmp_arg_cmp> conditions) { add(SCMP_ACT_ALLOW, call, conditions); }
    void add(std::uint32_t action, int call, std::initializer_list<scmp_arg_cmp> conditions)
    {
        isGood_ &=
            isAdded(seccomp_rule_add_array(context_.get(), action, call, static_cast<unsigned>(conditions.size()), std::data(conditions)));
    }
    /// Its instructions (classic BPF); none when it could not be made.
    std::vector<sock_filter> instructions() const
    {
        const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::tmpfile(), std::fclose);
        if (!context_ || !isGood_ || !file || seccomp_export_bpf(context_.get(), fileno(file.get())) != 0) return {};
        std::vector<sock_filter> made(static_cast<std::size_t>(lseek(fileno(file.get()), 0, SEEK_END)) / sizeof(sock_filter));
        const auto size = static_cast<ssize_t>(made.size() * sizeof(sock_filter));
        return pread(fileno(file.get()), made.data(), made.size() * sizeof(sock_filter), 0) == size ? made : std::vector<sock_filter>();
    }

private:
    struct Release {
        void operator()(void* context) const { seccomp_release(context); }
    };
    static bool isAdded(int status) { return status == 0 || status == -EDOM || status == -EOPNOTSUPP; }

    std::unique_ptr<void, Release> context_;
    bool isGood_ = true;
};

constexpr auto refuse = SCMP_ACT_ERRNO(EPERM);

void addMemory(Filter& filter)
{
    for (const int call : {SCMP_SYS(mmap), SCMP_SYS(mprotect)}) {
        filter.allow(call, {SCMP_A2(SCMP_CMP_MASKED_EQ, PROT_EXEC, 0)});
        filter.add(refuse, call, {SCMP_A2(SCMP_CMP_MASKED_EQ, PROT_EXEC, PROT_EXEC)});
    }
}

void addThreads(Filter& filter)
{
    // The arguments of clone3 lie in memory, where no filter sees them. It is not on the list, so clone is called.
    filter.allow(SCMP_SYS(clone), {SCMP_A0(SCMP_CMP_MASKED_EQ, CLONE_THREAD, CLONE_THREAD)});
    filter.add(refuse, SCMP_SYS(clone), {SCMP_A0(SCMP_CMP_MASKED_EQ, CLONE_THREAD, 0)});
    // A thread may choose its own processors.
    filter.allow(SCMP_SYS(sched_setaffinity), {SCMP_A0(SCMP_CMP_EQ, 0)});
    // A process may signal itself, as abort does.
    filter.allow(SCMP_SYS(tgkill), {SCMP_A0(SCMP_CMP_EQ, ownProcess)});
}

void addRequests(Filter& filter)
{
    // Not among them: typing for the user (TIOCSTI).
    for (const unsigned long request : {TCGETS, TIOCGWINSZ, FIONREAD})
        filter.allow(SCMP_SYS(ioctl), {SCMP_A1(SCMP_CMP_MASKED_EQ, 0xFFFF'FFFFu, request)});
    for (const unsigned long name : {PR_SET_NAME, PR_GET_NAME, 0x5356'4D41 /* PR_SET_VMA */})
        filter.allow(SCMP_SYS(prctl), {SCMP_A0(SCMP_CMP_MASKED_EQ, 0xFFFF'FFFFu, name)});
    // Limits may be asked for.
    filter.allow(SCMP_SYS(prlimit64), {SCMP_A2(SCMP_CMP_EQ, 0)});
}

enum class Beyond { nothing, naming, listening };

/// Prints one as an array; false when it could not be made.
bool print(const char* name, Beyond beyond)
{
    Filter filter;
    filter.add(SCMP_ACT_ALLOW, computing);
    filter.add(SCMP_ACT_ALLOW, files);
    if (beyond == Beyond::naming) filter.add(SCMP_ACT_ALLOW, namedFiles);
    if (beyond == Beyond::listening) filter.add(SCMP_ACT_ALLOW, receiving);
    addMemory(filter);
    addThreads(filter);
    addRequests(filter);
    filter.add(refuse, refused);

    const std::vector<sock_filter> instructions = filter.instructions();
    const auto namesOwnProcess = [](const sock_filter& each) { return isOwnProcess(each); };
    if (std::ranges::count_if(instructions, namesOwnProcess) != 1) return false;
    std::printf("constexpr sock_filter %s[] = {\n", name);
    for (const sock_filter& each : instructions) std::printf("    {0x%04x, %u, %u, 0x%08x},\n", each.code, each.jt, each.jf, each.k);
    std::printf("};\n");
    return true;
}

}  // namespace

int main()
{
    std::printf("// Made by CallFilters.cpp.\n#include <linux/filter.h>\n\n");
    return print("readingFilter", Beyond::nothing) && print("writingFilter", Beyond::naming) &&
                   print("packetsFilter", Beyond::listening)
               ? 0
               : 1;
}
