// SPDX-License-Identifier: Apache-2.0
#include "host/VELCommonTools/MergedKeylog.h"

#include "host/VELCommonTools/KeylogLocations.h"
#include "host/VELModels/TLSDecryptionProbeRegistry.h"
#include "platform/FileDescriptor.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <limits>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace sealscope {

namespace {

using Examination = MergedKeylog::Examination;
using Problem = Examination::Problem;

/// A text that its lines would fill half of the machine's memory with leaves too little for what is made of it.
bool isTooLarge(std::int64_t size)
{
    static const std::int64_t memory = static_cast<std::int64_t>(sysconf(_SC_PHYS_PAGES)) * sysconf(_SC_PAGESIZE);
    return size > memory / 2;
}

struct Reading {
    std::size_t end = 0;  ///< of the bytes read so far
    bool isDone = false;  ///< the file ended, or could not be read
    int error = 0;
};

/// Reads into `bytes` from `reading.end` on, up to `size` or to the file's end.
void readInto(const FileDescriptor& descriptor, char* bytes, std::size_t size, Reading& reading)
{
    while (reading.end < size) {
        const std::int64_t count = descriptor.read({reinterpret_cast<std::uint8_t*>(bytes) + reading.end, size - reading.end});
        if (count > 0) {
            reading.end += static_cast<std::size_t>(count);
            continue;
        }
        reading.isDone = true;
        reading.error = count < 0 ? errno : 0;
        return;
    }
}

/// Appends a file's bytes, or the first `limit` of them, to `text`; the answer has no lines. When something is the matter,
/// nothing is appended.
Examination appendFile(const std::filesystem::path& file, SecretText& text, std::int64_t limit = std::numeric_limits<std::int64_t>::max())
{
    // Opening a pipe must not wait for somebody to write into it.
    const FileDescriptor descriptor(open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status{};
    if (!descriptor || fstat(descriptor.number(), &status) != 0) return {.problem = Problem::cannotOpen, .error = errno};
    if (S_ISDIR(status.st_mode)) return {.problem = Problem::isDirectory};
    if (!S_ISREG(status.st_mode)) return {.problem = Problem::isNoFile};
    if (isTooLarge(status.st_size)) return {.problem = Problem::tooLarge, .size = status.st_size};

    // A key log may grow while it is read. The size only says how much to ask for first; the end is where nothing follows.
    const std::size_t start = text.size();
    Reading reading{.end = start};
    std::size_t room = static_cast<std::size_t>(std::min(status.st_size + 1, limit));
    while (!reading.isDone && std::cmp_less(reading.end - start, limit)) {
        text.resize_and_overwrite(reading.end + room, [&](char* bytes, std::size_t size) {
            readInto(descriptor, bytes, size, reading);
            return reading.end;
        });
        const auto size = static_cast<std::int64_t>(reading.end - start);
        if (reading.error != 0 || isTooLarge(size)) {
            text.resize(start);
            return {.problem = reading.error != 0 ? Problem::cannotRead : Problem::tooLarge, .error = reading.error, .size = size};
        }
        room = std::max<std::size_t>(65'536, text.size() / 8);
    }
    const auto size = static_cast<std::int64_t>(reading.end - start);
    return {.problem = size == 0 ? Problem::isEmpty : Problem::none, .size = size};
}

void countLines(std::string_view text, Examination& examination)
{
    const auto probes = TLSDecryptionProbeRegistry::shared().snapshot();
    for (const auto& probe : probes) {
        const TLSKeyLogLineCount count = probe->countKeyLogLines(text);
        if (examination.validLines > 0 && count.validLines <= examination.validLines) continue;
        examination.lines = count.lines;
        examination.validLines = count.validLines;
        examination.firstInvalidLine = count.firstInvalidLine;
    }
    if (!probes.empty() && examination.validLines == 0) examination.problem = Problem::noValidLine;
}

std::int64_t nanoseconds(const timespec& time) { return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec; }

MergedKeylog::SourceStamp stampOf(const MergedKeylog::Source& source)
{
    MergedKeylog::SourceStamp stamp;
    struct stat status{};
    if (stat(source.file.c_str(), &status) != 0) return stamp;
    stamp.exists = true;
    stamp.device = status.st_dev;
    stamp.inode = status.st_ino;
    stamp.size = status.st_size;
    stamp.modified = nanoseconds(status.st_mtim);
    stamp.changed = nanoseconds(status.st_ctim);
    return stamp;
}

}  // namespace

std::vector<MergedKeylog::Source> MergedKeylog::sources(const std::optional<std::string>& userPath,
                                                        const std::optional<std::string>& envPath)
{
    std::vector<Source> all{{KeylogLocations::liveKeylog().string()}};
    const auto& chosen = userPath && !userPath->empty() ? userPath : envPath;
    // A source that is listed twice stands where it wins, and here there is no other.
    if (chosen && !chosen->empty() && *chosen != all.front().file) all.push_back({*chosen});
    return all;
}

std::vector<MergedKeylog::SourceStamp> MergedKeylog::signature(const std::vector<Source>& sources)
{
    std::vector<SourceStamp> stamps;
    stamps.reserve(sources.size());
    for (const Source& source : sources) stamps.push_back(stampOf(source));
    return stamps;
}

SecretText MergedKeylog::mergedText(const std::vector<Source>& sources)
{
    SecretText text;
    std::int64_t size = 0;
    for (const SourceStamp& stamp : signature(sources)) size += stamp.size + 2;
    if (!isTooLarge(size)) text.reserve(static_cast<std::size_t>(size));
    for (const Source& source : sources) {
        if (!text.empty() && text.back() != '\n') text += '\n';
        appendFile(source.file, text);
    }
    return text;
}

MergedKeylog::Examination MergedKeylog::examine(const std::filesystem::path& file)
{
    SecretText text;
    Examination examination = appendFile(file, text);
    if (examination.problem == Problem::none) countLines(text, examination);
    return examination;
}

MergedKeylog::Examination MergedKeylog::examineBriefly(const std::filesystem::path& file)
{
    constexpr std::int64_t enough = 64 * 1'024;
    SecretText text;
    Examination examination = appendFile(file, text, enough);
    if (examination.problem == Problem::none) countLines(text, examination);
    return examination.problem == Problem::noValidLine ? examine(file) : examination;
}

}  // namespace sealscope
