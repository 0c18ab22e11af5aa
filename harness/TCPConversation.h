// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "harness/TLSSession.h"
#include "host/VELModels/TCPStream.h"

#include <cstdint>
#include <string_view>
#include <vector>

namespace sealscope {

/// An address and a port from text: `endpoint("192.0.2.1", 443)`, `endpoint("2001:db8::1", 443)`.
/// Throws std::invalid_argument when the text is no address.
TCPStreamKey::Endpoint endpoint(std::string_view address, std::uint16_t port);

/// One TCP segment to be: all that its packet will say, still free to be moved, doubled, cut or dropped.
struct PlannedSegment {
    std::int64_t time = 0;  ///< nanoseconds since 1970
    TCPSegment::Direction direction = TCPSegment::Direction::clientToServer;
    TCPStreamKey::Endpoint source;
    TCPStreamKey::Endpoint destination;
    std::uint32_t sequenceNumber = 0;
    std::uint32_t acknowledgmentNumber = 0;
    std::uint8_t flags = 0;  ///< as in the header: FIN 0x01, SYN 0x02, RST 0x04, PSH 0x08, ACK 0x10, URG 0x20 (RFC 9293 §3.1)
    std::uint16_t window = 64'240;
    std::uint16_t urgentPointer = 0;
    Data payload;
    std::int64_t snapLength = 0;      ///< captured bytes of the frame at most; 0: all
    std::int64_t fragmentLength = 0;  ///< IP payload bytes a fragment at most, a multiple of 8; 0: not fragmented
};

struct TCPConversationOptions {
    TCPStreamKey::Endpoint client = endpoint("192.0.2.1", 50'000);
    TCPStreamKey::Endpoint server = endpoint("192.0.2.2", 443);
    std::int64_t startTime = 1'700'000'000'000'000'000;  ///< nanoseconds since 1970
    std::int64_t interval = 1'000'000;                   ///< nanoseconds from segment to segment
    std::uint32_t clientISN = 1'000;                     ///< near 2^32 the sequence numbers wrap
    std::uint32_t serverISN = 2'000;
    std::int64_t segmentSize = 1'448;            ///< payload bytes at most
    std::int64_t segmentsPerAcknowledgment = 0;  ///< 0: one answer to all that is sent at once
    bool acknowledges = true;                    ///< the other side answers with empty ACKs
};

/// A TCP connection written down segment by segment as its two sides would send them.
class TCPConversation {
public:
    explicit TCPConversation(TCPConversationOptions options = {});

    std::vector<PlannedSegment> segments;

    /// The three segments of the TCP handshake; the client's SYN may carry data (RFC 7413).
    void open(const Data& synData = {});
    /// Segments share the bytes.
    void send(TCPSegment::Direction from, const Data& bytes);
    /// A flight that the other side answers with one of its own gets no empty ACK.
    void send(const std::vector<TLSFlight>& flights);
    /// Data with the URG flag, whose urgent pointer stands behind its last byte (RFC 9293 §3.8.5, RFC 6093).
    void sendUrgent(TCPSegment::Direction from, const Data& bytes);
    /// The sequence numbers go on as if bytes had been sent that no packet carries.
    void skip(TCPSegment::Direction from, std::int64_t count);
    void acknowledge(TCPSegment::Direction from, std::uint16_t window = 64'240);
    /// A byte that was already acknowledged, and the answer to it (RFC 9293 §3.8.4).
    void keepAlive(TCPSegment::Direction from);
    /// The other side closes its window, a probe brings the next byte and is refused, the window opens again (RFC 9293
    /// §3.8.6.1). The byte is to be sent again.
    void probeZeroWindow(TCPSegment::Direction from, std::uint8_t nextByte);
    /// FIN of the client, FIN of the server, and their acknowledgments.
    void close();
    void reset(TCPSegment::Direction from);

    std::uint32_t nextSequenceNumber(TCPSegment::Direction from) const { return side(from).next; }
    /// Lets time pass.
    void wait(std::int64_t nanoseconds) { time_ += nanoseconds; }

private:
    struct Side {
        std::uint32_t next = 0;  ///< sequence number of its next byte
    };
    Side& side(TCPSegment::Direction direction) { return sides_[direction == TCPSegment::Direction::clientToServer ? 0 : 1]; }
    const Side& side(TCPSegment::Direction direction) const { return sides_[direction == TCPSegment::Direction::clientToServer ? 0 : 1]; }
    /// Whether the last packet is acknowledged by one of its own.
    enum class LastAnswer : std::uint8_t { acknowledgment, none };
    void send(TCPSegment::Direction from, const Data& bytes, LastAnswer answer);
    PlannedSegment& add(TCPSegment::Direction from, std::uint8_t flags, Data payload);

    TCPConversationOptions options_;
    Side sides_[2];
    std::int64_t time_;
};

/// A whole connection: opened, the flights, closed.
std::vector<PlannedSegment> tcpSegments(const std::vector<TLSFlight>& flights, const TCPConversationOptions& options = {});

/// Several connections in one list, by time.
std::vector<PlannedSegment> merged(std::vector<std::vector<PlannedSegment>> conversations);

/// What may happen to segments on their way into a capture. Each share is the part, 0 to 1, of the segments with payload
/// that it happens to.
struct Disorder {
    double reordered = 0;      ///< captured up to `reach` places later
    double retransmitted = 0;  ///< captured twice, with the same bytes
    double overlapping = 0;    ///< a further segment has its second half and the first half of the one behind it
    double contradicting = 0;  ///< captured again later, with other bytes
    double lost = 0;           ///< not captured; nothing else happens to it
    int reach = 8;
    std::uint64_t seed = 1;
};

/// Brings disorder into segments; times stay those of the places. Returns what was lost.
std::vector<PlannedSegment> disturb(std::vector<PlannedSegment>& segments, const Disorder& disorder);

/// The same list back to front, times staying in place.
void reverse(std::vector<PlannedSegment>& segments);

}  // namespace sealscope
