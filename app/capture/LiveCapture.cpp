// SPDX-License-Identifier: Apache-2.0
#include "app/capture/LiveCapture.h"

#include "app/capture/CaptureWriter.h"
#include "app/capture/PcapLibrary.h"
#include "app/capture/Privileges.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <string_view>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace sealscope {
namespace {

using std::chrono::milliseconds;

/// The kernel hands packets over in blocks, which it gives up this long after the first of them. Its way of handing each one over
/// at once takes a slot of the greatest length for every packet, so that a burst of some dozens is already too much.
constexpr milliseconds blockTime{10};
/// What arrived before a stop is there after so long.
constexpr milliseconds lastBlocksWithin{50};
/// For a capture whose descriptor does not tell when packets are there.
constexpr milliseconds lookAgainAfter{10};
constexpr int bufferBytes = 16 << 20;  // for a burst of packets while rows are printed

/// `LiveCapture::open` has made sure of it.
const PcapLibrary& pcap() { return *PcapLibrary::get(); }

struct CloseHandle {
    void operator()(pcap_t* handle) const { pcap().close(handle); }
};
struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

/// Nanoseconds since 1970, by the clock that stamps packets. Safe in a signal handler.
std::int64_t now()
{
    timespec time = {};
    clock_gettime(CLOCK_REALTIME, &time);
    return time.tv_sec * 1'000'000'000 + time.tv_nsec;
}

/// Time since then; long enough when the clock was set back meanwhile, which must not make anybody wait.
milliseconds sinceTime(std::int64_t nanoseconds)
{
    const std::int64_t passed = now() - nanoseconds;
    return passed < 0 ? lastBlocksWithin : milliseconds(passed / 1'000'000);
}

/// Link types as files number them, from the library's own numbers, which differ for a few.
std::uint32_t linkTypeOf(int libraryNumber)
{
    switch (libraryNumber) {
    case DLT_ATM_RFC1483: return 100;
    case DLT_RAW: return 101;
    case DLT_ATM_CLIP: return 106;
    default: return static_cast<std::uint32_t>(libraryNumber);
    }
}

/// A file of its own, or the pipe or device that has the name.
std::expected<FileDescriptor, FileError> openToWrite(const std::string& path, ExistingFile existing)
{
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0 || S_ISREG(status.st_mode) || S_ISLNK(status.st_mode) || S_ISDIR(status.st_mode))
        return createFile(path, existing);
    FileDescriptor file(::open(path.c_str(), O_WRONLY | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY));
    if (!file) return std::unexpected(FileError::ofSystem(errno));
    return file;
}

InterfaceError activationError(pcap_t* handle, int status)
{
    if (status == PCAP_ERROR_PERM_DENIED || status == PCAP_ERROR_PROMISC_PERM_DENIED)
        return {.problem = InterfaceError::Problem::noPermission};
    if (status == PCAP_ERROR_NO_SUCH_DEVICE) return {.problem = InterfaceError::Problem::doesNotExist};
    const std::string_view detail = pcap().geterr(handle);
    if (status == PCAP_ERROR) return {.words = std::string(detail)};
    const std::string reason = pcap().statustostr(status);
    return {.words = detail.empty() ? reason : fmt::format("{} ({})", reason, detail)};
}

}  // namespace

struct LiveCapture::Implementation {
    /// Waits until a packet may be there or, unless that was already, somebody asks to stop; but no longer than the timeout.
    void wait(milliseconds timeout)
    {
        const int capture = pcap().get_selectable_fd(handle.get());
        if (capture < 0) timeout = std::min(timeout, lookAgainAfter);
        pollfd descriptors[] = {{.fd = stopTime != 0 ? -1 : stopEvent.number(), .events = POLLIN, .revents = 0},
                                {.fd = capture, .events = POLLIN, .revents = 0}};
        poll(descriptors, 2, static_cast<int>(std::min<std::int64_t>(timeout.count(), 1 << 30)));
    }

    void write(const CapturedPacket& packet)
    {
        if (!file || writeError != 0) return;
        errno = 0;
        if (!writer.classicPacket(packet.time, packet.originalLength, packet.frame)) writeError = errno != 0 ? errno : EIO;
        isFlushed = false;
    }

    void flush()
    {
        if (!file || isFlushed || writeError != 0) return;
        if (std::fflush(file.get()) != 0) writeError = errno;
        isFlushed = true;
    }

    LiveOptions options;
    std::unique_ptr<pcap_t, CloseHandle> handle;
    std::unique_ptr<std::FILE, CloseFile> file;
    CaptureWriter writer{[this](DataView bytes) {
        const auto count = static_cast<std::size_t>(bytes.size());
        return std::fwrite(bytes.data(), 1, count, file.get()) == count;
    }};
    int writeError = 0;
    bool isFlushed = true;
    FileDescriptor stopEvent;
    std::atomic<std::int64_t> stopTime{0};  // nanoseconds since 1970; 0 while nobody has asked
    std::uint32_t linkType = 0;
    bool hasNanoseconds = false;
    std::int64_t number = 0;
    CaptureError error;
};

LiveCapture::LiveCapture(std::unique_ptr<Implementation> implementation) : implementation_(std::move(implementation)) {}
LiveCapture::~LiveCapture() = default;

std::expected<std::unique_ptr<LiveCapture>, CaptureError> LiveCapture::open(const LiveOptions& options)
{
    const auto refused = [&](CaptureError::Cause cause) {
        return std::unexpected(CaptureError{.file = options.interface, .cause = std::move(cause), .couldNotOpen = true});
    };
    const auto inWords = [](const char* words) { return InterfaceError{.words = words}; };
    if (const auto& library = PcapLibrary::get(); !library) return refused(library.error());
    auto self = std::make_unique<Implementation>();
    self->options = options;
    char problem[PCAP_ERRBUF_SIZE] = {};
    self->handle.reset(pcap().create(options.interface.c_str(), problem));
    if (!self->handle) return refused(inWords(problem));
    pcap_t* const handle = self->handle.get();
    pcap().set_snaplen(handle, options.snapLength);
    pcap().set_promisc(handle, options.isPromiscuous);
    pcap().set_timeout(handle, static_cast<int>(blockTime.count()));
    pcap().set_buffer_size(handle, bufferBytes);
    self->hasNanoseconds = pcap().set_tstamp_precision(handle, PCAP_TSTAMP_PRECISION_NANO) == 0;
    if (const int status = pcap().activate(handle); status < 0) return refused(activationError(handle, status));
    const auto setFilter = [&]() -> std::expected<void, CaptureError> {
        if (options.filter.empty()) return {};
        bpf_program program = {};
        if (pcap().compile(handle, &program, options.filter.c_str(), 1, PCAP_NETMASK_UNKNOWN) != 0)
            return std::unexpected(CaptureError{.cause = FilterError{.compilersReason = pcap().geterr(handle)}, .couldNotOpen = true});
        const int status = pcap().setfilter(handle, &program);
        pcap().freecode(&program);
        if (status != 0) return refused(inWords(pcap().geterr(handle)));
        return {};
    };
    FileDescriptor file;
    const auto createFileToWrite = [&]() -> std::expected<void, CaptureError> {
        if (options.writeTo.empty()) return {};
        auto created = openToWrite(options.writeTo, options.existing);
        if (!created) return std::unexpected(CaptureError{.file = options.writeTo, .cause = created.error(), .couldNotOpen = true});
        file = std::move(*created);
        return {};
    };
    const auto drop = [&]() -> std::expected<void, CaptureError> {
        if (!options.dropsPrivileges) return {};
        const auto dropped = dropPrivileges();
        if (!dropped) return refused(dropped.error());
        return {};
    };
    // A user's filter and file are the user's affair, so what goes beyond the user goes first. Of root without a user behind it
    // nobody is left, who can make no file.
    const bool isDroppedLast = isRootAlone();
    if (!isDroppedLast)
        if (const auto dropped = drop(); !dropped) return std::unexpected(dropped.error());
    if (const auto set = setFilter(); !set) return std::unexpected(set.error());
    if (const auto created = createFileToWrite(); !created) return std::unexpected(created.error());
    if (isDroppedLast)
        if (const auto dropped = drop(); !dropped) return std::unexpected(dropped.error());

    if (pcap().setnonblock(handle, 1, problem) != 0) return refused(inWords(problem));
    self->linkType = linkTypeOf(pcap().datalink(handle));
    if (file) {
        self->file.reset(fdopen(file.number(), "wb"));
        if (self->file) file.release();
        const auto snapLength = static_cast<std::uint32_t>(pcap().snapshot(handle));
        if (!self->file || !self->writer.classicHeader(self->linkType, snapLength, self->hasNanoseconds ? 9 : 6))
            return std::unexpected(CaptureError{.file = options.writeTo, .cause = FileError::ofSystem(errno), .couldNotOpen = true});
    }
    self->stopEvent = FileDescriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!self->stopEvent) return refused(FileError::ofSystem(errno));
    return std::unique_ptr<LiveCapture>(new LiveCapture(std::move(self)));
}

LiveCapture::Outcome LiveCapture::next(CapturedPacket& packet, milliseconds timeout)
{
    Implementation& self = *implementation_;
    const auto end = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        const std::int64_t stopTime = self.stopTime;
        pcap_pkthdr* header = nullptr;
        const u_char* bytes = nullptr;
        const int count = pcap().next_ex(self.handle.get(), &header, &bytes);
        if (count == 1) {
            packet = {.number = self.number + 1,
                      .time = {.seconds = header->ts.tv_sec,
                               .units = static_cast<std::uint64_t>(header->ts.tv_usec),
                               .resolution = self.hasNanoseconds ? 1'000'000'000u : 1'000'000u},
                      .frame = {bytes, header->caplen},
                      .originalLength = std::max(header->len, header->caplen),
                      .linkType = self.linkType};
            // What had arrived before the stop still counts; a flood behind it would never end.
            if (stopTime != 0 && packet.time.nanoseconds() > stopTime) return Outcome::stopped;
            ++self.number;
            self.write(packet);
            return Outcome::packet;
        }
        if (count < 0) {
            self.flush();
            self.error = {
                .file = self.options.interface, .cause = InterfaceError{.words = pcap().geterr(self.handle.get())}, .packetsBefore = -1};
            return Outcome::failed;
        }
        self.flush();
        const milliseconds left = stopTime != 0 ? lastBlocksWithin - sinceTime(stopTime)
                                                : std::chrono::ceil<milliseconds>(end - std::chrono::steady_clock::now());
        if (left <= milliseconds::zero()) return stopTime != 0 ? Outcome::stopped : Outcome::timeout;
        self.wait(left);
    }
}

void LiveCapture::stop()
{
    const int savedError = errno;
    std::int64_t notAsked = 0;
    implementation_->stopTime.compare_exchange_strong(notAsked, now());
    const std::uint64_t one = 1;
    // A full counter has woken the reader already.
    [[maybe_unused]] const ssize_t written = write(implementation_->stopEvent.number(), &one, sizeof one);
    errno = savedError;
}

LiveCounts LiveCapture::counts() const
{
    pcap_stat counted = {};
    if (pcap().stats(implementation_->handle.get(), &counted) != 0) return {.received = implementation_->number};
    return {.received = counted.ps_recv, .droppedByKernel = counted.ps_drop, .droppedByInterface = counted.ps_ifdrop};
}

const CaptureError& LiveCapture::error() const { return implementation_->error; }

std::expected<void, CaptureError> LiveCapture::finishWriting()
{
    Implementation& self = *implementation_;
    self.flush();
    self.file.reset();
    if (self.writeError == 0) return {};
    return std::unexpected(
        CaptureError{.file = self.options.writeTo, .cause = NotWritten{FileError::ofSystem(self.writeError)}, .packetsBefore = -1});
}

}  // namespace sealscope
