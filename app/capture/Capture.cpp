// SPDX-License-Identifier: Apache-2.0
#include "app/capture/Capture.h"

#include "app/capture/CaptureFile.h"
#include "app/capture/PacketFilter.h"
#include "app/capture/SpoolFile.h"

#include <algorithm>
#include <atomic>
#include <optional>
#include <span>
#include <utility>

namespace sealscope {
namespace {

constexpr CaptureAddress firstKeptAddress = CaptureAddress{1} << 46;  // above any file
constexpr std::uint32_t ethernet = 1;
constexpr std::int64_t packetsPerLook = 1'024;  // at whether anybody wants to stop

CaptureInputOptions inputOptions(const CaptureOptions& options)
{
    return {.keepsAll = options.randomAccess, .keepsSkipped = options.keepsEveryBlock, .stop = options.stop};
}

/// A file that was found readable, before its turn.
struct Candidate {
    std::string name;
    std::optional<CapturedPacket> first;  ///< its bytes are there while the file is open
    ByteOrder byteOrder;
    std::unique_ptr<CaptureFile> file;  ///< null when it was closed again until its turn

    bool isBefore(const Candidate& other) const
    {
        if (!first || !other.first) return first.has_value() && !other.first.has_value();
        const CaptureTime &a = first->time, &b = other.first->time;
        if (a.seconds != b.seconds) return a.seconds < b.seconds;
        __extension__ using Wide = unsigned __int128;
        return Wide{a.units} * b.resolution < Wide{b.units} * a.resolution;
    }
};

class FileSequence final : public Capture {
public:
    FileSequence(std::vector<Candidate> candidates, CaptureOptions options, std::optional<PacketFilter> filter,
                 std::vector<CaptureError> errors)
        : options_(std::move(options)), filter_(std::move(filter)), candidates_(std::move(candidates)), errors_(std::move(errors)),
          places_(std::make_unique<OpenedFile[]>(candidates_.size())), packetsLeft_(options_.maximumPackets)
    {
        for (const Candidate& candidate : candidates_) {
            names_.push_back(candidate.name);
            const std::int64_t size = storedSize(candidate.name);
            bytesTotal_ = size < 0 || bytesTotal_ < 0 ? -1 : bytesTotal_ + size;
        }
    }

    bool next(CapturedPacket& packet) override
    {
        while (packetsLeft_ != 0) {
            if ((number_ & (packetsPerLook - 1)) == 0 && isStopped()) [[unlikely]]
                break;
            if (pending_) [[unlikely]] {
                packet = *std::exchange(pending_, std::nullopt);
            } else if (!file_ || hasFileEnded_ || !file_->next(packet)) [[unlikely]] {
                if (!advance()) return false;
                continue;
            }
            count(packet);
            if (filter_ && !filter_->passes(packet, file_->byteOrder())) continue;
            --packetsLeft_;
            return true;
        }
        collectRemainingSecrets();
        return false;
    }

    // A filter, and a limit, go by packets in their order.
    bool keepsFrames() const override { return file_ && file_->input().isMapped() && !pending_ && !filter_ && packetsLeft_ < 0; }

    bool nextOfFile(CapturedPacket& packet) override
    {
        if (hasFileEnded_ || !file_ || ((number_ & (packetsPerLook - 1)) == 0 && isStopped())) return false;
        hasFileEnded_ = !file_->next(packet);
        if (hasFileEnded_) return false;
        count(packet);
        return true;
    }

    Place place() const override
    {
        if (!file_) return {.file = position_};
        return {.file = position_ - 1, .offset = file_->input().position(), .generation = file_->generation()};
    }

    std::optional<FileAhead> ahead() override
    {
        if (!keepsFrames() || hasFileEnded_) return std::nullopt;
        CaptureInput& input = file_->input();
        std::shared_ptr<const CaptureFile> file = file_->ahead(input.position());
        input.expectReadersAhead();
        return FileAhead{.file = std::move(file),
                         .position = position_ - 1,
                         .base = base_,
                         .offset = input.position(),
                         .size = input.size(),
                         .generation = file_->generation()};
    }

    bool accept(const FileAhead& file, const PacketStretch& stretch) override
    {
        if (stretch.begin < 0 || hasFileEnded_ || isStopped()) return false;
        if (place() != Place{.file = file.position, .offset = stretch.begin, .generation = file.generation}) return false;
        if (!file_->goOnAt(stretch.end, stretch.packets)) return false;
        number_ += stretch.packets;
        packetsOfFile_ += stretch.packets;
        return true;
    }

    const std::vector<std::string>& files() const override { return names_; }
    const std::vector<CaptureError>& errors() const override { return errors_; }

    DataView bytes(CaptureAddress address, std::int64_t count) const override
    {
        if (address >= firstKeptAddress) return kept_ ? kept_->bytes(address - firstKeptAddress, count) : DataView();
        const std::span<const OpenedFile> places(places_.get(), placeCount_.load(std::memory_order_acquire));
        const auto behind = std::ranges::upper_bound(places, address, {}, &OpenedFile::base);
        if (behind == places.begin()) return {};
        const OpenedFile& place = *std::prev(behind);
        return place.file ? place.file->input().bytes(address - place.base, count) : DataView();
    }

    DataView fileBytes(std::size_t file) const override
    {
        if (file >= placeCount_.load(std::memory_order_acquire) || !places_[file].file) return {};
        const CaptureInput& input = places_[file].file->input();
        return input.bytes(0, input.size());
    }

    void letGo(std::size_t file, std::int64_t offset, std::int64_t count) const override
    {
        if (file < placeCount_.load(std::memory_order_acquire) && places_[file].file) places_[file].file->input().letGo(offset, count);
    }

    CaptureAddress keep(DataView bytes) override
    {
        SpoolError error;
        if (!kept_) {
            if (auto made = SpoolFile::create())
                kept_ = std::move(*made);
            else
                error = made.error();
        }
        if (kept_) {
            if (const auto room = kept_->room(bytes.size())) {
                const CaptureAddress address = firstKeptAddress + kept_->bytes().size();
                std::copy(bytes.begin(), bytes.end(), room->begin());
                kept_->commit(bytes.size());
                return address;
            } else {
                error = room.error();
            }
        }
        if (!std::exchange(hasKeepingFailed_, true))
            errors_.push_back({.file = names_[position_ - 1],
                               .cause = ReadError{.problem = ReadError::Problem::fragmentsDoNotFit, .because = error},
                               .packetsBefore = packetsOfFile_});
        return -1;
    }

    std::vector<CaptureError> lostFiles() const override
    {
        std::vector<CaptureError> lost;
        for (std::size_t file = 0; file < placeCount_.load(std::memory_order_acquire); ++file) {
            if (!isLost(file)) continue;
            const auto isOfIt = [&](const CaptureError& error) { return error.file == names_[file] && error.passedOver == 0; };
            if (std::ranges::any_of(errors_, isOfIt)) continue;
            lost.push_back({.file = names_[file], .cause = ReadError{.problem = ReadError::Problem::lostBytesLater}, .packetsBefore = -1});
        }
        return lost;
    }

    bool isLost(std::size_t file) const override
    {
        return file < placeCount_.load(std::memory_order_acquire) && places_[file].file && places_[file].file->input().isLost();
    }

    SecretText takeEmbeddedKeyLog() override
    {
        if (file_) addKeyLog();
        return std::exchange(keyLog_, {});
    }

    Extent extent() const override { return {first_, number_}; }
    std::int64_t bytesRead() const override { return storedBytesBefore_ + (file_ ? file_->input().storedBytesRead() : 0); }
    std::int64_t bytesTotal() const override { return bytesTotal_; }

private:
    /// A file from its turn on, as long as its bytes are wanted, and its first byte's address.
    struct OpenedFile {
        CaptureAddress base = 0;
        std::unique_ptr<CaptureFile> file;  ///< null when it could not be opened again
    };

    void count(CapturedPacket& packet)
    {
        ++packetsOfFile_;
        packet.number = ++number_;
        if (number_ == 1) [[unlikely]]
            first_ = packet.time;
        packet.file = static_cast<std::uint32_t>(position_ - 1);
        packet.address += base_;
    }

    /// Ends the current file and opens the next; false after the last.
    bool advance()
    {
        leaveFile();
        while (position_ < candidates_.size() && !isStopped()) {
            Candidate& candidate = candidates_[position_++];
            if (candidate.file) pending_ = candidate.first;
            auto opened = candidate.file ? std::expected<std::unique_ptr<CaptureFile>, ReadError>(std::move(candidate.file))
                                         : CaptureFile::open(candidate.name, inputOptions(options_));
            OpenedFile& place = places_[position_ - 1];
            place.base = base_;
            if (opened) place.file = std::move(*opened);
            placeCount_.store(position_, std::memory_order_release);
            file_ = place.file.get();
            if (!file_) {
                errors_.push_back({.file = candidate.name, .cause = opened.error(), .couldNotOpen = true});
                continue;
            }
            return true;
        }
        return false;
    }

    /// Secrets count wherever they stand, also behind the last packet that is wanted. Not worth waiting for a pipe, though.
    void collectRemainingSecrets()
    {
        if (!file_) return;
        const std::size_t errorsSoFar = errors_.size();
        CapturedPacket ignored;
        do {
            for (std::int64_t i = 0; options_.randomAccess && file_->input().isRegularFile(); ++i)
                if ((i % packetsPerLook == 0 && isStopped()) || !file_->next(ignored)) break;
        } while (options_.randomAccess && advance());
        leaveFile();
        errors_.resize(errorsSoFar);  // what lies behind the last wanted packet may be damaged
    }

    bool isStopped() const { return options_.stop.stop_requested(); }

    void addKeyLog()
    {
        if (SecretText text = file_->takeKeyLog(); keyLog_.empty())
            keyLog_ = std::move(text);
        else
            keyLog_ += text;
    }

    void leaveFile()
    {
        if (!file_) return;
        const std::string& name = names_[position_ - 1];
        if (const auto unfiltered = filter_ ? filter_->takeUnfiltered() : std::nullopt)
            errors_.push_back({.file = name, .cause = *unfiltered, .packetsBefore = -1});
        if (const auto [count, first, before] = file_->passedOver(); count > 0)
            errors_.push_back({.file = name, .cause = first, .packetsBefore = before, .passedOver = count});
        // Where it ends because somebody wants to stop, nothing is wrong with it.
        if (file_->damage() && !isStopped()) errors_.push_back({.file = name, .cause = *file_->damage(), .packetsBefore = packetsOfFile_});
        addKeyLog();
        storedBytesBefore_ += file_->input().storedBytesRead();
        packetsOfFile_ = 0;
        hasFileEnded_ = false;
        file_->input().finish();
        if (options_.randomAccess)
            base_ += file_->input().size();
        else
            places_[position_ - 1].file.reset();
        file_ = nullptr;
    }

    CaptureOptions options_;
    std::optional<PacketFilter> filter_;
    std::vector<Candidate> candidates_;
    std::vector<std::string> names_;
    std::vector<CaptureError> errors_;

    CaptureFile* file_ = nullptr;  // of the last place, while it is read
    std::size_t position_ = 0;     // of the candidate behind it
    bool hasFileEnded_ = false;    // though it was not left yet
    std::optional<CapturedPacket> pending_;
    CaptureAddress base_ = 0;
    std::int64_t number_ = 0;
    std::optional<CaptureTime> first_;  // packet's
    std::int64_t packetsOfFile_ = 0;
    SecretText keyLog_;
    std::int64_t bytesTotal_ = 0;
    std::int64_t storedBytesBefore_ = 0;

    std::unique_ptr<OpenedFile[]> places_;
    std::atomic<std::size_t> placeCount_{0};
    std::int64_t packetsLeft_;
    std::unique_ptr<SpoolFile> kept_;
    bool hasKeepingFailed_ = false;
};

enum class CandidateCount : std::uint8_t { one, several };

std::expected<Candidate, ReadError> openCandidate(const std::string& name, const CaptureOptions& options, CandidateCount count)
{
    const bool isOnlyOne = count == CandidateCount::one;
    // Many files are not held open at once, where they can be opened again.
    const bool staysOpen = isOnlyOne || storedSize(name) < 0 || name == "-";
    CaptureInputOptions wanted = inputOptions(options);
    wanted.keepsAll &= staysOpen;
    auto opened = CaptureFile::open(name, std::move(wanted));
    if (!opened) return std::unexpected(std::move(opened.error()));
    Candidate candidate{.name = name, .file = std::move(*opened)};
    if (CapturedPacket packet; (!isOnlyOne || !options.filter.empty()) && candidate.file->next(packet)) candidate.first = packet;
    candidate.byteOrder = candidate.file->byteOrder();
    if (!staysOpen) candidate.file.reset();
    return candidate;
}

/// Compiles the filter for the first packet there is.
std::expected<PacketFilter, FilterError> compileFilter(const std::string& expression, const std::vector<Candidate>& candidates)
{
    const auto first = std::ranges::find_if(candidates, [](const Candidate& candidate) { return candidate.first.has_value(); });
    if (first == candidates.end()) return PacketFilter::compile(expression, ethernet, {});
    auto filter = PacketFilter::compile(expression, first->first->linkType, first->byteOrder);
    if (filter || PacketFilter::isKnown(first->first->linkType)) return filter;
    // The expression is not to blame for a link type that the compiler does not know; `passes` will tell.
    return PacketFilter::compile(expression, ethernet, {});
}

}  // namespace

std::expected<std::unique_ptr<Capture>, CaptureError> Capture::open(const std::vector<std::string>& files, CaptureOptions options)
{
    std::vector<Candidate> candidates;
    std::vector<CaptureError> errors;
    for (const std::string& name : files) {
        auto candidate = openCandidate(name, options, files.size() == 1 ? CandidateCount::one : CandidateCount::several);
        if (candidate)
            candidates.push_back(std::move(*candidate));
        else
            errors.push_back({.file = name, .cause = candidate.error(), .couldNotOpen = true});
    }
    if (candidates.empty() && options.stop.stop_requested())
        return std::unexpected(
            CaptureError{.file = files.front(), .cause = ReadError{.problem = ReadError::Problem::interrupted}, .couldNotOpen = true});
    if (candidates.empty()) return std::unexpected(errors.front());
    std::ranges::stable_sort(candidates, [](const Candidate& a, const Candidate& b) { return a.isBefore(b); });

    std::optional<PacketFilter> filter;
    if (!options.filter.empty()) {
        auto compiled = compileFilter(options.filter, candidates);
        if (!compiled) return std::unexpected(CaptureError{.cause = compiled.error(), .couldNotOpen = true});
        filter = std::move(*compiled);
    }
    return std::make_unique<FileSequence>(std::move(candidates), std::move(options), std::move(filter), std::move(errors));
}

}  // namespace sealscope
