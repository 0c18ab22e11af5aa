// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/capture/Capture.h"
#include "app/capture/PacketDecoder.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace sealscope {

/// A TCP segment and the packet that brought it.
struct CapturedSegment {
    std::int64_t packetNumber = 0;  ///< counted from 1; in a batch, from its first packet
    CaptureTime time;
    TCPPacket tcp;
};

/// The TCP segments of some packets that follow each other, in capture order.
class SegmentBatch {
public:
    const CapturedSegment* begin() const { return segments_.data(); }
    const CapturedSegment* end() const { return segments_.data() + count_; }
    std::size_t size() const { return count_; }
    /// Packets of the capture before its first: known only when its segments have been counted.
    std::int64_t packetsBefore() const { return packetsBefore_; }

private:
    friend class SegmentScan;
    CapturedSegment& room()
    {
        if (count_ == segments_.size()) segments_.emplace_back();
        return segments_[count_];
    }
    void clear()
    {
        count_ = 0;
        packetsBefore_ = 0;
        kept_.clear();
    }

    std::vector<CapturedSegment> segments_;  // stays as long as it once was
    std::size_t count_ = 0;
    std::int64_t packetsBefore_ = 0;
    std::deque<Data> kept_;  // payloads that lie in no file
};

/// Finds the TCP segments of a capture. A large file that is mapped is read on all processors: pieces of it ahead, from where a packet
/// seems to begin, which count when the reading in order arrives just there. What comes out is the same on one.
class SegmentScan {
public:
    enum class Processors { one, all };

    /// With `keepIn`, which is the capture, datagrams put together from fragments are kept there. `pieceSize`: most bytes of a file that
    /// one thread reads at a time, fewer where packets are short; reading ahead begins with two such pieces.
    SegmentScan(Capture& capture, Capture* keepIn, Processors processors, std::int64_t pieceSize = usualPieceSize)
        : capture_(capture), decoder_(keepIn), processors_(processors), pieceSize_(pieceSize)
    {}

    /// The next segment, lent as its packet is; false at the end of the capture.
    bool next(CapturedSegment& segment);
    /// The packet of the last segment that `next` gave, or that came alone: with one processor all do.
    const CapturedPacket& packet() const { return packet_; }

    /// Reads to the end. Each batch is given to a worker, on any thread, several batches at once but no worker twice; then batch and
    /// worker are taken, one at a time in capture order, until `take` gives false. Workers are made by `makeWorker()`. A batch may be
    /// empty.
    template <class MakeWorker, class Take> void run(const MakeWorker& makeWorker, const Take& take)
    {
        auto worker = makeWorker();
        SegmentBatch batch;
        while (readInOrder(batch)) {
            worker(batch);
            if (!take(worker, batch)) return;
            const auto file = fileAhead();
            if (!file) continue;
            std::vector<decltype(makeWorker())> workers;
            for (std::size_t i = 0; i < slotCount(); ++i) workers.push_back(makeWorker());
            const auto work = [&](std::size_t slot, const SegmentBatch& made) { workers[slot](made); };
            const auto takeIt = [&](std::size_t slot, const SegmentBatch& made) { return take(workers[slot], made); };
            if (!readAhead(*file, work, takeIt)) return;
        }
    }

    /// Of them, how many were read ahead of their turn; when all is done.
    std::int64_t packetsAhead() const { return packetsAhead_; }
    // How far the reading has come; to be asked where `next` is called, or by `take`.
    std::int64_t packetCount() const { return packets_.load(std::memory_order_relaxed); }  ///< of all kinds
    std::int64_t bytesRead() const { return isReadingAhead_ ? bytesAhead_.load(std::memory_order_relaxed) : capture_.bytesRead(); }
    const DecoderNotes& notes() const;

    SegmentScan(const SegmentScan&) = delete;
    SegmentScan& operator=(const SegmentScan&) = delete;

private:
    static constexpr std::int64_t usualPieceSize = 2 << 20;

    struct Slot;
    using Work = std::function<void(std::size_t, const SegmentBatch&)>;
    using Take = std::function<bool(std::size_t, const SegmentBatch&)>;

    /// The next segments, only one where a packet is lent until the next is read. False at the end.
    bool readInOrder(SegmentBatch& batch);
    /// The file that is being read, now and then, when reading ahead is worth it.
    std::optional<FileAhead> fileAhead();
    std::size_t slotCount() const;
    /// Reads the rest of a file, or as much as can be read ahead; false when nobody takes more.
    bool readAhead(const FileAhead& file, const Work& work, const Take& take);
    static void readPiece(const FileAhead& file, Slot& slot);
    /// Makes of a piece what the reading in order finds there, and goes on behind it.
    void settle(const FileAhead& file, Slot& slot);
    void decodeInOrder(SegmentBatch& batch);
    /// Only the reading in order counts, so that no exchange of several processors is needed.
    void addPackets(std::int64_t count) { packets_.store(packetCount() + count, std::memory_order_relaxed); }

    Capture& capture_;
    PacketDecoder decoder_;
    Processors processors_;
    CapturedPacket packet_;
    std::int64_t pieceSize_;
    std::atomic<std::int64_t> packets_ = 0;
    std::atomic<std::int64_t> bytesAhead_ = 0;
    std::int64_t packetsAhead_ = 0;
    bool isReadingAhead_ = false;
    bool hasOneProcessor_ = false;
    std::int64_t nextLook_ = 0;  // at whether reading ahead is worth it; a number of packets
    DecoderNotes notesAhead_;
    mutable DecoderNotes notes_;
};

}  // namespace sealscope
