// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Sealscope/TLSKeyLog.h"
#include "host/VELCommonTools/MergedKeylog.h"

#include <mutex>
#include <optional>
#include <string_view>
#include <vector>

namespace sealscope {

/// The secrets of every key log source, merged, and as current as the sources are at the moment of asking. Every operation
/// may be called from any thread; none waits for another thread's reading of files.
class TLSKeyLogStore {
public:
    static TLSKeyLogStore& shared();
    TLSKeyLogStore() = default;

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
        std::vector<MergedKeylog::SourceStamp> signature;  ///< of the sources when they were last read
        std::optional<TLSKeyLog> keyLog;
        std::optional<TLSKeyMaterialReport> material;
    };

    std::mutex mutex_;  ///< guards state_; never held while files are looked at, read or parsed
    State state_;
};

}  // namespace sealscope
