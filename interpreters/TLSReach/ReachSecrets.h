// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Sealscope/TLSKeyLog.h"
#include "host/VELCommonTools/KeyLogSources.h"
#include "platform/PrivateKey.h"
#include "platform/SecretMemory.h"

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
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

/// The secrets at hand at one moment. Immutable; any thread may read it.
struct ReachSecrets {
    TLSKeyLog keyLog;
    /// Master secrets by session ID, of lines "RSA Session-ID:… Master-Key:…".
    std::map<std::vector<std::uint8_t>, SecretBytes> sessions;
    std::vector<PrivateKey> privateKeys;
    std::shared_ptr<SessionMemory> memory = std::make_shared<SessionMemory>();

    /// Reads a key log text, the lines with session IDs too.
    static std::shared_ptr<ReachSecrets> of(std::string_view text);
};

/// The secrets of a session's sources, as current as these are at the moment of asking. Any thread may ask.
class ReachSecretStore {
public:
    explicit ReachSecretStore(std::shared_ptr<const KeyLogSources> sources) : sources_(std::move(sources)) {}
    std::shared_ptr<const ReachSecrets> current();

private:
    const std::shared_ptr<const KeyLogSources> sources_;
    std::mutex mutex_;  ///< guards what follows; never held while sources are read
    std::uint64_t generation_ = 0;
    const std::shared_ptr<SessionMemory> memory_ = std::make_shared<SessionMemory>();
    std::shared_ptr<const ReachSecrets> secrets_;
};

}  // namespace sealscope
