// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/session/LiveSession.h"
#include "app/streams/GrowingDirection.h"
#include "host/VELModels/StreamFollowing.h"

#include <array>
#include <chrono>
#include <list>
#include <memory>
#include <optional>

namespace sealscope {

/// One connection of a live session: its bytes, what opens them, and who reads them.
class LiveConnection {
public:
    /// `first` is its first packet.
    LiveConnection(std::int64_t number, const TCPPacket& first);

    /// Whether a packet opens another connection between the same endpoints.
    bool isBegunAnewBy(const TCPPacket& packet) const;
    void add(const TCPPacket& packet, std::int64_t packetNumber, double time);
    /// Nothing more comes.
    void end();
    bool hasEnded() const { return hasEnded_; }
    bool waitsForSecrets() const { return state_ == State::secured && !(readers_[0] && readers_[1]); }
    std::int64_t held() const;

    /// Whether more secrets may come: a key log that grows may hold those of one side alone for a moment.
    enum class Secrets : std::uint8_t { mayCome, areAll };
    /// Reads what has come, and lets go of what is done with.
    void read(const SessionPlugIns& plugIns, bool hasNewSecrets, Secrets secrets, std::int64_t mostHeld, const LiveSession::Take& take);

    std::array<TCPStreamKey::Endpoint, 2> endpoints;  ///< the client's, the server's
    std::list<std::unique_ptr<LiveConnection>>::iterator place;
    bool isMarked = false;
    std::optional<std::chrono::steady_clock::time_point> endSeen;

private:
    using Direction = TCPSegment::Direction;
    enum class State : std::uint8_t {
        unknown,
        secured,
        open,
        ignored,  ///< nobody knows what it is, or it is done with
    };
    static constexpr std::array directions{Direction::clientToServer, Direction::serverToClient};
    static std::size_t positionOf(Direction direction) { return direction == Direction::clientToServer ? 0 : 1; }

    TCPStream captured() const;
    TCPStream plaintext() const;
    void findInterpreter(const SessionPlugIns& plugIns);
    void openRecords(const SessionPlugIns& plugIns, bool hasNewSecrets);
    void findReaders(const SessionPlugIns& plugIns, const TCPStream& stream);
    void follow(const TCPStream& stream, const LiveSession::Take& take);
    void ignore();
    void letGo(std::int64_t mostHeld);

    std::int64_t number_;
    std::array<GrowingDirection, 2> sides_;
    std::uint32_t clientISN_ = 0, serverISN_ = 0;
    bool hasSYN_ = false, hasData_ = false;
    double startTime_ = 0, endTime_ = 0;
    bool hasEnded_ = false;  ///< nothing more comes

    State state_ = State::unknown;
    std::array<std::unique_ptr<PlaintextReader>, 2> readers_;
    std::array<std::shared_ptr<GrowingBytes>, 2> plaintext_;
    std::array<std::int64_t, 2> readUpTo_{};  ///< of captured bytes: where the last record begins that was opened
    std::array<std::int64_t, 2> triedAt_{};   ///< bytes that were there when readers were looked for last
    const VELStreamInterpreting* interpreter_ = nullptr;
    std::unique_ptr<StreamFollowing> following_;
};

}  // namespace sealscope
