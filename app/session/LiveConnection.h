// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/session/LiveSession.h"
#include "app/session/LiveStream.h"
#include "app/streams/GrowingDirection.h"

#include <array>
#include <chrono>
#include <list>
#include <memory>
#include <optional>

namespace sealscope {

/// One connection of a live session: its bytes, and who reads them.
class LiveConnection {
public:
    /// `first` is its first packet. Outlived by the plug-ins.
    LiveConnection(const SessionPlugIns& plugIns, std::int64_t number, const TCPPacket& first);

    /// Whether a packet opens another connection between the same endpoints.
    bool isBegunAnewBy(const TCPPacket& packet) const;
    void add(const TCPPacket& packet, std::int64_t packetNumber, double time);
    /// Nothing more comes.
    void end();
    bool hasEnded() const { return hasEnded_; }
    bool waitsForSecrets() const { return reading_.waits(); }
    std::int64_t held() const;

    /// Whether more secrets may come: a key log that grows may hold those of one side alone for a moment.
    enum class Secrets : std::uint8_t { mayCome, areAll };
    /// Reads what has come, and lets go of what is done with.
    void read(Secrets secrets, std::int64_t mostHeld, const LiveSession::Take& take);

    std::array<TCPStreamKey::Endpoint, 2> endpoints;  ///< the client's, the server's
    std::list<std::unique_ptr<LiveConnection>>::iterator place;
    bool isMarked = false;
    std::optional<std::chrono::steady_clock::time_point> endSeen;

private:
    TCPStream captured() const;
    void goOn(StreamExtent extent, const LiveSession::Take& take);
    void letGo(std::int64_t mostHeld);

    std::int64_t number_;
    std::array<GrowingDirection, 2> sides_;
    std::uint32_t clientISN_ = 0, serverISN_ = 0;
    bool hasSYN_ = false, hasData_ = false;
    double startTime_ = 0, endTime_ = 0;
    bool hasEnded_ = false;  ///< nothing more comes
    LiveStream reading_;
};

}  // namespace sealscope
