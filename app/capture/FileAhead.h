// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/capture/CaptureFile.h"
#include "app/capture/CapturedPacket.h"

#include <cstddef>
#include <cstdint>
#include <memory>

namespace sealscope {

/// Packets that follow each other in one file.
struct PacketStretch {
    std::int64_t begin = -1;  ///< offset of the first; negative when none was found
    std::int64_t end = -1;    ///< offset behind the last
    std::int64_t packets = 0;
};

/// A capture file as threads see it that read ahead of the one that reads in order. Where a packet begins in the middle of a file can
/// only be guessed; a stretch counts when the reading in order arrives at just its first offset, for then it would read the same.
struct FileAhead {
    std::shared_ptr<const CaptureFile> file;  ///< that readers are made of
    std::size_t position = 0;                 ///< among the capture's files
    CaptureAddress base = 0;                  ///< address of its first byte
    std::int64_t offset = 0;                  ///< where the reading in order is
    std::int64_t size = 0;                    ///< bytes
    std::int64_t generation = 0;              ///< of `CaptureFile`
};

/// Reads a stretch of packets ahead of their turn: those that begin between two offsets.
class StretchReader {
public:
    /// `file` outlives it.
    StretchReader(const FileAhead& file, std::int64_t from, std::int64_t to);

    /// Goes to the next place at which a packet seems to begin; false when there is none.
    bool find();
    /// Goes to the place where the reading in order is.
    void begin() { start(from_); }
    /// The next packet from there on, without its number. False behind the last one, and where only reading in order can tell.
    bool next(CapturedPacket& packet);
    /// True when it went on long enough that its beginning is likely a packet's.
    bool isLikely() const { return stretch_.end >= to_ || stretch_.packets >= 8; }
    const PacketStretch& stretch() const { return stretch_; }

private:
    void start(std::int64_t offset);

    const FileAhead& ahead_;
    std::int64_t from_;
    std::int64_t to_;
    std::unique_ptr<CaptureFile> file_;
    PacketStretch stretch_;
};

}  // namespace sealscope
