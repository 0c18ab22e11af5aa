// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Sealscope/TLSKeyLog.h"
#include "host/VELCommonTools/KeyLogSources.h"
#include "host/VELCommonTools/MergedKeylog.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

namespace sealscope {

/// The secrets of every key log source, merged, and as current as the sources are at the moment of asking. Every operation
/// may be called from any thread; none waits for another thread's reading of files.
class TLSKeyLogStore {
public:
    static TLSKeyLogStore& shared();
    /// Over the sources of the process: the managed key log, and the user's or the environment's.
    TLSKeyLogStore() = default;
    /// Over the sources of a session; how soon a change of them is seen is theirs to say.
    explicit TLSKeyLogStore(std::shared_ptr<const KeyLogSources> sources) : sources_(std::move(sources)) {}

    /// The secret under a key log label such as "CLIENT_RANDOM" for a client random; nothing when no source has it. The result
    /// shares the key log's bytes and outlives a reload.
    std::optional<Data> secret(std::string_view label, DataView clientRandom);
    /// Reads the sources anew when they changed since they were last read.
    void reloadIfNeeded();
    /// The whole key log, current, for a series of lookups that shall agree with each other.
    TLSKeyLog current();
    /// What the current key log amounts to. Counted once for each state of the sources.
    TLSKeyMaterialReport material();

    TLSKeyLogStore(const TLSKeyLogStore&) = delete;
    TLSKeyLogStore& operator=(const TLSKeyLogStore&) = delete;

private:
    struct State {
        std::vector<MergedKeylog::SourceStamp> signature;  ///< of the process's sources when they were last read
        std::uint64_t generation = 0;                      ///< of the session's
        std::optional<TLSKeyLog> keyLog;
        std::optional<TLSKeyMaterialReport> material;
    };

    TLSKeyLog replaced(State fresh);

    const std::shared_ptr<const KeyLogSources> sources_;  ///< null for those of the process
    std::mutex mutex_;  ///< guards state_; never held while files are looked at, read or parsed
    State state_;
};

}  // namespace sealscope
