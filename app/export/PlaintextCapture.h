// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/capture/SpoolFile.h"
#include "host/VELModels/TCPStream.h"
#include "platform/OutputFile.h"

#include <cstdint>
#include <deque>
#include <expected>
#include <memory>
#include <mutex>
#include <stop_token>
#include <string>
#include <utility>
#include <vector>

namespace sealscope {

/// Writes decrypted streams as a capture: each as a TCP connection without TLS between the original endpoints, with handshake
/// and teardown, a segment for each record at the time of the packet that carried it, and correct checksums. A capture is in
/// the order of time and streams open one by one, so the plaintext waits in a temporary file until all of it is there.
class PlaintextCapture {
    /// A place in the order of the capture.
    struct Moment {
        std::int64_t microseconds = 0;  ///< since 1970
        std::int64_t packet = 0;        ///< of the original capture
        auto operator<=>(const Moment&) const = default;
    };
    struct Segment {
        Moment moment;
        std::int64_t offset = 0;  ///< of its bytes in the temporary file
        std::uint32_t length = 0;  ///< 0 where sequence numbers pass over bytes
        std::uint32_t passed = 0;  ///< so many
        std::uint32_t connection = 0;
        TCPSegment::Direction direction = TCPSegment::Direction::clientToServer;
    };
    struct Connection {
        TCPStreamKey::Endpoint client;
        TCPStreamKey::Endpoint server;
        std::uint32_t clientNext = 0;  ///< sequence numbers
        std::uint32_t serverNext = 0;
        Moment start;
        Moment end;
        std::int64_t number = 0;  ///< of the stream
    };

public:
    /// The temporary file goes into `folder`, and has no name there.
    static std::expected<std::unique_ptr<PlaintextCapture>, SpoolError> create(const std::string& folder);

    /// Announces a stream; the number is for its directions. Any thread may call it.
    std::uint32_t addConnection(const TCPStream& stream);

    /// Takes the plaintext of one direction, record by record. Used by one thread; several directions may be open at once.
    class Direction {
    public:
        Direction(PlaintextCapture& capture, std::uint32_t connection, TCPSegment::Direction direction)
            : capture_(capture), connection_(connection), direction_(direction)
        {}
        ~Direction() { putDown(); }
        /// `location` is that of the record.
        void add(DataView plaintext, const ByteLocation& location);
        /// In place of what was lost: zeros, and bytes that sequence numbers pass over without any packet.
        void addGap(std::int64_t zeros, std::int64_t passed);
        Direction(const Direction&) = delete;
        Direction& operator=(const Direction&) = delete;

    private:
        void putDown();

        PlaintextCapture& capture_;
        std::uint32_t connection_;
        TCPSegment::Direction direction_;
        Moment last_;
        std::vector<std::uint8_t> bytes_;
        std::vector<Segment> segments_;  ///< of `bytes_`, with offsets in there
    };

    /// Writes everything; once it is to stop, what half a second is enough for. Fails with what was wrong with the temporary file; how
    /// writing went the file tells.
    std::expected<void, SpoolError> write(OutputFile& file, const std::stop_token& stop);

    PlaintextCapture(const PlaintextCapture&) = delete;
    PlaintextCapture& operator=(const PlaintextCapture&) = delete;

private:
    explicit PlaintextCapture(std::unique_ptr<SpoolFile> spool) : spool_(std::move(spool)) {}

    std::mutex mutex_;  ///< guards what follows
    std::unique_ptr<SpoolFile> spool_;
    std::expected<void, SpoolError> spooled_;  ///< how putting things into the temporary file went
    std::vector<Connection> connections_;
    std::deque<Segment> segments_;  ///< grows without being copied
};

}  // namespace sealscope
