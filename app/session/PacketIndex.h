// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/capture/Capture.h"
#include "app/capture/PacketDecoder.h"
#include "app/session/GrowingList.h"
#include "app/session/PacketAnalyzers.h"
#include "app/session/PacketRowReader.h"

#include <absl/container/flat_hash_map.h>
#include <cstdint>
#include <expected>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <utility>
#include <vector>

namespace sealscope {

/// What is kept of one packet so that its row can be made at any time: 32 bytes.
struct PacketEntry {
    static constexpr std::uint8_t unrecognized = 0xFF;

    double time = 0;                     ///< seconds since 1970
    CaptureAddress payloadAddress = 0;   ///< of its TCP payload
    std::uint32_t payloadLength = 0;     ///< bytes that the capture holds of it
    std::uint32_t length = 0;            ///< of the whole packet on the wire
    std::uint32_t path = 0;              ///< which endpoints; for the index alone
    std::uint8_t plugIn = unrecognized;  ///< position of the plug-in whose analyzer accepts the payload, or `unrecognized`
    bool isTCP = false;
};
static_assert(sizeof(PacketEntry) == 32);

/// A packet on which a plug-in failed.
struct PlugInFailure {
    std::int64_t packet = 0;
    std::string reason;  ///< in the plug-in's words
    /// "packet 7: a plug-in failed: …"
    std::string text(const SentenceReader& reader = {}) const;
};

/// The packets of a capture, each reachable by its number. One thread reads the capture; any thread asks for what was read so far.
class PacketIndex {
public:
    /// Opens the capture; nothing is read yet.
    static std::expected<std::shared_ptr<PacketIndex>, CaptureError> open(const std::vector<std::string>& files, std::stop_token stop);

    /// Reads at most so many packets more; false at the end.
    bool read(std::int64_t packets);
    std::int64_t bytesRead() const { return capture_->bytesRead(); }
    std::int64_t bytesTotal() const { return capture_->bytesTotal(); }
    /// To be asked when all was read.
    const std::vector<CaptureError>& errors() const { return capture_->errors(); }
    const DecoderNotes& notes() const { return decoder_.notes(); }
    /// The first packet on which a plug-in failed; nothing when none did.
    const std::optional<PlugInFailure>& plugInFailure() const { return plugInFailure_; }

    /// Packets that were read. Packet N stands at position N - 1.
    std::int64_t size() const { return entries_.size(); }
    const PacketEntry& operator[](std::int64_t position) const { return entries_[position]; }
    /// The packet's row, without a match where no plug-in recognizes it; its payload is lent by the index.
    PacketRow row(std::int64_t position) const;

    const PacketAnalyzers& analyzers() const { return analyzers_; }
    const Capture& capture() const { return *capture_; }

    PacketIndex(const PacketIndex&) = delete;
    PacketIndex& operator=(const PacketIndex&) = delete;

private:
    using Path = std::pair<TCPStreamKey::Endpoint, TCPStreamKey::Endpoint>;
    struct PathHash {
        std::size_t operator()(const Path& path) const;
    };

    explicit PacketIndex(std::shared_ptr<Capture> capture);
    std::uint32_t pathOf(const TCPPacket& segment);
    /// The position of the plug-in that accepts a payload; one that fails on it counts as one that does not.
    std::uint8_t recognize(DataView payload, std::int64_t packet);

    std::shared_ptr<Capture> capture_;
    PacketAnalyzers analyzers_;
    PacketDecoder decoder_;
    CapturedPacket packet_;
    TCPPacket segment_;
    std::optional<PlugInFailure> plugInFailure_;
    GrowingList<PacketEntry> entries_;
    GrowingList<Path> paths_;
    absl::flat_hash_map<Path, std::uint32_t, PathHash> pathNumbers_;
};

}  // namespace sealscope
