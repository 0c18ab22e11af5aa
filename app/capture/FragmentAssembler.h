// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/capture/CapturedPacket.h"

#include <array>
#include <compare>
#include <cstdint>
#include <cstring>
#include <list>
#include <map>
#include <optional>
#include <utility>
#include <vector>

namespace sealscope {

/// What the fragments of one datagram have in common (RFC 791 §3.2, RFC 8200 §4.5).
struct DatagramKey {
    std::array<std::uint8_t, 16> source{};
    std::array<std::uint8_t, 16> destination{};
    std::uint32_t identification = 0;
    std::uint8_t protocol = 0;  ///< of IPv4; IPv6 tells datagrams apart without it
    bool isIPv6 = false;
    bool operator==(const DatagramKey&) const = default;
    /// Some order; what tells most datagrams apart comes first.
    std::strong_ordering operator<=>(const DatagramKey& other) const
    {
        if (identification != other.identification) return identification <=> other.identification;
        if (const int order = std::memcmp(source.data(), other.source.data(), source.size()); order != 0) return order <=> 0;
        if (const int order = std::memcmp(destination.data(), other.destination.data(), destination.size()); order != 0) return order <=> 0;
        return std::pair(protocol, isIPv6) <=> std::pair(other.protocol, other.isIPv6);
    }
};

/// One fragment's part of the datagram's payload.
struct Fragment {
    DataView bytes;           ///< as captured
    std::int64_t length = 0;  ///< on the wire
    std::int64_t offset = 0;  ///< a multiple of 8
    bool isLast = false;
    std::uint8_t protocol = 0;  ///< what the first fragment says the payload is
};

/// A datagram's payload put together.
struct Datagram {
    std::vector<std::uint8_t> bytes;  ///< up to the first byte that the snapshot length cut
    std::int64_t length = 0;          ///< on the wire
    std::uint8_t protocol = 0;
};

/// Puts datagrams together from fragments in any order. The first copy of a byte wins. What it waits for is bounded in number,
/// bytes and time; beyond that the oldest is given up.
class FragmentAssembler {
public:
    static constexpr std::size_t mostDatagrams = 4'096;
    static constexpr std::int64_t mostBytes = 8 << 20;
    static constexpr std::int64_t patience = 60;  ///< seconds (RFC 8200 §4.5; RFC 1122 §3.3.2 gives 60 to 120)

    /// Whether giving a datagram up is worth telling.
    enum class WhenLost : std::uint8_t { isCounted, isIgnored };

    /// Takes a fragment that arrived at `seconds` since 1970; the datagram when it was the last one missing.
    std::optional<Datagram> add(const DatagramKey& key, const Fragment& fragment, std::int64_t seconds, WhenLost whenLost);

    /// Datagrams that were given up or still wait.
    std::int64_t incompleteCount() const;

private:
    static constexpr std::int64_t unit = 8;  // offsets count these
    static constexpr std::size_t words = 65'536 / unit / 64;

    /// Bytes that a fragment brought first.
    struct Piece {
        std::int64_t offset = 0;  ///< in the datagram
        std::int64_t place = 0;   ///< in `Pending::bytes`
        std::int64_t size = 0;
    };
    struct Pending {
        DatagramKey key;
        std::vector<std::uint8_t> bytes;  // as they came, so that nothing is held for what is missing
        std::vector<Piece> pieces;
        std::array<std::uint64_t, words> arrived{};  // a bit for each unit
        std::int64_t unitsArrived = 0;
        std::int64_t length = -1;  // unknown until the last fragment comes
        std::int64_t cutAt = std::int64_t{1} << 32;
        std::int64_t seconds = 0;
        std::uint8_t protocol = 0;
        bool countsWhenLost = false;

        std::int64_t held() const { return static_cast<std::int64_t>(bytes.capacity() + pieces.capacity() * sizeof(Piece)); }
    };
    using Position = std::list<Pending>::iterator;

    static void take(Pending& pending, const Fragment& fragment);
    static Datagram joined(const Pending& pending);
    void giveUp(Position position);
    void forget(Position position);

    std::list<Pending> pending_;  // oldest first
    // Ordered, since whoever writes the capture chooses the keys and could make them collide in a hash table.
    std::map<DatagramKey, Position> known_;
    std::int64_t bytesHeld_ = 0;
    std::int64_t givenUp_ = 0;
};

}  // namespace sealscope
