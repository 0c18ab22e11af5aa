// SPDX-License-Identifier: Apache-2.0
//
// A plug-in that behaves as one does whose parser was taken over. The first time that it is asked about a capture, and where nobody asks
// as the program ends, it tries what it wants; standard error tells what became of each try: "intruder: read: refused".
#include "host/VELDependencies/VELPluginPreferencesProtocol.h"
#include "host/VELDependencies/VELPluginPrincipalClassProtocol.h"
#include "host/VELModels/TLSDecryptionProbeRegistry.h"
#include "host/VELModels/VELPlugInsController.h"
#include "host/VELModels/VELStreamInterpreting.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <mutex>
#include <sched.h>
#include <spawn.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace sealscope {

namespace {

std::string target(const char* name)
{
    const char* const folder = std::getenv("SEALSCOPE_INTRUDER_TARGET");
    return std::string(folder ? folder : "/nowhere") + "/" + name;
}

bool opens(const std::string& path, int flags)
{
    const int descriptor = open(path.c_str(), flags | O_CLOEXEC, 0600);
    if (descriptor >= 0) close(descriptor);
    return descriptor >= 0;
}

bool runsProgram()
{
    const char* const arguments[] = {"/bin/true", nullptr};
    pid_t process = 0;
    if (posix_spawn(&process, arguments[0], nullptr, nullptr, const_cast<char* const*>(arguments), environ) != 0) return false;
    waitpid(process, nullptr, 0);
    return true;
}

bool makesSocket(int family, int type)
{
    const int descriptor = socket(family, type, 0);
    if (descriptor >= 0) close(descriptor);
    return descriptor >= 0;
}

bool makesExecutable(int protection)
{
    void* const memory = mmap(nullptr, 4'096, protection, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return memory != MAP_FAILED && mprotect(memory, 4'096, PROT_READ | PROT_EXEC) == 0;
}

bool raisesLimit()
{
    rlimit limit{};
    return getrlimit(RLIMIT_DATA, &limit) == 0 && setrlimit(RLIMIT_DATA, &limit) == 0;
}

struct Attempt {
    const char* name;
    bool (*succeeds)();
};

constexpr Attempt attempts[] = {
    {"read", [] { return opens(target("secret"), O_RDONLY); }},
    {"list", [] { return opens(target(""), O_RDONLY | O_DIRECTORY); }},
    {"write", [] { return opens(target("secret"), O_WRONLY); }},
    {"truncate", [] { return truncate(target("secret").c_str(), 3) == 0; }},
    {"create", [] { return opens(target("new"), O_WRONLY | O_CREAT); }},
    {"rename", [] { return rename(target("secret").c_str(), target("moved").c_str()) == 0; }},
    {"remove", [] { return unlink(target("secret").c_str()) == 0; }},
    {"link", [] { return symlink("/etc/passwd", target("link").c_str()) == 0; }},
    {"memory of a process", [] { return opens("/proc/self/mem", O_RDWR); }},
    {"environment of another", [] { return opens("/proc/" + std::to_string(getppid()) + "/environ", O_RDONLY); }},
    {"run", runsProgram},
    {"fork",
     [] {
         const pid_t child = fork();
         if (child == 0) _exit(0);
         return child > 0;
     }},
    {"socket", [] { return makesSocket(AF_INET, SOCK_STREAM); }},
    {"datagram", [] { return makesSocket(AF_INET6, SOCK_DGRAM); }},
    {"local socket", [] { return makesSocket(AF_UNIX, SOCK_STREAM); }},
    {"signal", [] { return kill(getppid(), 0) == 0; }},
    {"trace", [] { return ptrace(PTRACE_SEIZE, getppid(), nullptr, nullptr) == 0; }},
    {"processors of another",
     [] {
         cpu_set_t processors;
         return sched_getaffinity(0, sizeof processors, &processors) == 0 &&
                sched_setaffinity(getppid(), sizeof processors, &processors) == 0;
     }},
    {"executable memory", [] { return makesExecutable(PROT_READ | PROT_WRITE | PROT_EXEC); }},
    {"memory made executable", [] { return makesExecutable(PROT_READ | PROT_WRITE); }},
    {"limit", raisesLimit},
    {"type",
     [] {
         char letter = '\0';
         return ioctl(STDIN_FILENO, TIOCSTI, &letter) == 0;
     }},
    // The last: who succeeds does not come back.
    {"become another program", [] { return execl("/bin/true", "true", nullptr) == 0; }},
};

void intrude()
{
    static std::once_flag once;
    std::call_once(once, [] {
        for (const auto& [name, succeeds] : attempts) {
            const std::string line = std::string("intruder: ") + name + (succeeds() ? ": done\n" : ": refused\n");
            [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line.data(), line.size());
        }
    });
}

struct Probe : TLSStreamDecryptionProbing {
    TLSDecryptionOutcome probe(const TCPStream&) const override
    {
        intrude();
        return TLSDecryptionOutcome::notDecrypted(TLSDecryptionFailure::noHandshake);
    }
};

struct Interpreter {
    static constexpr std::string_view streamDisplayName = "Intruder";
    static bool canInterpret(const TCPStream&)
    {
        intrude();
        return false;
    }
    static StreamInterpretation interpret(const TCPStream&) { return {}; }
};

const VELAnalyzerClass analyzerClass{
    .name = "IntruderAnalyzer",
    .create =
        [](DataView, const std::any&) {
            intrude();
            return std::unique_ptr<VELPluginAnalyzerProtocol>();
        },
    .streamInterpreter = VELStreamInterpreting::type<Interpreter>(),
};

extern const VELPrincipalClass principalClass;

struct Intruder : VELPluginPrincipalClassProtocol {
    Intruder()
    {
        VELPlugInStructure structure{.id = UUID::random(), .plugInTitle = "Intruder", .plugInAnalyzerClass = &analyzerClass};
        structure.plugInPrincipalClass = &principalClass;
        VELPlugInsController::sharedManager().registerVELPlugIn(std::move(structure), Bundle::containing(&analyzerClass));
        TLSDecryptionProbeRegistry::shared().registerProbe(std::make_shared<const Probe>());
        std::atexit(intrude);
    }
};

const VELPrincipalClass principalClass{
    .name = "Intruder",
    .create = []() -> std::unique_ptr<VELPluginPrincipalClassProtocol> { return std::make_unique<Intruder>(); },
    .pluginTitle = [] { return std::optional<std::string>("Intruder"); },
};

}  // namespace

extern "C" const VELBundleEntry velBundleEntry{.contractVersion = velContractVersion, .principalClass = &principalClass};

}  // namespace sealscope
