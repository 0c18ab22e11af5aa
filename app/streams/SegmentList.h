// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/capture/CapturedPacket.h"
#include "app/capture/PacketDecoder.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <span>
#include <vector>

namespace sealscope {

/// What the index keeps of one TCP segment. There is one for each TCP packet of a capture, so its 32 bytes are what a packet
/// costs; the bytes themselves stay in the capture.
struct SegmentRecord {
    static constexpr std::int64_t maximumLength = (1 << 24) - 1;  ///< longer payloads count as cut here
    /// In `flags`: a keep-alive, whose one byte is no data (RFC 9293 §3.8.4).
    static constexpr std::uint8_t keepAlive = 0x40;

    CaptureAddress address = 0;        ///< of the payload's first byte
    double time = 0;                   ///< seconds since 1970
    std::uint32_t sequenceNumber = 0;  ///< as it stands in the header
    std::uint32_t packetLow = 0;       ///< packet number, lower 32 bits
    std::uint64_t packetHigh : 8 = 0;  ///< packet number, the bits above
    std::uint64_t flags : 8 = 0;       ///< of the header, see TCPFlag, and `keepAlive`
    std::uint64_t captured : 24 = 0;   ///< payload bytes that the capture holds
    std::uint64_t length : 24 = 0;     ///< payload bytes on the wire

    std::int64_t packetNumber() const { return static_cast<std::int64_t>(std::uint64_t{packetHigh} << 32 | packetLow); }
    bool isSYN() const { return (flags & (TCPFlag::syn | TCPFlag::rst)) == TCPFlag::syn; }
    /// The sequence number of the payload's first byte: a SYN takes one before it (RFC 9293 §3.4).
    std::uint32_t dataNumber() const { return sequenceNumber + (isSYN() ? 1 : 0); }
    /// False for a payload that is no part of the stream: what explains a reset (RFC 9293 §3.10.7), or a keep-alive's garbage.
    bool carriesData() const { return length != 0 && (flags & (TCPFlag::rst | keepAlive)) == 0; }
    /// True for a lone byte that is not pushed: it may repeat one that was sent before with something else in its place, which
    /// contradicts nothing (RFC 9293 §3.8.4).
    bool mayRepeatAnything() const { return length == 1 && (flags & TCPFlag::psh) == 0; }
    /// Stream bytes that the capture holds of it.
    std::int64_t capturedData() const { return carriesData() ? static_cast<std::int64_t>(captured) : 0; }
};
static_assert(sizeof(SegmentRecord) == 32);

/// Memory for what is kept until the whole index goes: handed out front to back from slabs, never moved, freed at once.
class SegmentArena {
public:
    /// At most 64 KiB at a time.
    void* allocate(std::size_t size);

private:
    /// The first is small. The others are huge pages where the system has them: entering a page costs as much as indexing five
    /// packets, and a huge page is entered in one go.
    static constexpr std::size_t firstSlab = std::size_t{1} << 17, slabSize = std::size_t{1} << 21;
    struct Free {
        void operator()(std::byte* slab) const { std::free(slab); }
    };
    std::vector<std::unique_ptr<std::byte[], Free>> slabs_;
    std::byte* next_ = nullptr;
    std::size_t left_ = 0;
};

/// One direction's segments in capture order: grows at its end and never moves, in chunks that start at four records and
/// double with every other one, up to 512. A short connection takes little, a long one wastes little.
class SegmentList {
public:
    void append(const SegmentRecord& record, SegmentArena& arena);
    std::uint32_t size() const { return size_; }

private:
    friend class SegmentTable;
    struct Chunk;
    Chunk* first_ = nullptr;
    Chunk* last_ = nullptr;
    std::uint32_t size_ = 0;
};

/// Random access to a `SegmentList` that no longer grows; 8 bytes a chunk. Outlived by the list and its arena.
class SegmentTable {
public:
    SegmentTable() = default;
    explicit SegmentTable(const SegmentList& list);
    std::uint32_t size() const { return size_; }
    const SegmentRecord& operator[](std::uint32_t position) const;
    /// The record at a position and those after it that lie in one place with it; at least one.
    std::span<const SegmentRecord> chunkFrom(std::uint32_t position) const;

private:
    std::vector<const SegmentRecord*> chunks_;
    std::uint32_t size_ = 0;
};

}  // namespace sealscope
