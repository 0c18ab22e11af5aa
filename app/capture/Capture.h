// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/capture/CaptureError.h"
#include "app/capture/CapturedPacket.h"
#include "app/capture/FileAhead.h"
#include "platform/SecretMemory.h"

#include <cstdint>
#include <expected>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

namespace sealscope {

struct CaptureOptions {
    /// Keep every byte reachable through `Capture::bytes` after its packet was read. Files that cannot be mapped (pipes,
    /// compressed files) are then spooled to an unlinked temporary file as they are read; without it one pass needs no spool.
    bool randomAccess = false;
    /// With random access: also what is no packet, so that `fileBytes` gives a file whole. Else long blocks of other kinds may read
    /// as zeros there.
    bool keepsEveryBlock = false;
    /// A capture filter in the pcap-filter language; empty for none. Packets that it rejects keep their numbers and are not
    /// handed out.
    std::string filter;
    std::int64_t maximumPackets = -1;  ///< stop after so many packets that pass the filter; negative for no limit
    std::stop_token stop;              ///< ends the capture early, wherever its reading is
};

/// One or more capture files read as one capture: in order of their first packets' times, packet numbers running on.
/// Read by one thread; `bytes` may be called from any thread.
class Capture {
public:
    /// Opens the files ("-" is standard input), of which there must be one at least. Fails when none of them can be read at
    /// all, or the filter does not compile (the error then names no file). One of several that cannot be read is passed
    /// over and told in `errors`.
    static std::expected<std::unique_ptr<Capture>, CaptureError> open(const std::vector<std::string>& files, CaptureOptions options);
    virtual ~Capture() = default;

    /// The next packet; false at the end of the last file. Damage ends its file, not the capture.
    virtual bool next(CapturedPacket& packet) = 0;
    // For who reads a file on several threads, as `SegmentScan` does: one of them reads in order, the others ahead of it.

    /// A place in the capture's files.
    struct Place {
        std::size_t file = 0;
        std::int64_t offset = 0;      ///< in the uncompressed file
        std::int64_t generation = 0;  ///< see `CaptureFile`
        bool operator==(const Place&) const = default;
    };
    /// True where frames stay as long as the file that is being read, and may be read by `nextOfFile`.
    virtual bool keepsFrames() const { return false; }
    /// Where `next` goes on.
    virtual Place place() const { return {}; }
    /// The file that is being read, for threads that read ahead; see `FileAhead`. Nothing where its packets can only be read in order.
    virtual std::optional<FileAhead> ahead() { return std::nullopt; }
    /// Counts packets that were read ahead, and goes on behind them. False, and nothing happened, when the reading in order did not
    /// arrive at the place at which they begin, or would have read them differently.
    virtual bool accept(const FileAhead& /*file*/, const PacketStretch& /*stretch*/) { return false; }
    /// As `next`, but false at the end of the file that is being read, which `next` then leaves. Where frames stay.
    virtual bool nextOfFile(CapturedPacket& /*packet*/) { return false; }

    /// The files in capture order, as the user named them; `CapturedPacket::file` counts these.
    virtual const std::vector<std::string>& files() const = 0;
    /// Files that were not read to their end or have damaged places, and why; complete when `next` has returned false.
    virtual const std::vector<CaptureError>& errors() const = 0;

    /// `count` bytes at an address, cut to what is there. Needs random access.
    virtual DataView bytes(CaptureAddress address, std::int64_t count) const = 0;
    /// All bytes of a file, uncompressed, as far as it was read. Needs random access.
    virtual DataView fileBytes(std::size_t) const { return {}; }
    /// The length of all files.
    std::int64_t bytesOfFiles() const
    {
        std::int64_t bytes = 0;
        for (std::size_t file = 0; file < files().size(); ++file) bytes += fileBytes(file).size();
        return bytes;
    }
    /// Says that nobody will look at these bytes of a file soon: they leave this process's memory, and come back when touched.
    virtual void letGo(std::size_t /*file*/, std::int64_t /*offset*/, std::int64_t /*count*/) const {}
    /// Keeps bytes that lie in no file, such as a datagram put together from fragments; returns their address. Negative when
    /// there is no room left for them; the reason is then among the errors.
    virtual CaptureAddress keep(DataView bytes) = 0;

    /// Files that became shorter, or could not be read, when `bytes` or `fileBytes` looked at them again; what is missing reads
    /// as zeros. To be asked when all is done, since nobody knows before. Of damage met in reading only `errors` tells.
    virtual std::vector<CaptureError> lostFiles() const { return {}; }
    /// True for a file that `lostFiles` would tell of now.
    virtual bool isLost(std::size_t) const { return false; }

    /// TLS key log text of the decryption secrets blocks read since it was taken last, in capture order, each block's lines whole.
    virtual SecretText takeEmbeddedKeyLog() = 0;

    /// What was read so far, packets that the filter rejects included.
    struct Extent {
        std::optional<CaptureTime> first;  ///< of the first packet
        std::int64_t packets = 0;
    };
    virtual Extent extent() const { return {}; }
    virtual std::int64_t bytesRead() const = 0;
    /// Size of all files in bytes as stored; negative when one of them is a pipe. For progress only.
    virtual std::int64_t bytesTotal() const = 0;
};

}  // namespace sealscope
