// SPDX-License-Identifier: Apache-2.0
#include "interpreters/TLSReach/ReachSecrets.h"

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

std::shared_ptr<const ReachSecrets> ReachSecretStore::current()
{
    const std::uint64_t generation = sources_->generation();
    {
        const std::lock_guard lock(mutex_);
        if (secrets_ && generation_ == generation) return secrets_;
    }
    auto fresh = ReachSecrets::of(sources_->text());
    fresh->privateKeys = sources_->privateKeys();
    fresh->memory = memory_;
    const std::lock_guard lock(mutex_);
    generation_ = generation;
    return secrets_ = std::move(fresh);
}

}  // namespace sealscope
