// SPDX-License-Identifier: Apache-2.0
#include "app/capture/CaptureInput.h"

#include "app/capture/Decompressor.h"
#include "app/capture/MappedFile.h"
#include "app/capture/SpoolFile.h"
#include "platform/FileDescriptor.h"

#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace sealscope {
namespace {

constexpr std::int64_t mappedWindow = 4 << 20;     // pages let go together
constexpr std::int64_t windowsInUse = 4;           // behind the reading in order, where others read ahead
constexpr std::int64_t windowsLetGo = 4;           // together there
constexpr std::int64_t streamedPiece = 128 << 10;  // read at once; stays in the processor's cache
constexpr std::int64_t shortestHole = 1 << 20;     // what is skipped and not kept; less is not worth the trouble
constexpr int lookAgainAtPipeAfter = 100;          // milliseconds, while a pipe holds nothing
// So much may anything unpack to. Beyond it a bomb is told from a capture by how many times its size it has become: in a temporary
// file, or by passing through.
constexpr std::int64_t freelyUnpacked = 1 << 30, mostTimesKept = 16, mostTimesRead = 256;

/// Memory that grows where it stands and holds what comes from a capture, of which nothing gets into a core.
class PageBuffer {
public:
    PageBuffer() = default;
    ~PageBuffer()
    {
        if (size_ > 0) munmap(bytes_, static_cast<std::size_t>(size_));
    }
    PageBuffer(const PageBuffer&) = delete;
    PageBuffer& operator=(const PageBuffer&) = delete;

    std::uint8_t* data() const { return bytes_; }
    std::int64_t size() const { return size_; }
    /// Makes it larger; the bytes stay, though not where they were. False without memory.
    bool grow(std::int64_t size)
    {
        const auto wanted = static_cast<std::size_t>(size);
        void* const grown = size_ > 0 ? mremap(bytes_, static_cast<std::size_t>(size_), wanted, MREMAP_MAYMOVE)
                                      : mmap(nullptr, wanted, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (grown == MAP_FAILED) return false;
        bytes_ = static_cast<std::uint8_t*>(grown);
        size_ = size;
        madvise(bytes_, wanted, MADV_DONTDUMP);
        return true;
    }

private:
    std::uint8_t* bytes_ = nullptr;
    std::int64_t size_ = 0;
};

/// Brings the pages of a mapped file into memory on a thread of its own, ahead of who reads, who does not wait for it.
class PageSupply {
public:
    /// Pays where there is a second processor, for a file that is large.
    static bool isOfUse(const MappedFile& file)
    {
        cpu_set_t allowed;
        const bool hasSeveral = sched_getaffinity(0, sizeof allowed, &allowed) != 0 || CPU_COUNT(&allowed) > 1;
        return hasSeveral && file.bytes().size() > farthestAhead;
    }

    explicit PageSupply(const MappedFile& file) : file_(file), size_(file.bytes().size()), thread_([this] { run(); }) {}
    ~PageSupply()
    {
        tell(size_);
        thread_.join();
    }
    PageSupply(const PageSupply&) = delete;
    PageSupply& operator=(const PageSupply&) = delete;

    /// Bytes before `reached` have been handed to who reads.
    void tell(std::int64_t reached)
    {
        reached_ = reached;
        reached_.notify_one();
    }

private:
    static constexpr std::int64_t farthestAhead = 16 * mappedWindow;

    void run()
    {
        for (std::int64_t next = 0; next < size_;) {
            std::int64_t reached = reached_;
            for (; next > reached + farthestAhead; reached = reached_) reached_.wait(reached);
            next = std::max(next, reached);
            const std::int64_t count = std::min(mappedWindow, size_ - next);
            file_.prefetch(next, count);
            next += count;
        }
    }

    const MappedFile& file_;
    std::int64_t size_;
    std::atomic<std::int64_t> reached_{0};
    std::thread thread_;
};

/// Bytes in memory, from an offset on.
class MemoryInput final : public CaptureInput {
public:
    explicit MemoryInput(DataView bytes, std::int64_t offset = 0, const std::atomic<bool>* damage = nullptr) : bytes_(bytes)
    {
        start_ = bytes.begin();
        at_ = start_ + std::clamp<std::int64_t>(offset, 0, bytes.size());
        end_ = bytes.end();
        damage_ = damage;
    }
    bool isMapped() const override { return true; }
    std::unique_ptr<CaptureInput> ahead(std::int64_t offset) const override
    {
        return std::make_unique<MemoryInput>(bytes_, offset, damage_);
    }
    DataView bytes(std::int64_t offset, std::int64_t count) const override { return bytes_.sub(offset, count); }
    std::int64_t size() const override { return bytes_.size(); }
    std::int64_t storedBytesRead() const override { return position(); }

protected:
    bool fill(std::int64_t) override { return false; }

private:
    DataView bytes_;
};

/// A file mapped in place. The bytes come forward window by window. Unless all bytes are to be kept, their pages leave again
/// behind the reader.
class MappedInput final : public CaptureInput {
public:
    MappedInput(std::string name, const struct stat& status, FileDescriptor descriptor, std::unique_ptr<MappedFile> file,
                CaptureInputOptions options)
        : name_(std::move(name)), device_(status.st_dev), inode_(status.st_ino), descriptor_(std::move(descriptor)), file_(std::move(file)),
          options_(std::move(options)), size_(file_->bytes().size())
    {
        start_ = at_ = end_ = file_->bytes().data();
        damage_ = &file_->isDamaged();
    }

    bool isMapped() const override { return true; }
    std::unique_ptr<CaptureInput> ahead(std::int64_t offset) const override
    {
        return std::make_unique<MemoryInput>(file_->bytes(), offset, &file_->isDamaged());
    }
    void expectReadersAhead() override
    {
        areReadersAhead_ = true;
        pages_.reset();
    }

    DataView bytes(std::int64_t offset, std::int64_t count) const override { return file_->bytes().sub(offset, count); }
    void letGo(std::int64_t offset, std::int64_t count) const override { file_->release(offset, count); }
    std::int64_t size() const override { return file_->bytes().size(); }
    std::int64_t storedBytesRead() const override { return position(); }

    void finish() override
    {
        pages_.reset();
        descriptor_.close();
    }

    bool isLost() const override
    {
        // Another file of the name tells nothing of ours. Within its last page a file loses bytes without a trace in memory.
        struct stat now;
        const int known = name_ == "-" ? fstat(STDIN_FILENO, &now) : stat(name_.c_str(), &now);
        return isSuspicious() || (known == 0 && now.st_dev == device_ && now.st_ino == inode_ && now.st_size < file_->bytes().size());
    }

    bool verify() override
    {
        struct stat status;
        const std::int64_t now = fstat(descriptor_.number(), &status) == 0 ? status.st_size : 0;
        if (now < file_->bytes().size()) {
            failure_ = ReadError{.problem = ReadError::Problem::becameShorter};
            size_ = std::min(size_, now);
        } else if (isSuspicious()) {
            failure_ = ReadError::ofSystem(EIO);
            size_ = std::min(size_, position());
        }
        end_ = std::min(end_, start_ + std::max(size_, position()));
        return !failure_;
    }

protected:
    bool fill(std::int64_t count) override
    {
        if (options_.stop.stop_requested()) return false;
        verify();
        const std::int64_t at = position(), ready = end_ - start_;
        const std::int64_t wanted = std::min(size_, std::max(at + count, ready + mappedWindow));
        if (wanted > ready) {
            // The first window is read before anybody knows whether others will read ahead.
            if (ready > 0 && !pages_ && options_.keepsAll && !areReadersAhead_ && PageSupply::isOfUse(*file_))
                pages_ = std::make_unique<PageSupply>(*file_);
            if (pages_) pages_->tell(wanted);
            end_ = start_ + wanted;
        }
        // What lies farther back is unlikely to be looked at again soon. Each time pages leave, every processor that works has to know.
        const std::int64_t near = areReadersAhead_ ? windowsInUse * mappedWindow : mappedWindow;
        const std::int64_t together = areReadersAhead_ ? windowsLetGo * mappedWindow : 0;
        if (const std::int64_t kept = at - near; !options_.keepsAll && kept > released_ + together) {
            file_->release(released_, kept - released_);
            released_ = kept;
        }
        return end_ - at_ >= count;
    }

private:
    std::string name_;
    dev_t device_;
    ino_t inode_;
    FileDescriptor descriptor_;  // until the end is reached: many files may be open
    std::unique_ptr<MappedFile> file_;
    CaptureInputOptions options_;
    std::int64_t size_;                  // shrinks with the file
    std::unique_ptr<PageSupply> pages_;  // null where nobody needs to go ahead
    bool areReadersAhead_ = false;
    std::int64_t released_ = 0;  // pages before it were let go
};

/// A pipe or a compressed file, through one buffer, or into a temporary file when all bytes are to be kept.
class StreamedInput final : public CaptureInput {
public:
    StreamedInput(FileDescriptor descriptor, std::unique_ptr<SpoolFile> spool, CaptureInputOptions options)
        : descriptor_(std::move(descriptor)), options_(std::move(options)), spool_(std::move(spool))
    {
        struct stat status;
        if (fstat(descriptor_.number(), &status) == 0 && S_ISREG(status.st_mode)) storedSize_ = status.st_size;
    }

    /// Reads the beginning and finds out whether it is compressed.
    void begin()
    {
        if (!packed_.grow(streamedPiece)) {
            failure_ = ReadError::ofSystem(ENOMEM);
            return;
        }
        while (packedEnd_ < Decompressor::recognisedFrom && readPacked()) {}
        decompressor_ = Decompressor::recognise(DataView(packed_.data(), packedEnd_), storedSize_);
    }

    DataView bytes(std::int64_t offset, std::int64_t count) const override { return spool_ ? spool_->bytes(offset, count) : DataView(); }
    void letGo(std::int64_t offset, std::int64_t count) const override
    {
        if (spool_) spool_->release(offset, count);
    }
    std::int64_t size() const override { return position() + available(); }
    bool isRegularFile() const override { return storedSize_ >= 0; }
    std::int64_t storedBytesRead() const override { return storedBytesRead_; }

protected:
    bool fill(std::int64_t count) override
    {
        while (end_ - at_ < count) {
            std::span<std::uint8_t> room = makeRoom(count);
            if (room.empty()) return false;
            const std::int64_t written = get(room);
            if (written == 0) return false;
            if (spool_) spool_->commit(written);
            end_ += written;
        }
        return true;
    }

    bool skipFar(std::int64_t count) override
    {
        if (!spool_ || !start_ || options_.keepsSkipped || count - available() < shortestHole) return CaptureInput::skipFar(count);
        if (buffer_.size() == 0 && !buffer_.grow(streamedPiece)) return CaptureInput::skipFar(count);
        count -= available();
        consume(available());
        std::int64_t skipped = 0;
        while (skipped < count) {
            const std::int64_t got = get({buffer_.data(), static_cast<std::size_t>(std::min(streamedPiece, count - skipped))});
            if (got == 0) break;
            skipped += got;
        }
        if (const auto left = spool_->leaveOut(skipped); !left) {
            failure_ = ReadError{.because = left.error()};
            return false;
        }
        leftOut_ += skipped;
        at_ = end_ += skipped;
        return skipped == count;
    }

private:
    /// Room behind `end_`, with what is there from `at_` on in one place with it. Empty when there is none to be had.
    std::span<std::uint8_t> makeRoom(std::int64_t count)
    {
        if (spool_) {
            if (const std::int64_t most = freelyUnpacked / copies() + mostTimesKept / copies() * storedBytesRead_;
                decompressor_ && unpacked_ - leftOut_ > most)
                return tooMuch(freelyUnpacked / copies(), mostTimesKept / copies());
            auto room = spool_->room(streamedPiece);
            if (!room) {
                failure_ = ReadError{.because = room.error()};
                return {};
            }
            if (!start_) start_ = at_ = end_ = room->data();
            if (const std::int64_t kept = position() - mappedWindow; kept - released_ > mappedWindow) {
                spool_->release(released_, kept - released_);
                released_ = kept;
            }
            // What was packed well would fill all of it at once.
            return room->first(std::min(room->size(), static_cast<std::size_t>(mappedWindow)));
        }
        const std::int64_t held = end_ - at_;
        // Grows by what has arrived, not by what was announced.
        const std::int64_t needed = std::max(streamedPiece, std::min(count, 2 * held + streamedPiece));
        const std::int64_t consumed = at_ - start_;
        if (held > 0) std::memmove(buffer_.data(), at_, static_cast<std::size_t>(held));
        startPosition_ += consumed;
        const bool hasRoom = buffer_.size() >= needed || buffer_.grow(needed);
        start_ = at_ = buffer_.data();
        end_ = start_ + held;
        if (!hasRoom) {
            failure_ = ReadError::ofSystem(ENOMEM);
            return {};
        }
        return {buffer_.data() + held, static_cast<std::size_t>(buffer_.size() - held)};
    }

    /// Bytes read, negative with `errno` on failure; fewer than asked for when a pipe holds no more for now, none when it is to
    /// stop.
    std::int64_t readSome(std::span<std::uint8_t> target) const
    {
        while (!options_.stop.stop_requested()) {
            pollfd pipe{.fd = descriptor_.number(), .events = POLLIN, .revents = 0};
            if (storedSize_ < 0 && options_.stop.stop_possible() && poll(&pipe, 1, lookAgainAtPipeAfter) <= 0) continue;
            const ssize_t count = read(descriptor_.number(), target.data(), target.size());
            if (count >= 0 || errno != EINTR) return count;
        }
        return 0;
    }

    /// The next bytes of the uncompressed file; 0 at its end, at damage, and when it is to stop.
    std::int64_t get(std::span<std::uint8_t> room)
    {
        if (!decompressor_) return take(room);
        const std::int64_t written = unpack(room);
        unpacked_ += written;
        if (unpacked_ > freelyUnpacked + mostTimesRead * storedBytesRead_) return tooMuch(freelyUnpacked, mostTimesRead).size();
        return written;
    }

    /// How often the bytes come to lie on a disk: what keeps every block is to be written once more.
    std::int64_t copies() const { return options_.keepsSkipped ? 2 : 1; }

    std::span<std::uint8_t> tooMuch(std::int64_t bytes, std::int64_t times)
    {
        failure_ = ReadError{.problem = ReadError::Problem::unpacksToTooMuch, .numbers = {bytes, times}, .format = decompressor_->name()};
        return {};
    }

    bool readPacked()
    {
        const std::int64_t count = readSome({packed_.data() + packedEnd_, static_cast<std::size_t>(streamedPiece - packedEnd_)});
        if (count < 0) failure_ = ReadError::ofSystem(errno);
        if (count <= 0)
            isAtEnd_ = true;
        else
            packedEnd_ += count, storedBytesRead_ += count;
        return count > 0;
    }

    /// Plain bytes: those of the beginning first, then straight from the descriptor.
    std::int64_t take(std::span<std::uint8_t> room)
    {
        if (packedAt_ < packedEnd_) {
            const auto count = std::min(packedEnd_ - packedAt_, static_cast<std::int64_t>(room.size()));
            std::copy_n(packed_.data() + packedAt_, count, room.begin());
            packedAt_ += count;
            return count;
        }
        if (isAtEnd_) return 0;
        const std::int64_t count = readSome(room.first(std::min(room.size(), static_cast<std::size_t>(streamedPiece))));
        if (count < 0) failure_ = ReadError::ofSystem(errno);
        if (count <= 0)
            isAtEnd_ = true;
        else
            storedBytesRead_ += count;
        return std::max<std::int64_t>(count, 0);
    }

    std::int64_t unpack(std::span<std::uint8_t> room)
    {
        std::span<std::uint8_t> output = room;
        while (output.size() == room.size() && !failure_ && !options_.stop.stop_requested()) {
            if (packedAt_ == packedEnd_ && !isAtEnd_) {
                packedAt_ = packedEnd_ = 0;
                readPacked();
            }
            const bool hadInput = packedAt_ < packedEnd_;
            std::span<const std::uint8_t> input(packed_.data() + packedAt_, static_cast<std::size_t>(packedEnd_ - packedAt_));
            const auto stepped = decompressor_->step(input, output);
            packedAt_ = packedEnd_ - static_cast<std::int64_t>(input.size());
            const std::int64_t place = storedBytesRead_ - (packedEnd_ - packedAt_);
            if (!stepped) {
                failure_ = ReadError{.problem = ReadError::Problem::doesNotUnpack,
                                     .numbers = {place},
                                     .because = stepped.error(),
                                     .format = decompressor_->name()};
            } else if (!hadInput && output.size() == room.size()) {
                if (!failure_ && !decompressor_->mayEnd())
                    failure_ = ReadError{.problem = ReadError::Problem::endsTooEarly, .numbers = {place}, .format = decompressor_->name()};
                break;
            }
        }
        return static_cast<std::int64_t>(room.size() - output.size());
    }

    FileDescriptor descriptor_;
    CaptureInputOptions options_;
    std::int64_t storedSize_ = -1;  // of a regular file
    PageBuffer packed_;             // bytes as stored
    std::int64_t packedAt_ = 0;
    std::int64_t packedEnd_ = 0;
    std::atomic<std::int64_t> storedBytesRead_{0};
    bool isAtEnd_ = false;
    std::unique_ptr<Decompressor> decompressor_;
    PageBuffer buffer_;
    std::unique_ptr<SpoolFile> spool_;
    std::int64_t unpacked_ = 0;  // bytes in all
    std::int64_t leftOut_ = 0;   // of them, not spooled
    std::int64_t released_ = 0;
};

}  // namespace

std::unique_ptr<CaptureInput> CaptureInput::over(DataView bytes) { return std::make_unique<MemoryInput>(bytes); }

std::expected<std::unique_ptr<CaptureInput>, ReadError> CaptureInput::open(const std::string& name, CaptureInputOptions options)
{
    const bool isStandardInput = name == "-";
    FileDescriptor descriptor =
        isStandardInput ? FileDescriptor::lent(STDIN_FILENO) : FileDescriptor(::open(name.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat status;
    if (descriptor.number() < 0 || fstat(descriptor.number(), &status) != 0) return std::unexpected(ReadError::ofSystem(errno));
    if (S_ISDIR(status.st_mode)) return std::unexpected(ReadError{.problem = ReadError::Problem::isDirectory});

    if (S_ISREG(status.st_mode) && status.st_size > 0 && lseek(descriptor.number(), 0, SEEK_CUR) == 0) {
        std::uint8_t head[Decompressor::recognisedFrom];
        const ssize_t count = pread(descriptor.number(), head, sizeof head, 0);
        if (count < 0) return std::unexpected(ReadError::ofSystem(errno));
        if (!Decompressor::recognise(DataView(head, count), status.st_size)) {
            // A file system without mapping still reads.
            if (auto file = MappedFile::map(descriptor.number(), status.st_size))
                return std::make_unique<MappedInput>(name, status, std::move(descriptor), std::move(*file), std::move(options));
        }
    }
    std::unique_ptr<SpoolFile> spool;
    if (options.keepsAll) {
        auto made = SpoolFile::create();
        if (!made) return std::unexpected(ReadError{.because = made.error()});
        spool = std::move(*made);
    }
    auto input = std::make_unique<StreamedInput>(std::move(descriptor), std::move(spool), std::move(options));
    input->begin();
    if (input->failure()) return std::unexpected(*input->failure());
    if (input->storedBytesRead() == 0) return std::unexpected(ReadError{.problem = ReadError::Problem::isEmpty});
    return input;
}

bool CaptureInput::skipFar(std::int64_t count)
{
    while (count > available()) {
        count -= available();
        consume(available());
        if (!require(1)) return false;
    }
    consume(count);
    return true;
}

std::int64_t storedSize(const std::string& name)
{
    struct stat status;
    const int result = name == "-" ? fstat(STDIN_FILENO, &status) : stat(name.c_str(), &status);
    return result == 0 && S_ISREG(status.st_mode) ? status.st_size : -1;
}

}  // namespace sealscope
