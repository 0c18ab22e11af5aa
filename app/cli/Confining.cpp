// SPDX-License-Identifier: Apache-2.0
#include "app/cli/Confining.h"

#include "app/capture/Decompressor.h"
#include "app/capture/PacketFilter.h"
#include "app/cli/Interrupt.h"
#include "app/cli/commands/Commands.h"
#include "app/cli/text/Messages.h"
#include "app/plugins/PlugInLoader.h"
#include "host/VELCommonTools/KeylogLocations.h"
#include "host/VELCommonTools/KeylogUserFile.h"
#include "platform/Bundle.h"
#include "platform/CryptoLibrary.h"
#include "platform/FileDescriptor.h"
#include "platform/UserDefaults.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <fcntl.h>
#include <fmt/format.h>
#include <sstream>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace sealscope::cli {

namespace {

namespace fs = std::filesystem;

/// The files of the command line; of `export` the first word is a format.
std::vector<std::string> captures(const Options& options)
{
    if (!options.command || options.command->access != Access::captures) return {};
    const bool hasFormat = options.command == &exportCommand && !options.arguments.empty();
    return {options.arguments.begin() + (hasFormat ? 1 : 0), options.arguments.end()};
}

/// A capture file that is read where it lies: not a pipe, not compressed, and not empty. Only its first bytes are looked at, and not by a
/// stream, whose buffer would take more of them: secrets may follow, which belong in no memory that is freed as it is.
bool isReadInPlace(const std::string& file)
{
    std::error_code error;
    if (file == "-" || !fs::is_regular_file(file, error) || fs::file_size(file, error) == 0) return false;
    std::array<std::uint8_t, Decompressor::recognisedFrom> head{};
    const FileDescriptor descriptor(open(file.c_str(), O_RDONLY | O_CLOEXEC));
    const std::int64_t count = descriptor.read(head);
    return count >= 0 && !Decompressor::recognise(DataView(head.data(), count), -1);
}

/// How the captures of the command line are read.
enum class Reading : std::uint8_t {
    inPlace,    ///< all of them where they lie
    asItComes,  ///< some from a pipe, or unpacked
};
Reading readingOf(const Options& options)
{
    return std::ranges::all_of(captures(options), isReadInPlace) ? Reading::inPlace : Reading::asItComes;
}

std::int64_t machineMemory() { return static_cast<std::int64_t>(sysconf(_SC_PHYS_PAGES)) * sysconf(_SC_PAGESIZE); }

/// What the captures can need: a packet has 16 bytes in its file at least and costs 48, a connection has 56 and costs 1,024. Beside
/// that the heap keeps some of what is freed, and each thread has a stack. No more than the machine has.
std::int64_t memoryFor(const Options& options, Reading reading)
{
    if (reading == Reading::asItComes) return machineMemory();
    constexpr std::int64_t forEachByte = 24, base = std::int64_t{1} << 30, forEachThread = 16 << 20;
    std::int64_t memory = base + forEachThread * sysconf(_SC_NPROCESSORS_ONLN);
    for (const std::string& file : captures(options)) {
        std::error_code error;
        memory += forEachByte * static_cast<std::int64_t>(fs::file_size(file, error));
    }
    return std::min(memory, machineMemory());
}

/// A folder of this process alone for its temporary files, which then have no neighbours.
fs::path makeTemporaryFolder()
{
    const char* const chosen = std::getenv("TMPDIR");
    std::string name = std::string(chosen && *chosen ? chosen : "/tmp") + "/sealscope-XXXXXX";
    return mkdtemp(name.data()) ? fs::path(name) : fs::path();
}

/// What every run needs: texts, time zones, where the C library and oneTBB look up what the machine is like.
void addRuntime(Confinement& confinement)
{
    confinement.readableFolders = {Bundle::main().path() / "Resources", "/usr/share/zoneinfo", "/usr/lib/locale"};
    for (const LoadedPlugIn& plugIn : PlugInLoader::loaded()) confinement.readableFolders.push_back(plugIn.bundle);
    confinement.readableFiles = {"/etc/localtime", "/proc/self/maps", "/proc/sys/vm/overcommit_memory", "/sys/devices/system/cpu/online",
                                 CryptoLibrary::configurationFile()};
    confinement.writableFiles = {"/dev/null"};
}

/// Whether files that are not there yet may come while the program runs.
enum class LaterFiles : std::uint8_t { mayCome, areNotRead };

void addKeyLogs(Confinement& confinement, const Options& options, LaterFiles later)
{
    std::vector<fs::path> keyLogs(options.keylogs.begin(), options.keylogs.end());
    if (const auto chosen = KeylogUserFile::resolvedPath(UserDefaults::standard())) keyLogs.emplace_back(*chosen);
    if (const char* const named = std::getenv("SSLKEYLOGFILE"); named && *named) keyLogs.emplace_back(named);
    for (const fs::path& keyLog : keyLogs) {
        std::error_code error;
        // What a file may be called later, no rule can say; its folder is one.
        if (later == LaterFiles::mayCome && !fs::exists(keyLog, error))
            confinement.readableFolders.push_back(fs::absolute(keyLog, error).parent_path());
        else
            confinement.readableFiles.push_back(keyLog);
    }
}

/// Outputs are open by now. A file that does not get complete is taken away; one that takes the place of another is renamed.
void addOutputs(Confinement& confinement, const Options& options)
{
    for (const std::string& output : {options.output, options.pcap, options.injectSecrets, options.stripSecrets}) {
        if (output.empty() || output == "-") continue;
        confinement.calls = Confinement::Calls::writing;
        std::error_code error;
        if (fs::is_directory(output, error)) {
            confinement.writableFolders.emplace_back(output);
        } else {
            const fs::path folder = fs::absolute(output, error).parent_path();
            (options.force ? confinement.renamableFolders : confinement.removableFolders).push_back(folder);
        }
    }
}

Confinement confinementFor(const Options& options, Reading reading, fs::path& temporaryFolder)
{
    Confinement confinement;
    addRuntime(confinement);
    const fs::path ownFolders[] = {UserDefaults::standard().file().parent_path(), KeylogLocations::liveKeylog().parent_path()};
    const Access access = options.command ? options.command->access : Access::ownData;
    if (access == Access::settings) {
        confinement.calls = Confinement::Calls::writing;
        // A folder must be there to be kept; the settings have made theirs.
        std::error_code error;
        if (!options.arguments.empty() && options.arguments.front() == "keylog-line") fs::create_directories(ownFolders[1], error);
        confinement.writableFolders.assign(std::begin(ownFolders), std::end(ownFolders));
    } else {
        confinement.readableFolders.insert(confinement.readableFolders.end(), std::begin(ownFolders), std::end(ownFolders));
    }
    if (access == Access::interface) {
        confinement.calls = Confinement::Calls::packets;
        if (options.exchanges) {
            addKeyLogs(confinement, options, LaterFiles::mayCome);
            CryptoLibrary::configure();
        }
    }
    if (access == Access::captures) {
        const std::vector<std::string> files = captures(options);
        confinement.readableFiles.insert(confinement.readableFiles.end(), files.begin(), files.end());
        if (!options.filter.empty()) PacketFilter::makeReady();
        if (options.command->options.contains(Option::keylog)) {
            addKeyLogs(confinement, options, reading == Reading::inPlace ? LaterFiles::areNotRead : LaterFiles::mayCome);
            CryptoLibrary::configure();
        }
        addOutputs(confinement, options);
        // Also a capture that is read in place needs room, for datagrams that came in fragments.
        temporaryFolder = makeTemporaryFolder();
        if (!temporaryFolder.empty()) {
            setenv("TMPDIR", temporaryFolder.c_str(), 1);
            confinement.writableFolders.push_back(temporaryFolder);
            confinement.emptyFoldersIn.push_back(temporaryFolder.parent_path());
            removeWhenEnded(temporaryFolder.c_str());
        }
    }
    return confinement;
}

std::string sizeText(std::int64_t bytes)
{
    constexpr double mebibyte = 1 << 20, gibibyte = 1 << 30;
    const auto size = static_cast<double>(bytes);
    return size < gibibyte ? fmt::format("{:.0f} MiB", size / mebibyte) : fmt::format("{:.1f} GiB", size / gibibyte);
}

}  // namespace

Confining::~Confining()
{
    if (temporaryFolder_.empty()) return;
    removeWhenEnded(nullptr);
    rmdir(temporaryFolder_.c_str());
}

void Confining::begin()
{
    if (protection_) return;
    if (options_.noSandbox) {
        protection_ = Protection{};
    } else {
        const Reading reading = readingOf(options_);
        Confinement confinement = confinementFor(options_, reading, temporaryFolder_);
        confinement.memory = options_.memory ? *options_.memory : memoryFor(options_, reading);
        protection_ = confine(confinement);
    }
    if (!options_.verbose || options_.version) return;
    std::istringstream lines(text());
    for (std::string line; std::getline(lines, line);) remark(line);
}

std::string Confining::text() const
{
    const Protection protection = protection_.value_or(Protection{});
    const auto absent = [&](std::string_view kernelLacks) {
        return options_.noSandbox ? std::string("not confined: --no-sandbox") : fmt::format("not confined: {}", kernelLacks);
    };
    const std::string files = protection.landlockVersion > 0
                                  ? fmt::format("confined to those that are needed, by Landlock {}", protection.landlockVersion)
                                  : absent("this kernel, or this build, has no Landlock");
    const std::string calls =
        protection.filtersCalls ? "confined to those that are needed, by seccomp" : absent("this kernel, or this build, has no seccomp");
    const std::string memory = protection.memory > 0 ? fmt::format("at most {}", sizeText(protection.memory)) : "no limit";
    return fmt::format("files: {}\nsystem calls: {}\nmemory: {}\n", files, calls, memory);
}

std::string Confining::outOfMemory() const
{
    const std::int64_t limit = protection_ ? protection_->memory : 0;
    if (limit == 0) return "out of memory";
    return fmt::format("out of memory: more than {} would be needed; --memory sets another limit", sizeText(limit));
}

}  // namespace sealscope::cli
