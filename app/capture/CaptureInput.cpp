// SPDX-License-Identifier: Apache-2.0
#include "app/capture/CaptureInput.h"

#include "app/capture/Decompressor.h"
#include "app/capture/MappedFile.h"
#include "app/capture/SpoolFile.h"

#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <sched.h>
#include <sys/stat.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <utility>

namespace sealscope {
namespace {

constexpr std::int64_t mappedWindow = 4 << 20;     // pages let go together
constexpr std::int64_t streamedPiece = 128 << 10;  // read at once; stays in the processor's cache
constexpr const char* becameShorter = "became shorter while it was being read";

std::string systemReason(int error) { return std::generic_category().message(error); }

/// A file descriptor that is closed when it was opened here.
class Descriptor {
public:
    Descriptor(int number, bool isOwned) : number_(number), isOwned_(isOwned) {}
    Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)), isOwned_(other.isOwned_) {}
    Descriptor& operator=(Descriptor&& other) noexcept
    {
        std::swap(number_, other.number_);
        std::swap(isOwned_, other.isOwned_);
        return *this;
    }
    ~Descriptor()
    {
        if (isOwned_ && number_ >= 0) close(number_);
    }
    int number() const { return number_; }

private:
    int number_;
    bool isOwned_;
};

/// Bytes read, negative with `errno` on failure; fewer than asked for when a pipe holds no more for now.
std::int64_t readSome(int descriptor, std::span<std::uint8_t> target)
{
    for (;;) {
        const ssize_t count = read(descriptor, target.data(), target.size());
        if (count >= 0 || errno != EINTR) return count;
    }
}

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

/// A file mapped in place. The bytes come forward window by window. Unless all bytes are to be kept, their pages leave again
/// behind the reader.
class MappedInput final : public CaptureInput {
public:
    MappedInput(Descriptor descriptor, std::unique_ptr<MappedFile> file, bool keepAll)
        : descriptor_(std::move(descriptor)), file_(std::move(file)), size_(file_->bytes().size()), keepsAll_(keepAll)
    {
        if (keepAll && PageSupply::isOfUse(*file_)) pages_ = std::make_unique<PageSupply>(*file_);
        start_ = at_ = end_ = file_->bytes().data();
        damage_ = &file_->isDamaged();
    }

    DataView bytes(std::int64_t offset, std::int64_t count) const override { return file_->bytes().sub(offset, count); }
    std::int64_t size() const override { return file_->bytes().size(); }
    std::int64_t storedBytesRead() const override { return position(); }

    void finish() override
    {
        pages_.reset();
        descriptor_ = Descriptor(-1, false);
    }

    bool verify() override
    {
        struct stat status;
        const std::int64_t now = fstat(descriptor_.number(), &status) == 0 ? status.st_size : 0;
        if (now < file_->bytes().size()) {
            failure_ = becameShorter;
            size_ = std::min(size_, now);
        } else if (isSuspicious()) {
            failure_ = systemReason(EIO);
            size_ = std::min(size_, position());
        }
        end_ = std::min(end_, start_ + std::max(size_, position()));
        return failure_.empty();
    }

protected:
    bool fill(std::int64_t count) override
    {
        verify();
        const std::int64_t at = position(), ready = end_ - start_;
        const std::int64_t wanted = std::min(size_, std::max(at + count, ready + mappedWindow));
        if (wanted > ready) {
            if (pages_) pages_->tell(wanted);
            end_ = start_ + wanted;
        }
        // What lies more than a window back is unlikely to be looked at again soon.
        if (const std::int64_t kept = at - mappedWindow; !keepsAll_ && kept > released_) {
            file_->release(released_, kept - released_);
            released_ = kept;
        }
        return end_ - at_ >= count;
    }

private:
    Descriptor descriptor_;
    std::unique_ptr<MappedFile> file_;
    std::int64_t size_;  // shrinks with the file
    bool keepsAll_;
    std::unique_ptr<PageSupply> pages_;  // null where nobody needs to go ahead
    std::int64_t released_ = 0;          // pages before it were let go
};

/// A pipe or a compressed file, through one buffer, or into a temporary file when all bytes are to be kept.
class StreamedInput final : public CaptureInput {
public:
    StreamedInput(Descriptor descriptor, std::unique_ptr<SpoolFile> spool)
        : descriptor_(std::move(descriptor)),
          packed_(std::make_unique_for_overwrite<std::uint8_t[]>(static_cast<std::size_t>(streamedPiece))), spool_(std::move(spool))
    {}

    /// Reads the beginning and finds out whether it is compressed.
    void begin()
    {
        while (packedEnd_ < Decompressor::recognisedFrom && readPacked()) {}
        decompressor_ = Decompressor::recognise(DataView(packed_.get(), packedEnd_));
    }

    DataView bytes(std::int64_t offset, std::int64_t count) const override
    {
        return spool_ ? spool_->bytes().sub(offset, count) : DataView();
    }
    std::int64_t size() const override { return position() + available(); }
    bool isRegularFile() const override
    {
        struct stat status;
        return fstat(descriptor_.number(), &status) == 0 && S_ISREG(status.st_mode);
    }
    std::int64_t storedBytesRead() const override { return storedBytesRead_; }

protected:
    bool fill(std::int64_t count) override
    {
        while (end_ - at_ < count) {
            std::span<std::uint8_t> room = makeRoom(count);
            if (room.empty()) return false;
            const std::int64_t written = decompressor_ ? unpack(room) : take(room);
            if (written == 0) return false;
            if (spool_) spool_->commit(written);
            end_ += written;
        }
        return true;
    }

private:
    /// Room behind `end_`, with what is there from `at_` on in one place with it. Empty when there is none to be had.
    std::span<std::uint8_t> makeRoom(std::int64_t count)
    {
        if (spool_) {
            auto room = spool_->room(streamedPiece);
            if (!room) {
                failure_ = room.error();
                return {};
            }
            if (!start_) start_ = at_ = end_ = room->data();
            if (const std::int64_t kept = position() - mappedWindow; kept - released_ > mappedWindow) {
                spool_->release(released_, kept - released_);
                released_ = kept;
            }
            return *room;
        }
        const std::int64_t held = end_ - at_;
        // Grows by what has arrived, not by what was announced.
        const std::int64_t needed = std::max(streamedPiece, std::min(count, 2 * held + streamedPiece));
        const std::int64_t consumed = at_ - start_;
        if (bufferSize_ < needed) {
            auto larger = std::make_unique_for_overwrite<std::uint8_t[]>(static_cast<std::size_t>(needed));
            std::copy(at_, end_, larger.get());
            buffer_ = std::move(larger);
            bufferSize_ = needed;
        } else if (held > 0) {
            std::memmove(buffer_.get(), at_, static_cast<std::size_t>(held));
        }
        startPosition_ += consumed;
        start_ = at_ = buffer_.get();
        end_ = start_ + held;
        return {buffer_.get() + held, static_cast<std::size_t>(bufferSize_ - held)};
    }

    bool readPacked()
    {
        const std::int64_t count =
            readSome(descriptor_.number(), {packed_.get() + packedEnd_, static_cast<std::size_t>(streamedPiece - packedEnd_)});
        if (count < 0) failure_ = systemReason(errno);
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
            std::copy_n(packed_.get() + packedAt_, count, room.begin());
            packedAt_ += count;
            return count;
        }
        if (isAtEnd_) return 0;
        const std::int64_t count =
            readSome(descriptor_.number(), room.first(std::min(room.size(), static_cast<std::size_t>(streamedPiece))));
        if (count < 0) failure_ = systemReason(errno);
        if (count <= 0)
            isAtEnd_ = true;
        else
            storedBytesRead_ += count;
        return std::max<std::int64_t>(count, 0);
    }

    std::int64_t unpack(std::span<std::uint8_t> room)
    {
        std::span<std::uint8_t> output = room;
        while (output.size() == room.size() && failure_.empty()) {
            if (packedAt_ == packedEnd_ && !isAtEnd_) {
                packedAt_ = packedEnd_ = 0;
                readPacked();
            }
            const bool hadInput = packedAt_ < packedEnd_;
            std::span<const std::uint8_t> input(packed_.get() + packedAt_, static_cast<std::size_t>(packedEnd_ - packedAt_));
            const std::string reason = decompressor_->step(input, output);
            packedAt_ = packedEnd_ - static_cast<std::int64_t>(input.size());
            const std::int64_t place = storedBytesRead_ - (packedEnd_ - packedAt_);
            if (!reason.empty()) {
                failure_ = fmt::format("{} data damaged near byte {} of the file ({})", decompressor_->name(), place, reason);
            } else if (!hadInput && output.size() == room.size()) {
                if (failure_.empty() && !decompressor_->mayEnd())
                    failure_ = fmt::format("{} data ends too early, after {} bytes", decompressor_->name(), place);
                break;
            }
        }
        return static_cast<std::int64_t>(room.size() - output.size());
    }

    Descriptor descriptor_;
    std::unique_ptr<std::uint8_t[]> packed_;  // bytes as stored
    std::int64_t packedAt_ = 0;
    std::int64_t packedEnd_ = 0;
    std::atomic<std::int64_t> storedBytesRead_{0};
    bool isAtEnd_ = false;
    std::unique_ptr<Decompressor> decompressor_;
    std::unique_ptr<std::uint8_t[]> buffer_;
    std::int64_t bufferSize_ = 0;
    std::unique_ptr<SpoolFile> spool_;
    std::int64_t released_ = 0;
};

/// Bytes in memory.
class MemoryInput final : public CaptureInput {
public:
    explicit MemoryInput(DataView bytes) : bytes_(bytes)
    {
        start_ = at_ = bytes.begin();
        end_ = bytes.end();
    }
    DataView bytes(std::int64_t offset, std::int64_t count) const override { return bytes_.sub(offset, count); }
    std::int64_t size() const override { return bytes_.size(); }
    std::int64_t storedBytesRead() const override { return position(); }

protected:
    bool fill(std::int64_t) override { return false; }

private:
    DataView bytes_;
};

}  // namespace

std::unique_ptr<CaptureInput> CaptureInput::over(DataView bytes) { return std::make_unique<MemoryInput>(bytes); }

std::expected<std::unique_ptr<CaptureInput>, std::string> CaptureInput::open(const std::string& name, bool keepAll)
{
    const bool isStandardInput = name == "-";
    Descriptor descriptor(isStandardInput ? STDIN_FILENO : ::open(name.c_str(), O_RDONLY | O_CLOEXEC), !isStandardInput);
    struct stat status;
    if (descriptor.number() < 0 || fstat(descriptor.number(), &status) != 0) return std::unexpected(systemReason(errno));
    if (S_ISDIR(status.st_mode)) return std::unexpected("is a directory");

    if (S_ISREG(status.st_mode) && status.st_size > 0 && lseek(descriptor.number(), 0, SEEK_CUR) == 0) {
        std::uint8_t head[Decompressor::recognisedFrom];
        const ssize_t count = pread(descriptor.number(), head, sizeof head, 0);
        if (count < 0) return std::unexpected(systemReason(errno));
        if (!Decompressor::recognise(DataView(head, count))) {
            // A file system without mapping still reads.
            if (auto file = MappedFile::map(descriptor.number(), status.st_size))
                return std::make_unique<MappedInput>(std::move(descriptor), std::move(*file), keepAll);
        }
    }
    std::unique_ptr<SpoolFile> spool;
    if (keepAll) {
        auto made = SpoolFile::create();
        if (!made) return std::unexpected(made.error());
        spool = std::move(*made);
    }
    auto input = std::make_unique<StreamedInput>(std::move(descriptor), std::move(spool));
    input->begin();
    if (!input->failure().empty()) return std::unexpected(input->failure());
    if (input->storedBytesRead() == 0) return std::unexpected("is empty");
    return input;
}

bool CaptureInput::skip(std::int64_t count)
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
