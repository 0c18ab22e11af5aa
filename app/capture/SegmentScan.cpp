// SPDX-License-Identifier: Apache-2.0
#include "app/capture/SegmentScan.h"

#include "app/capture/FileAhead.h"
#include "platform/WorkerThreads.h"

#include <algorithm>
#include <atomic>
#include <oneapi/tbb/parallel_pipeline.h>
#include <oneapi/tbb/task_arena.h>
#include <utility>

namespace sealscope {

namespace {

constexpr std::int64_t leastPieces = 2;
// What is made of so many fits the caches of a processor. With fewer threads meet more often, in the kernel's page tables too.
constexpr std::int64_t packetsOfPiece = 1'536;
constexpr int mostTries = 16;  // of places in one piece

}  // namespace

/// A piece of a file on its way from thread to thread; no line of the caches is two threads'.
struct alignas(64) SegmentScan::Slot {
    std::int64_t from = 0;  ///< its packets begin between these offsets
    std::int64_t to = 0;
    bool isFirst = false;  ///< it begins where the reading in order is
    PacketStretch stretch;
    SegmentBatch batch;
    std::vector<CapturedPacket> fragments;
    PacketDecoder decoder{PacketDecoder::WithoutFragments{}};
};

const DecoderNotes& SegmentScan::notes() const
{
    notes_ = decoder_.notes();
    notes_ += notesAhead_;
    return notes_;
}

bool SegmentScan::next(CapturedSegment& segment)
{
    while (capture_.next(packet_)) {
        addPackets(1);
        if (!decoder_.decode(packet_, segment.tcp)) continue;
        segment.packetNumber = packet_.number;
        segment.time = packet_.time;
        return true;
    }
    return false;
}

bool SegmentScan::readInOrder(SegmentBatch& batch)
{
    batch.clear();
    const std::int64_t packetsAtOnce = std::clamp<std::int64_t>(pieceSize_ >> 14, 1, 64);
    // Not for ever, where none of many packets is TCP: who takes the batches tells how far it has come.
    for (std::int64_t i = 0; i < packetsAtOnce && batch.count_ == 0; ++i) {
        if (!capture_.next(packet_)) return i > 0;
        addPackets(1);
        decodeInOrder(batch);
        if (processors_ == Processors::one || !capture_.keepsFrames()) continue;
        const std::int64_t first = i;
        for (; i < packetsAtOnce && capture_.nextOfFile(packet_); ++i) decodeInOrder(batch);
        addPackets(i - first);
    }
    return true;
}

std::optional<FileAhead> SegmentScan::fileAhead()
{
    if (processors_ == Processors::one || hasOneProcessor_ || packetCount() < nextLook_) return std::nullopt;
    nextLook_ = packetCount() + pieceSize_ / 1'024;
    const std::int64_t leastAhead = leastPieces * pieceSize_;
    const Capture::Place place = capture_.place();
    if (capture_.bytesTotal() >= 0 && capture_.bytesTotal() < leastAhead) return std::nullopt;
    hasOneProcessor_ = oneapi::tbb::this_task_arena::max_concurrency() == 1;
    if (hasOneProcessor_) return std::nullopt;
    auto file = capture_.ahead();
    if (!file || file->size - place.offset < leastAhead) return std::nullopt;
    return file;
}

std::size_t SegmentScan::slotCount() const { return 2 * static_cast<std::size_t>(oneapi::tbb::this_task_arena::max_concurrency()) + 2; }

bool SegmentScan::readAhead(const FileAhead& file, const Work& work, const Take& take)
{
    spreadWorkers();
    std::vector<Slot> slots(slotCount());
    bytesAhead_ = capture_.bytesRead();
    isReadingAhead_ = true;
    std::atomic<bool> isWanted = true, isStale = false;
    std::int64_t next = file.offset;
    std::size_t begun = 0;
    const auto begin = [&](oneapi::tbb::flow_control& control) -> std::size_t {
        if (next >= file.size || !isWanted || isStale) {
            control.stop();
            return 0;
        }
        // A slot is free again when its turn comes: no more pieces are on their way than there are slots, and they end in order.
        const std::size_t number = begun++ % slots.size();
        Slot& slot = slots[number];
        slot.isFirst = next == file.offset;
        const std::int64_t usualPacket = bytesAhead_.load(std::memory_order_relaxed) / std::max<std::int64_t>(packetCount(), 1);
        const std::int64_t piece = std::clamp(packetsOfPiece * usualPacket, pieceSize_ / 8, pieceSize_);
        slot.from = std::exchange(next, std::min(next + piece, file.size));
        slot.to = next;
        return number;
    };
    const auto read = [&](std::size_t number) {
        if (isWanted && !isStale) readPiece(file, slots[number]);
        return number;
    };
    const auto settleIt = [&](std::size_t number) {
        if (isWanted) settle(file, slots[number]);
        const Capture::Place now = capture_.place();
        isStale = isStale || now.file != file.position || now.generation != file.generation;
        return number;
    };
    const auto workOn = [&](std::size_t number) {
        if (isWanted) work(number, slots[number].batch);
        return number;
    };
    const auto end = [&](std::size_t number) { isWanted = isWanted && take(number, slots[number].batch); };
    using oneapi::tbb::filter_mode, oneapi::tbb::make_filter;
    oneapi::tbb::parallel_pipeline(slots.size(), make_filter<void, std::size_t>(filter_mode::serial_in_order, begin) &
                                                     make_filter<std::size_t, std::size_t>(filter_mode::parallel, read) &
                                                     make_filter<std::size_t, std::size_t>(filter_mode::serial_in_order, settleIt) &
                                                     make_filter<std::size_t, std::size_t>(filter_mode::parallel, workOn) &
                                                     make_filter<std::size_t, void>(filter_mode::serial_in_order, end));
    isReadingAhead_ = false;
    return isWanted;
}

void SegmentScan::readPiece(const FileAhead& file, Slot& slot)
{
    StretchReader reader(file, slot.from, slot.to);
    SegmentBatch& batch = slot.batch;
    CapturedPacket packet;
    for (int tries = 0; tries < mostTries; ++tries) {
        batch.clear();
        slot.fragments.clear();
        slot.decoder.forgetNotes();
        if (slot.isFirst)
            reader.begin();
        else if (!reader.find())
            break;
        while (reader.next(packet)) {
            packet.number = reader.stretch().packets;
            CapturedSegment& segment = batch.room();
            if (slot.decoder.decode(packet, segment.tcp)) {
                segment.packetNumber = packet.number;
                segment.time = packet.time;
                ++batch.count_;
            } else if (slot.decoder.hasLeftFragment()) {
                slot.fragments.push_back(packet);
            }
        }
        if (slot.isFirst || reader.isLikely()) break;
    }
    slot.stretch = reader.stretch();
}

void SegmentScan::settle(const FileAhead& file, Slot& slot)
{
    SegmentBatch& batch = slot.batch;
    const std::int64_t before = capture_.extent().packets;
    const PacketStretch stretch = std::exchange(slot.stretch, {});
    const bool isAccepted = capture_.accept(file, stretch);
    if (!isAccepted) batch.clear();
    batch.packetsBefore_ = before;
    if (isAccepted) {
        packetsAhead_ += stretch.packets;
        notesAhead_ += slot.decoder.notes();
        const auto untilFragments = static_cast<std::ptrdiff_t>(batch.count_);
        for (CapturedPacket& packet : slot.fragments) {
            packet.number += before;
            packet_ = packet;
            decodeInOrder(batch);
        }
        const auto first = batch.segments_.begin();
        std::ranges::inplace_merge(first, first + untilFragments, first + static_cast<std::ptrdiff_t>(batch.count_), {},
                                   &CapturedSegment::packetNumber);
    }
    slot.fragments.clear();
    slot.decoder.forgetNotes();
    while (capture_.place().file == file.position && capture_.place().offset < slot.to && capture_.nextOfFile(packet_))
        decodeInOrder(batch);
    addPackets(capture_.extent().packets - before);
    bytesAhead_.store(capture_.bytesRead(), std::memory_order_relaxed);
}

void SegmentScan::decodeInOrder(SegmentBatch& batch)
{
    CapturedSegment& segment = batch.room();
    if (!decoder_.decode(packet_, segment.tcp)) return;
    segment.packetNumber = packet_.number - batch.packetsBefore_;
    segment.time = packet_.time;
    ++batch.count_;
    const DataView payload = segment.tcp.payload, frame = packet_.frame;
    if (payload.begin() < frame.begin() || payload.end() > frame.end()) segment.tcp.payload = batch.kept_.emplace_back(payload);
}

}  // namespace sealscope
