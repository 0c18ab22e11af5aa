// SPDX-License-Identifier: Apache-2.0
#include "interpreters/TLSReach/ReachPlaintext.h"

#include "Sealscope/TLSNames.h"
#include "Sealscope/TLSRecord.h"
#include "host/VELModels/TLSDecryptionProbeRegistry.h"
#include "platform/ScatteredView.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace sealscope {

namespace {

constexpr std::array<std::uint8_t, 16'384> zeros{};

}  // namespace

std::uint8_t* ReachPlaintext::room(std::int64_t count)
{
    if (!isOpen_ || blockSize - used_ < count) {
        endBlock();
        Bytes bytes = std::exchange(spare_, nullptr);
        if (!bytes) bytes = std::make_shared_for_overwrite<std::uint8_t[]>(static_cast<std::size_t>(blockSize));
        blocks_.push_back({.begin = size_, .end = size_, .firstRun = runs_.size(), .bytes = std::move(bytes)});
        isOpen_ = canReopen_ = true;
        used_ = 0;
    }
    return blocks_.back().bytes.get() + used_;
}

void ReachPlaintext::add(std::int64_t count, ByteRange body, const Key& key)
{
    if (count == 0) return;
    const auto block = static_cast<std::uint32_t>(blocks_.size() - 1);
    const bool isSameKey = !openers_.empty() && lastOpener_ == key.opener;
    if (!isSameKey) {
        // Of very many keys only the first are kept; what the others opened is kept itself.
        openers_.push_back(openers_.size() < mostOpeners ? key.opener : nullptr);
        lastOpener_ = key.opener;
    }
    const auto opensAlone = [](const std::shared_ptr<RecordOpener>& opener) { return opener && opener->canOpenAgain(); };
    const bool opensInTurn = openerOfStandings_ && openerOfStandings_ == key.opener;
    const bool isMixed = used_ > 0 && !isSameKey && !(opensAlone(key.opener) && opensAlone(openers_[openers_.size() - 2]));
    canReopen_ = canReopen_ && openers_.back() && (opensAlone(key.opener) || opensInTurn) && !isMixed;
    lastSequence_ = key.sequence;
    lastOffset_ = key.offset + body.size();
    Run* run = runs_.empty() ? nullptr : &runs_.back();
    if (!run || run->isHole || run->block != block || run->count == longestRun || !isSameKey ||
        run->sequence + run->count != key.sequence || lastBody_ + TLSRecord::headerLength != body.lower) {
        runs_.push_back({.begin = size_,
                         .body = body.lower,
                         .sequence = key.sequence,
                         .offsetUnderKey = key.offset,
                         .first = records_.size(),
                         .block = block,
                         .opener = static_cast<std::uint32_t>(openers_.size() - 1)});
        run = &runs_.back();
    }
    ++run->count;
    records_.push_back({static_cast<std::uint16_t>(count), static_cast<std::uint16_t>(body.size())});
    lastBody_ = body.upper;
    used_ += count;
    blocks_.back().end = size_ += count;
}

void ReachPlaintext::addHole(std::int64_t count)
{
    if (count <= 0) return;
    endBlock();
    if (runs_.empty() || !runs_.back().isHole) runs_.push_back({.begin = size_, .first = records_.size(), .isHole = true});
    size_ += count;
    holes_ += count;
}

void ReachPlaintext::endBlock()
{
    if (!std::exchange(isOpen_, false)) return;
    Block& last = blocks_.back();
    if (last.begin == last.end) {
        spare_ = std::move(last.bytes);
        blocks_.pop_back();
    } else if (kept_ >= keptBytes && canReopen_) {
        spare_ = std::move(last.bytes);
        isKept_ = false;
    } else {
        kept_ += used_;
    }
    if (kept_ >= keptBytes) keepStanding();
}

void ReachPlaintext::keepStanding()
{
    const std::shared_ptr<RecordOpener> opener = openers_.empty() ? nullptr : openers_.back();
    if (!opener || opener->canOpenAgain()) return;
    if (openerOfStandings_ == opener && size_ - standings_.back().begin < betweenStandings) return;
    std::shared_ptr<RecordOpener> fork = opener->fork();
    if (!fork) return;
    openerOfStandings_ = opener;
    standings_.push_back({size_, lastBody_, lastOffset_, lastSequence_ + 1, std::move(fork)});
}

void ReachPlaintext::end()
{
    endBlock();
    spare_.reset();
    lastOpener_.reset();
    records_.shrink_to_fit();
    runs_.shrink_to_fit();
}

std::vector<ReachPlaintext::Run>::const_iterator ReachPlaintext::runAt(std::int64_t offset) const
{
    return std::prev(std::ranges::upper_bound(runs_, offset, {}, &Run::begin));
}

DataView ReachPlaintext::stretch(std::int64_t offset) const
{
    const auto run = runAt(offset);
    if (run->isHole) return DataView(zeros).sub(0, endOf(run) - offset);
    const Block& block = blocks_[run->block];
    const auto open = [&](Standing& last) {
        const bool isInTurn = !openers_[runs_[block.firstRun].opener]->canOpenAgain();
        return isInTurn ? openedInTurn(block, last) : opened(run->block);
    };
    const std::uint8_t* const bytes = block.bytes ? block.bytes.get() : lent_.lend(run->block, open);
    return {bytes + (offset - block.begin), block.end - offset};
}

/// Records as they were captured, for who opens them.
class ReachPlaintext::Sealed {
public:
    explicit Sealed(const StreamData& captured) : captured_(captured) {}

    /// The one whose header lies at an offset, which is `offsetUnderKey` behind the first header under its key; lent until the next.
    const ProtectedRecord& at(std::int64_t header, std::int64_t offsetUnderKey)
    {
        const std::int64_t count = std::min<std::int64_t>(header, before_.size());
        captured_.copy(header - count, std::span(before_).first(static_cast<std::size_t>(count)));
        captured_.copy(header, record_.header);
        captured_.findStretches(header + TLSRecord::headerLength, bodyLength(), stretches_);
        record_.body = ScatteredView(stretches_);
        record_.bytesBefore = {before_.data(), count};
        // One whose predecessor did not authenticate was not readable.
        record_.followsAuthentic = true;
        record_.offsetUnderKey = offsetUnderKey + TLSRecord::headerLength;
        return record_;
    }
    std::int64_t bodyLength() const { return record_.header[3] << 8 | record_.header[4]; }

private:
    const StreamData& captured_;
    ProtectedRecord record_;
    std::vector<DataView> stretches_;
    std::array<std::uint8_t, 64> before_{};  ///< a record needs no more than the last block of the one before, and a MAC behind it
};

ReachPlaintext::Bytes ReachPlaintext::opened(std::uint32_t number) const
{
    const Block& block = blocks_[number];
    // Records are opened where they belong, and an opener may use as much room as their bodies have.
    const std::int64_t size = block.end - block.begin;
    Bytes bytes = std::make_shared_for_overwrite<std::uint8_t[]>(static_cast<std::size_t>(size + (1 << 16)));
    std::uint8_t* next = bytes.get();
    Sealed sealed(captured_);
    for (std::size_t i = block.firstRun; i < runs_.size() && runs_[i].block == number && !runs_[i].isHole; ++i) {
        const Run& run = runs_[i];
        std::int64_t at = 0;
        for (std::uint32_t position = 0; position < run.count; ++position) {
            const Record& record = records_[run.first + position];
            const std::int64_t header = run.body + at - TLSRecord::headerLength;
            const auto& captured = sealed.at(header, run.offsetUnderKey + at - TLSRecord::headerLength);
            const auto content = openers_[run.opener]->open(run.sequence + position, captured, next);
            // It has opened before.
            if (!content || content->length != record.content) std::memset(next, 0, record.content);
            next += record.content;
            at += record.body + TLSRecord::headerLength;
        }
    }
    return bytes;
}

ReachPlaintext::Bytes ReachPlaintext::openedInTurn(const Block& block, Standing& last) const
{
    const Standing& before = *std::prev(std::ranges::upper_bound(standings_, block.begin, {}, &Standing::begin));
    if (!last.opener || last.begin > block.begin || last.begin < before.begin) {
        last = before;
        last.opener = before.opener->fork();
    }
    Bytes bytes = std::make_shared<std::uint8_t[]>(static_cast<std::size_t>(block.end - block.begin));
    std::vector<std::uint8_t> content(PlaintextReader::largestRecord);
    Sealed sealed(captured_);
    while (last.opener && last.begin < block.end) {
        const auto record = last.opener->open(last.sequence++, sealed.at(last.header, last.offsetUnderKey), content.data());
        last.header += TLSRecord::headerLength + sealed.bodyLength();
        last.offsetUnderKey += TLSRecord::headerLength + sealed.bodyLength();
        if (!record) {
            // It has opened before.
            last.opener.reset();
        } else if (record->type == std::to_underlying(TLSContentType::applicationData)) {
            if (last.begin >= block.begin) std::copy_n(content.begin(), record->length, bytes.get() + (last.begin - block.begin));
            last.begin += record->length;
        }
    }
    return bytes;
}

std::optional<ByteRange> ReachPlaintext::hole(std::int64_t offset) const
{
    const auto run = runAt(offset);
    return run->isHole ? std::optional(ByteRange{run->begin, endOf(run)}) : std::nullopt;
}

ByteLocation ReachPlaintext::locate(ByteRange range) const
{
    ByteLocation location;
    range.upper = std::min(range.upper, size_);
    if (range.lower >= range.upper) return location;
    PacketIdCollector packets(location.packetIds);
    for (auto run = runAt(range.lower); run != runs_.end() && run->begin < range.upper; ++run) {
        if (run->isHole) continue;
        std::int64_t begin = run->begin, body = run->body;
        for (std::uint32_t position = 0; position < run->count && begin < range.upper; ++position) {
            const Record& record = records_[run->first + position];
            if (begin + record.content > range.lower) {
                if (range.lower >= begin && range.upper <= begin + record.content) return index_.locate({body, body + record.body});
                const ByteLocation behind = index_.locate({body, body + record.body});
                for (const std::int64_t packetId : behind.packetIds) packets.add(packetId);
                if (behind.timestamp) location.timestamp = std::min(location.timestamp.value_or(*behind.timestamp), *behind.timestamp);
            }
            begin += record.content;
            body += record.body + TLSRecord::headerLength;
        }
    }
    return location;
}

}  // namespace sealscope
