// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/capture/Capture.h"
#include "app/capture/PacketDecoder.h"
#include "app/capture/SegmentScan.h"
#include "app/session/SessionPlugIns.h"
#include "host/VELModels/TCPStream.h"

#include <array>
#include <cstdint>
#include <expected>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

namespace sealscope {

struct SessionOptions {
    std::vector<std::string> files;
    std::string filter;
    std::int64_t maximumPackets = -1;
    bool keepsEveryBlock = false;  ///< see `CaptureOptions`; for who copies the capture
    /// Key logs that take the place of the user's.
    std::vector<std::string> keyLogs;
    /// Of servers, beside the key logs.
    std::vector<PrivateKey> privateKeys;
    /// That these open, of 2048 bits; see `KeyLogSources`. Without it a number that goes with the size of the capture.
    std::optional<std::int64_t> mostKeyExchanges;
    PlugInOptions plugIns;

    // For who takes a large capture apart and opens it piece by piece.
    /// Stand in for the key logs, and for what the capture carries.
    std::shared_ptr<const KeyLogSources> secrets;
    /// Asked for each segment; those that it is false for are left out.
    std::function<bool(const CapturedPacket&, const TCPPacket&)> admits;

    /// Called now and then while the capture is indexed, with bytes read and bytes in all (negative when unknown).
    std::function<void(std::int64_t, std::int64_t)> progress;
    /// Ends the indexing early with what was seen.
    std::stop_token stop;
};

/// One TCP connection, as far as it is known without its bytes.
struct StreamSummary {
    std::int64_t number = 0;
    TCPStreamKey::Endpoint client;
    TCPStreamKey::Endpoint server;
    std::int64_t clientBytes = 0;  ///< size of the direction's reassembled data, lost bytes included
    std::int64_t serverBytes = 0;
    std::int64_t missingBytes = 0;  ///< of both directions: bytes that no packet carried, filled with zeros
    double startTime = 0;           ///< seconds since 1970
    double endTime = 0;
    std::int64_t packets = 0;
    std::int64_t contradictingBytes = 0;  ///< retransmitted with other content; the first copy stands
    std::int64_t restarts = 0;            ///< jumps in a direction's sequence numbers that are no plausible loss
    bool hasSYN = false;                  ///< false: the capture begins in mid-connection
};

/// One opened capture with its packets and streams: the one way in for every program. Streams are indexed in one pass
/// and assembled only when they are looked at. After `open` any thread may call anything.
class Session {
public:
    /// Indexes the capture. Fails when nothing could be read; damage further on is in `errors()`.
    static std::expected<std::unique_ptr<Session>, CaptureError> open(SessionOptions options);
    /// Indexes one that is open, with random access; the options that say how to open it do not count.
    static std::unique_ptr<Session> open(std::shared_ptr<Capture> capture, const SessionOptions& options);
    ~Session();

    /// The same capture with other key logs in the place of the user's, without reading it anew. Both may be used side by side.
    std::unique_ptr<Session> withKeyLogs(std::vector<std::string> keyLogs) const;
    /// The same as a part of a larger capture: these secrets in place of all others, and numbers of packets that count on from those
    /// before.
    std::unique_ptr<Session> asPart(std::shared_ptr<const KeyLogSources> secrets, std::int64_t packetsBefore) const;
    /// That the capture carries, as a key log.
    const SecretText& embeddedKeyLog() const;

    std::int64_t packetCount() const;
    std::int64_t streamCount() const;
    /// Packets of a stream: what is known of its size before it is assembled.
    std::int64_t packets(std::int64_t stream) const;
    /// About how many bytes of memory it takes to interpret a stream, of one that is not large; see `inOrder`.
    std::int64_t weight(std::int64_t stream) const;
    StreamSummary summary(std::int64_t stream) const;
    /// Of a stream; which of them is the client, its summary tells.
    const std::array<TCPStreamKey::Endpoint, 2>& endpoints(std::int64_t stream) const;
    /// The number of a stream's first packet.
    std::int64_t firstPacket(std::int64_t stream) const;
    /// Of a stream's earliest packet, in seconds since 1970.
    double startTime(std::int64_t stream) const;
    /// The stream between two endpoints that has a packet; nothing when none has.
    std::optional<std::int64_t> streamOf(std::int64_t packet, const TCPStreamKey::Endpoint& one, const TCPStreamKey::Endpoint& other) const;
    /// The reassembled connection. Its bytes stay where the capture has them; it may outlive the session.
    TCPStream stream(std::int64_t stream) const;

    /// The plug-ins as this session uses them, with its secrets.
    const SessionPlugIns& plugIns() const;

    const std::vector<CaptureError>& errors() const;
    const DecoderNotes& notes() const;
    /// The files behind it, read with random access.
    const Capture& capture() const;

    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

private:
    class Implementation;
    explicit Session(std::unique_ptr<Implementation> implementation);
    std::unique_ptr<Implementation> implementation_;
};

}  // namespace sealscope
