// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/capture/PacketDecoder.h"
#include "app/streams/SegmentList.h"
#include "host/VELModels/TCPStream.h"

#include <absl/container/flat_hash_set.h>
#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>

namespace sealscope {

/// How far the receiver has acknowledged one direction's bytes.
struct Acknowledged {
    std::uint32_t reference = 0;  ///< a sequence number of the direction's beginning
    std::int64_t highest = 0;     ///< the highest acknowledgment number, counted from `reference`; does not wrap
};

/// One direction of a connection, as its packets have shown it so far.
struct ConnectionSide {
    SegmentList segments;
    Acknowledged acknowledged;                ///< its reference counts from the first packet that shows a sequence number
    std::uint32_t initialSequenceNumber = 0;  ///< of its SYN
    std::uint32_t lowest = 0;                 ///< lowest sequence number sent, that of the SYN apart
    std::uint32_t next = 0;                   ///< what follows the highest sequence number sent
    bool hasSYN = false;
    bool hasFIN = false;
    bool endsWithFIN = false;     ///< the number before `next` is that of a FIN
    bool hasSent = false;         ///< `lowest` and `next` are known
    bool hasReference = false;    ///< `acknowledged.reference` is known
    bool isAcknowledged = false;  ///< `acknowledged.highest` is known
};

/// The beginning of a TLS Client Hello: a handshake record of any version, and in it a handshake message of type 1 with a
/// version of its own (RFC 8446 §4.1.2, §5.1); what lies behind the bytes at hand may be anything.
/// Streams are no place to know a protocol above TCP. This one fact is here because it tells who the client is where the
/// capture missed the SYN, and everything that shows a direction depends on that.
bool looksLikeClientHello(DataView bytes);
/// As many bytes as `looksLikeClientHello` looks at.
inline constexpr std::int64_t clientHelloBytes = 11;

/// Two endpoints and what they sent each other.
struct Connection {
    /// What tells the client from the server, the weakest first.
    enum class Evidence : std::uint8_t { higherPort, clientHello, SYN };

    std::array<TCPStreamKey::Endpoint, 2> endpoints;  ///< the lower one first
    std::array<ConnectionSide, 2> sides;              ///< what the endpoint at the same position sent
    double startTime = 0;                             ///< earliest packet, seconds since 1970
    double endTime = 0;                               ///< latest packet
    std::uint8_t client = 0;                          ///< position of the client among the endpoints
    Evidence clientEvidence = Evidence::higherPort;
    bool isClosed = false;  ///< a FIN or RST was seen
    bool hasData = false;
    bool isOver = false;  ///< a RST or both FINs were seen, after a SYN and data

    std::int64_t packets() const { return std::int64_t{sides[0].segments.size()} + sides[1].segments.size(); }
    std::optional<Acknowledged> acknowledged(std::size_t side) const
    {
        return sides[side].isAcknowledged ? std::optional(sides[side].acknowledged) : std::nullopt;
    }
};

/// All TCP connections of a capture, numbered from 0 in order of their first packets: made in one pass over the packets, which
/// keeps 32 bytes of each and none of its payload. Filled by one thread; then any thread may read it.
class ConnectionIndex {
public:
    ConnectionIndex();
    /// Takes the next packet in capture order.
    void add(const TCPPacket& packet, std::int64_t packetNumber, double time);

    /// Makes the endpoint at a position of a connection's endpoints its client, because of a Client Hello that it sent; a SYN
    /// would tell better.
    void setClient(std::int64_t number, std::uint8_t position);

    std::int64_t size() const { return static_cast<std::int64_t>(connections_.size()); }
    const Connection& operator[](std::int64_t number) const { return connections_[static_cast<std::size_t>(number)]; }

    ConnectionIndex(const ConnectionIndex&) = delete;
    ConnectionIndex& operator=(const ConnectionIndex&) = delete;

private:
    using Endpoints = std::array<TCPStreamKey::Endpoint, 2>;
    /// Entry of the set of current connections: the endpoints stand in the connection alone, their hash also here, so that the
    /// set grows without a look at them.
    struct Entry {
        std::uint32_t number = 0;
        std::uint32_t hash = 0;
    };
    struct Key {
        const Endpoints& endpoints;
        std::uint32_t hash = 0;
    };
    struct Hash {
        using is_transparent = void;
        std::size_t operator()(const auto& key) const { return key.hash * 0x9E37'79B9'7F4A'7C15U; }
    };
    struct Equal {
        using is_transparent = void;
        const std::deque<Connection>* connections = nullptr;
        bool operator()(const Entry& a, const Entry& b) const { return a.number == b.number; }
        bool operator()(const Entry& entry, const Key& key) const
        {
            return entry.hash == key.hash && (*connections)[entry.number].endpoints == key.endpoints;
        }
        bool operator()(const Key& key, const Entry& entry) const { return (*this)(entry, key); }
    };

    /// Makes a packet's connection the latest one, starts it when there is none; returns the sender's position among the endpoints.
    std::size_t moveTo(const TCPPacket& packet, double time);
    void start(const Key& key, std::size_t sender, double time);

    SegmentArena arena_;
    std::deque<Connection> connections_;
    absl::flat_hash_set<Entry, Hash, Equal> current_;  ///< the latest connection between each two endpoints
    std::uint32_t latest_ = 0;                         ///< connection of the packet before
};

}  // namespace sealscope
