// SPDX-License-Identifier: Apache-2.0
#include "interpreters/TLSReach/ReachSecrets.h"

#include "Sealscope/TLSStreamDecryption.h"
#include "platform/HMAC.h"

#include <algorithm>
#include <utility>

namespace sealscope {

namespace {

/// "RSA Session-ID:<hex> Master-Key:<hex>", as libssl's tools print sessions.
void takeSessionLine(std::string_view line, ReachSecrets& secrets)
{
    constexpr std::string_view idPrefix = "RSA Session-ID:", keyPrefix = " Master-Key:";
    if (line.ends_with('\r')) line.remove_suffix(1);
    if (!line.starts_with(idPrefix)) return;
    line.remove_prefix(idPrefix.size());
    const std::size_t middle = line.find(keyPrefix);
    if (middle == std::string_view::npos) return;
    const auto id = TLSKeyLog::decodeHex(line.substr(0, middle));
    auto key = TLSKeyLog::decodeHex(line.substr(middle + keyPrefix.size()));
    if (!id || id->empty() || !key) return;
    secrets.sessions.insert_or_assign(std::vector<std::uint8_t>(id->begin(), id->end()), *std::move(key));
}

}  // namespace

void SessionMemory::remember(DataView name, const SecretBytes& masterSecret)
{
    if (name.isEmpty()) return;
    const std::lock_guard lock(mutex_);
    if (sessions_.size() < mostSessions) sessions_.insert_or_assign(digest(HashFunction::sha256, {name}), masterSecret);
}

std::optional<SecretBytes> SessionMemory::recall(DataView name) const
{
    if (name.isEmpty()) return std::nullopt;
    const std::lock_guard lock(mutex_);
    const auto found = sessions_.find(digest(HashFunction::sha256, {name}));
    return found == sessions_.end() ? std::nullopt : std::optional(found->second);
}

KeyExchanges::Outcome KeyExchanges::open(DataView encrypted, const std::vector<PrivateKey>& keys)
{
    const SecretBytes name = digest(HashFunction::sha256, {encrypted});
    {
        const std::lock_guard lock(mutex_);
        if (const auto found = opened_.find(name); found != opened_.end()) return {found->second};
    }
    std::optional<SecretBytes> secret;
    for (const PrivateKey& key : keys) {
        const std::int64_t size = key.size() / (2048 / 8 / 4);
        if (!allowance_.take(size * size * size)) return {.isTried = false};
        constexpr std::size_t premasterLength = 48;
        secret = key.decrypt(encrypted);
        // It begins with the highest version that the client offers: another key gives other bytes, if any (RFC 5246 §7.4.7.1).
        if (secret && secret->size() == premasterLength && viewOf(*secret).u8(0) == 3) break;
        secret.reset();
    }
    const std::lock_guard lock(mutex_);
    if (opened_.size() < mostHeld) opened_.insert_or_assign(name, secret);
    return {std::move(secret)};
}

std::optional<SearchMemory::Outcome> SearchMemory::recall(const std::string& connection) const
{
    const std::lock_guard lock(mutex_);
    const auto found = outcomes_.find(connection);
    return found == outcomes_.end() ? std::nullopt : std::optional(found->second);
}

void SearchMemory::remember(const std::string& connection, const Outcome& outcome)
{
    const std::lock_guard lock(mutex_);
    if (outcomes_.size() < mostConnections) outcomes_.insert_or_assign(connection, outcome);
}

void SearchMemory::meet(std::int64_t number, DataView clientRandom)
{
    constexpr std::int64_t mostMet = 1 << 24;
    if (number < 0 || number >= mostMet) return;
    const auto index = static_cast<std::size_t>(number);
    const std::uint64_t brief = KeyLogClients::briefOf(clientRandom);
    const std::lock_guard lock(mutex_);
    if (index >= met_.size()) met_.resize(index + 1);
    if (std::exchange(met_[index], brief) != brief) taken_.insert(brief);
}

/// Where in the key log the client of a connection stands, going by those around it; behind the last one when nothing tells.
std::int64_t SearchMemory::placeBeside(std::int64_t number, const KeyLogClients& clients) const
{
    constexpr std::int64_t farthest = 256;
    const auto placeOf = [&](std::int64_t other) -> std::optional<std::int64_t> {
        if (other < 0 || other >= std::ssize(met_) || met_[static_cast<std::size_t>(other)] == 0) return std::nullopt;
        return clients.placeOf(met_[static_cast<std::size_t>(other)]);
    };
    for (std::int64_t distance = 1; distance <= farthest; ++distance) {
        if (const auto before = placeOf(number - distance)) return *before + 1;
        if (const auto behind = placeOf(number + distance)) return *behind;
    }
    return std::ssize(clients.all);
}

std::vector<KeyLogClients::Client> SearchMemory::likeliest(std::int64_t number, const KeyLogClients& clients) const
{
    constexpr std::int64_t mostTried = 1'024, mostLookedAt = 4 * mostTried;
    const std::lock_guard lock(mutex_);
    std::vector<KeyLogClients::Client> free, taken;
    std::int64_t above = placeBeside(number, clients), below = above - 1, lookedAt = 0;
    const auto add = [&](std::int64_t place) {
        ++lookedAt;
        const auto& client = clients.all[static_cast<std::size_t>(place)];
        (taken_.contains(KeyLogClients::briefOf(client.random)) ? taken : free).push_back(client);
    };
    while (lookedAt < mostLookedAt && std::ssize(free) < mostTried && (below >= 0 || above < std::ssize(clients.all))) {
        if (above < std::ssize(clients.all)) add(above++);
        if (below >= 0) add(below--);
    }
    free.insert(free.end(), taken.begin(), taken.end());
    if (std::ssize(free) > mostTried) free.erase(free.begin() + mostTried, free.end());
    return free;
}

std::uint64_t KeyLogClients::briefOf(DataView random)
{
    std::uint64_t brief = 0;
    for (const std::uint8_t byte : random.sub(0, std::min<std::int64_t>(random.size(), 8))) brief = brief << 8 | byte;
    return brief;
}

KeyLogClients KeyLogClients::of(const TLSSecrets& secrets, std::string_view label)
{
    KeyLogClients clients;
    secrets.forEach([&](std::string_view itsLabel, DataView clientRandom, DataView secret) {
        if (itsLabel != label) return;
        clients.places_.emplace_back(briefOf(clientRandom), std::ssize(clients.all));
        clients.all.push_back({clientRandom, secret.size()});
    });
    std::ranges::sort(clients.places_);
    return clients;
}

std::optional<std::int64_t> KeyLogClients::placeOf(std::uint64_t brief) const
{
    const auto found = std::ranges::lower_bound(places_, brief, {}, &std::pair<std::uint64_t, std::int64_t>::first);
    return found == places_.end() || found->first != brief ? std::nullopt : std::optional(found->second);
}

std::shared_ptr<ReachSecrets> ReachSecrets::of(std::string_view text)
{
    auto secrets = std::make_shared<ReachSecrets>();
    secrets->keyLog = TLSKeyLog(text);
    constexpr std::string_view marker = "RSA Session-ID:";
    for (std::size_t at = text.find(marker); at != std::string_view::npos; at = text.find(marker, at + 1)) {
        if (at > 0 && text[at - 1] != '\n') continue;
        takeSessionLine(text.substr(at, std::min(text.find('\n', at), text.size()) - at), *secrets);
    }
    return secrets;
}

const ReachSecrets::Clients& ReachSecrets::clients() const
{
    std::call_once(clientsOnce_, [&] {
        clients_.ofTLS13 = KeyLogClients::of(keyLog.secrets, secretLabels(TCPSegment::Direction::serverToClient).application);
        clients_.ofTLS12 = KeyLogClients::of(keyLog.secrets, masterSecretLabel);
    });
    return clients_;
}

std::shared_ptr<const ReachSecrets> ReachSecretStore::current()
{
    const std::uint64_t generation = sources_->generation();
    {
        const std::lock_guard lock(mutex_);
        if (secrets_ && generation_ == generation) return secrets_;
    }
    auto fresh = ReachSecrets::of(sources_->text());
    fresh->privateKeys = sources_->privateKeys();
    fresh->keyExchanges = keyExchanges_;
    const std::lock_guard lock(mutex_);
    if (secrets_) {
        fresh->memory = secrets_->memory;
        fresh->allowance = secrets_->allowance;
        fresh->inflation = secrets_->inflation;
    }
    generation_ = generation;
    return secrets_ = std::move(fresh);
}

}  // namespace sealscope
