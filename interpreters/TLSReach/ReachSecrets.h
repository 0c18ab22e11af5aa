// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Sealscope/TLSKeyLog.h"
#include "host/VELCommonTools/KeyLogSources.h"
#include "interpreters/TLSReach/SharedAllowance.h"
#include "platform/PrivateKey.h"
#include "platform/SecretMemory.h"

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace sealscope {

/// Master secrets that connections were found to have, for connections that resume their sessions. Any thread may use it.
class SessionMemory {
public:
    /// `name` is a session ID or a ticket, and gives one away as little as its hash.
    void remember(DataView name, const SecretBytes& masterSecret);
    std::optional<SecretBytes> recall(DataView name) const;

private:
    static constexpr std::size_t mostSessions = 65'536;
    mutable std::mutex mutex_;
    std::map<SecretBytes, SecretBytes> sessions_;  ///< by the name's SHA-256
};

/// Opens what clients encrypted to servers' certificates, each once. Any thread may use it.
class KeyExchanges {
public:
    explicit KeyExchanges(std::int64_t most = KeyLogSources::fewKeyExchanges) : allowance_(most * units) {}

    struct Outcome {
        std::optional<SecretBytes> premasterSecret;
        bool isTried = true;  ///< false: there was no allowance left
    };
    Outcome open(DataView encrypted, const std::vector<PrivateKey>& keys);

private:
    static constexpr std::int64_t units = 64;  ///< that one with a key of 2048 bits takes
    static constexpr std::size_t mostHeld = 65'536;
    std::mutex mutex_;
    std::map<SecretBytes, std::optional<SecretBytes>> opened_;  ///< premaster secrets by the SHA-256 of what was encrypted
    SharedAllowance allowance_;
};

/// The client randoms of a key log that have a secret under one label, in its order. Lent by the key log.
struct KeyLogClients {
    struct Client {
        DataView random;
        std::int64_t secretLength = 0;  ///< bytes
    };
    std::vector<Client> all;

    static KeyLogClients of(const TLSSecrets& secrets, std::string_view label);
    /// Where in `all` a client stands.
    std::optional<std::int64_t> placeOf(std::uint64_t brief) const;
    /// The first bytes of a client random.
    static std::uint64_t briefOf(DataView random);

private:
    std::vector<std::pair<std::uint64_t, std::int64_t>> places_;  ///< in order of the first: who writes a key log chooses them all
};

/// What is known of the connections of a capture that helps to find the secrets of those without hellos. Any thread may use it.
class SearchMemory {
public:
    struct Outcome {
        std::int64_t tried = 0;   ///< client randoms
        bool isSettled = false;   ///< whether the last of them opened a record
        Data clientRandom;        ///< of that
        std::uint16_t suite = 0;  ///< and its cipher suite
    };
    /// `connection` tells it from all others.
    std::optional<Outcome> recall(const std::string& connection) const;
    void remember(const std::string& connection, const Outcome& outcome);

    /// The connection with a number has this client random.
    void meet(std::int64_t number, DataView clientRandom);
    /// The clients that a connection could be of, the likeliest first. Captures and key logs have connections in about the same order,
    /// so that they are those beside the connections before and behind it; else what was put last. Those that another connection has come
    /// last: a capture from both sides of a router shows each twice.
    std::vector<KeyLogClients::Client> likeliest(std::int64_t number, const KeyLogClients& clients) const;

private:
    std::int64_t placeBeside(std::int64_t number, const KeyLogClients& clients) const;
    static constexpr std::size_t mostConnections = 65'536;
    mutable std::mutex mutex_;
    std::map<std::string, Outcome> outcomes_;
    std::vector<std::uint64_t> met_;  ///< by number of connection; 0: not met
    std::set<std::uint64_t> taken_;
};

/// The secrets at hand at one moment. Immutable but for what it remembers; any thread may read it.
struct ReachSecrets {
    TLSKeyLog keyLog;
    /// Master secrets by session ID, of lines "RSA Session-ID:… Master-Key:…".
    std::map<std::vector<std::uint8_t>, SecretBytes> sessions;
    std::vector<PrivateKey> privateKeys;
    std::shared_ptr<SessionMemory> memory = std::make_shared<SessionMemory>();
    std::shared_ptr<KeyExchanges> keyExchanges = std::make_shared<KeyExchanges>();
    /// For trials of keys and sequence numbers, in bytes to decrypt: about half a second.
    std::shared_ptr<SharedAllowance> allowance = std::make_shared<SharedAllowance>(400'000'000);
    /// For what compressed records (RFC 3749) become beyond some times their size, in bytes, each time that they are opened.
    std::shared_ptr<SharedAllowance> inflation = std::make_shared<SharedAllowance>(std::int64_t{64} << 20);
    const std::shared_ptr<SearchMemory> searches = std::make_shared<SearchMemory>();

    /// Reads a key log text, the lines with session IDs too.
    static std::shared_ptr<ReachSecrets> of(std::string_view text);
    /// Those with a secret for application data, and those with a master secret; made when they are first wanted.
    const KeyLogClients& clientsOfTLS13() const { return clients().ofTLS13; }
    const KeyLogClients& clientsOfTLS12() const { return clients().ofTLS12; }

private:
    struct Clients {
        KeyLogClients ofTLS13, ofTLS12;
    };
    const Clients& clients() const;
    mutable std::once_flag clientsOnce_;
    mutable Clients clients_;
};

/// The secrets of a session's sources, as current as these are at the moment of asking. Any thread may ask.
class ReachSecretStore {
public:
    explicit ReachSecretStore(std::shared_ptr<const KeyLogSources> sources)
        : sources_(std::move(sources)), keyExchanges_(std::make_shared<KeyExchanges>(sources_->mostKeyExchanges()))
    {}
    std::shared_ptr<const ReachSecrets> current();

private:
    const std::shared_ptr<const KeyLogSources> sources_;
    std::mutex mutex_;  ///< guards what follows; never held while sources are read
    std::uint64_t generation_ = 0;
    const std::shared_ptr<KeyExchanges> keyExchanges_;
    std::shared_ptr<const ReachSecrets> secrets_;
};

}  // namespace sealscope
