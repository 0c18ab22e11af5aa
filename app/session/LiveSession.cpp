// SPDX-License-Identifier: Apache-2.0
#include "app/session/LiveSession.h"

#include "app/capture/PacketDecoder.h"
#include "app/session/LiveConnection.h"

#include <absl/container/flat_hash_map.h>
#include <absl/hash/hash.h>
#include <chrono>
#include <list>
#include <string_view>
#include <utility>

namespace sealscope {

namespace {

using Clock = std::chrono::steady_clock;

// How often files with secrets are looked at.
constexpr std::chrono::milliseconds betweenLooks{50};
// A connection that has ended waits so long for its secrets: some programs write them when they please.
constexpr std::chrono::seconds longestWait{10};
constexpr std::chrono::seconds betweenSweeps{1};

struct EndpointPair {
    TCPStreamKey::Endpoint first, second;  ///< the lower one first
    bool operator==(const EndpointPair&) const = default;
    static EndpointPair of(const TCPStreamKey::Endpoint& a, const TCPStreamKey::Endpoint& b)
    {
        return a < b ? EndpointPair{a, b} : EndpointPair{b, a};
    }

    template <class State> friend State AbslHashValue(State state, const EndpointPair& pair)
    {
        for (const auto* endpoint : {&pair.first, &pair.second})
            state = State::combine(std::move(state), endpoint->port,
                                   std::string_view(reinterpret_cast<const char*>(endpoint->address.data()), endpoint->address.size()));
        return state;
    }
};

std::shared_ptr<KeyLogSources> sourcesFor(const LiveSessionOptions& options)
{
    auto sources = std::make_shared<KeyLogSources>(SecretText(), options.keyLogs);
    sources->lookEvery(betweenLooks);
    return sources;
}

}  // namespace

class LiveSession::Implementation {
public:
    explicit Implementation(const LiveSessionOptions& options)
        : options_(options), sources_(sourcesFor(options)), plugIns_(sources_, [&] {
              PlugInOptions plugIns = options.plugIns;
              plugIns.mostHeldOfOne = options.mostHeldOfOne;
              return plugIns;
          }())
    {}

    void add(const CapturedPacket& packet)
    {
        if (!decoder_.decode(packet, segment_)) return;
        const EndpointPair key = EndpointPair::of(segment_.source, segment_.destination);
        auto found = current_.find(key);
        if (found != current_.end() && found->second->isBegunAnewBy(segment_)) {
            found->second->end();
            markChanged(*found->second);
            current_.erase(found);
            found = current_.end();
        }
        if (found == current_.end()) {
            // What belongs to no connection, such as the last acknowledgment, does not open one.
            if (segment_.payload.isEmpty() && !(segment_.flags & TCPFlag::syn)) return;
            if (std::ssize(connections_) >= options_.mostConnections) giveUpOldest();
            connections_.push_back(std::make_unique<LiveConnection>(plugIns_, nextNumber_++, segment_));
            connections_.back()->place = std::prev(connections_.end());
            found = current_.emplace(key, connections_.back().get()).first;
        }
        LiveConnection& connection = *found->second;
        const std::int64_t before = connection.held();
        connection.add(segment_, packet.number, packet.time.value());
        held_ += connection.held() - before;
        // The one that was used last stands last.
        connections_.splice(connections_.end(), connections_, connection.place);
        markChanged(connection);
        while (held_ > options_.mostHeld && std::ssize(connections_) > 1) giveUpOldest();
    }

    void read(const Take& take)
    {
        // Sessions are learnt with every connection that opens; to look at all others each time would cost too much.
        const bool isSweep = Clock::now() >= nextSweep_;
        const std::uint64_t generation = isSweep ? plugIns_.secretsGeneration() : sources_->generation();
        if (std::exchange(isSweep ? sweptGeneration_ : generation_, generation) != generation)
            for (const auto& connection : connections_)
                if (connection->waitsForSecrets()) markChanged(*connection);
        for (LiveConnection* const connection : std::exchange(changed_, {})) {
            connection->isMarked = false;
            readOne(*connection, LiveConnection::Secrets::mayCome, take);
            if (connection->hasEnded() && !connection->waitsForSecrets()) remove(*connection);
        }
        if (isSweep) letGoOfEnded(Clock::now() - longestWait, take);
    }

    void finish(const Take& take)
    {
        for (const auto& connection : connections_) {
            connection->end();
            markChanged(*connection);
        }
        sources_->lookEvery({});
        read(take);
        letGoOfEnded(Clock::time_point::max(), take);
    }

    std::int64_t givenUp_ = 0;
    std::int64_t held_ = 0;
    std::int64_t openConnections() const { return std::ssize(connections_); }

private:
    void markChanged(LiveConnection& connection)
    {
        if (!std::exchange(connection.isMarked, true)) changed_.push_back(&connection);
    }

    void readOne(LiveConnection& connection, LiveConnection::Secrets secrets, const Take& take)
    {
        const std::int64_t before = connection.held();
        connection.read(secrets, options_.mostHeldOfOne, take);
        held_ += connection.held() - before;
        if (connection.hasEnded() && !connection.endSeen) connection.endSeen = Clock::now();
    }

    /// Of those that waited long enough for secrets, what opens without them is read.
    void letGoOfEnded(Clock::time_point seenBefore, const Take& take)
    {
        nextSweep_ = Clock::now() + betweenSweeps;
        for (auto next = connections_.begin(); next != connections_.end();) {
            LiveConnection& connection = **next++;
            if (!connection.endSeen || *connection.endSeen >= seenBefore) continue;
            readOne(connection, LiveConnection::Secrets::areAll, take);
            remove(connection);
        }
    }

    void remove(LiveConnection& connection)
    {
        const auto found = current_.find(EndpointPair::of(connection.endpoints[0], connection.endpoints[1]));
        if (found != current_.end() && found->second == &connection) current_.erase(found);
        if (connection.isMarked) std::erase(changed_, &connection);
        held_ -= connection.held();
        const auto place = connection.place;
        connections_.erase(place);
    }

    /// Lets go of the connection that was silent for longest.
    void giveUpOldest()
    {
        ++givenUp_;
        remove(*connections_.front());
    }

    LiveSessionOptions options_;
    std::shared_ptr<KeyLogSources> sources_;
    SessionPlugIns plugIns_;
    PacketDecoder decoder_;
    TCPPacket segment_;
    std::list<std::unique_ptr<LiveConnection>> connections_;  ///< the one that was silent for longest first
    absl::flat_hash_map<EndpointPair, LiveConnection*> current_;
    std::vector<LiveConnection*> changed_;  ///< since they were read last
    Clock::time_point nextSweep_;
    std::uint64_t generation_ = 0;       ///< of the key logs, when connections that wait for secrets were looked at last
    std::uint64_t sweptGeneration_ = 0;  ///< of these and of sessions, at the last sweep
    std::int64_t nextNumber_ = 0;
};

LiveSession::LiveSession(LiveSessionOptions options) : implementation_(std::make_unique<Implementation>(options)) {}
LiveSession::~LiveSession() = default;

void LiveSession::add(const CapturedPacket& packet) { implementation_->add(packet); }
void LiveSession::read(const Take& take) { implementation_->read(take); }
void LiveSession::finish(const Take& take) { implementation_->finish(take); }
std::int64_t LiveSession::givenUp() const { return implementation_->givenUp_; }
std::int64_t LiveSession::openConnections() const { return implementation_->openConnections(); }
std::int64_t LiveSession::held() const { return implementation_->held_; }

}  // namespace sealscope
