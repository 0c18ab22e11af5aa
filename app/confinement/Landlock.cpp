// SPDX-License-Identifier: Apache-2.0
#include "app/confinement/Landlock.h"

#include "platform/FileDescriptor.h"

#include <cstdint>
#include <fcntl.h>
#include <linux/landlock.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace sealscope {

namespace {

// What the kernel has learnt since the headers that we build with (landlock(7), "VERSIONS").
constexpr std::uint64_t truncate = 1u << 14;               // version 3
constexpr std::uint64_t controlDevices = 1u << 15;         // version 5
constexpr std::uint64_t bindTCP = 1, connectTCP = 2;       // version 4
constexpr std::uint64_t abstractSockets = 1, signals = 2;  // version 6
constexpr unsigned allThreads = 1u << 3;                   // version 8

struct RulesetAttributes {
    std::uint64_t handledFiles = 0;
    std::uint64_t handledNetwork = 0;
    std::uint64_t scoped = 0;
};

constexpr std::uint64_t reading = LANDLOCK_ACCESS_FS_READ_FILE, listing = LANDLOCK_ACCESS_FS_READ_DIR;
constexpr std::uint64_t removing = LANDLOCK_ACCESS_FS_REMOVE_FILE, removingFolders = LANDLOCK_ACCESS_FS_REMOVE_DIR;
constexpr std::uint64_t making = LANDLOCK_ACCESS_FS_MAKE_REG;
constexpr std::uint64_t writing = LANDLOCK_ACCESS_FS_WRITE_FILE | truncate;
/// What a rule for anything but a folder may speak of.
constexpr std::uint64_t ofFiles = reading | writing | LANDLOCK_ACCESS_FS_EXECUTE | controlDevices;

std::uint64_t accessOfVersion(int version)
{
    std::uint64_t access = (LANDLOCK_ACCESS_FS_MAKE_SYM << 1) - 1;
    if (version >= 2) access |= LANDLOCK_ACCESS_FS_REFER;
    if (version >= 3) access |= truncate;
    if (version >= 5) access |= controlDevices;
    return access;
}

class Ruleset {
public:
    explicit Ruleset(int version) : access_(accessOfVersion(version)), descriptor_(create(version, access_)) {}

    void allow(const std::vector<std::filesystem::path>& paths, std::uint64_t ofFile, std::uint64_t ofFolder)
    {
        for (const std::filesystem::path& path : paths) {
            const FileDescriptor target(open(path.c_str(), O_PATH | O_CLOEXEC));
            struct stat status = {};
            if (!target || fstat(target.number(), &status) != 0) continue;
            const std::uint64_t access = (S_ISDIR(status.st_mode) ? ofFolder : ofFile & ofFiles) & access_;
            landlock_path_beneath_attr rule = {.allowed_access = access, .parent_fd = target.number()};
            // Refused for pipes and the like, which lie in no folder and are free.
            if (access != 0) syscall(SYS_landlock_add_rule, descriptor_.number(), LANDLOCK_RULE_PATH_BENEATH, &rule, 0);
        }
    }

    bool enforce(unsigned flags) const
    {
        return descriptor_ && prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
               syscall(SYS_landlock_restrict_self, descriptor_.number(), flags) == 0;
    }

private:
    static int create(int version, std::uint64_t access)
    {
        const RulesetAttributes attributes{.handledFiles = access,
                                           .handledNetwork = version >= 4 ? bindTCP | connectTCP : 0,
                                           .scoped = version >= 6 ? abstractSockets | signals : 0};
        const std::size_t size = version >= 6 ? 24 : version >= 4 ? 16 : 8;
        return static_cast<int>(syscall(SYS_landlock_create_ruleset, &attributes, size, 0));
    }

    std::uint64_t access_;
    FileDescriptor descriptor_;
};

}  // namespace

int Landlock::restrict(const Confinement& confinement)
{
    const long version = syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
    if (version < 1) return 0;
    const int known = static_cast<int>(version);
    Ruleset rules(known);
    rules.allow(confinement.readableFiles, reading, listing);
    rules.allow(confinement.readableFolders, reading, reading | listing);
    rules.allow(confinement.writableFiles, reading | writing, 0);
    rules.allow(confinement.writableFolders, reading | writing, reading | listing | writing | making | removing);
    rules.allow(confinement.removableFolders, 0, removing | removingFolders);
    rules.allow(confinement.emptyFoldersIn, 0, removingFolders);
    rules.allow(confinement.renamableFolders, 0, removing | making);
    return rules.enforce(known >= coversAllThreads ? allThreads : 0) ? known : 0;
}

}  // namespace sealscope
