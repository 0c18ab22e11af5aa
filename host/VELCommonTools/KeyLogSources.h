// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELCommonTools/MergedKeylog.h"
#include "platform/PrivateKey.h"
#include "platform/SecretMemory.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace sealscope SEALSCOPE_API {

/// Where the secrets of one session come from: what its capture carries, the managed key log, and the files named for it, or else
/// the user's; and the private keys of servers, which are no key log. Belongs to no process-wide state, so that two sessions never share a
/// secret. Any thread may ask.
class KeyLogSources {
public:
    /// How many key exchanges with a key of 2048 bits private keys open where nobody says: about a second's worth.
    static constexpr std::int64_t fewKeyExchanges = 1'000;

    /// `files` take the place of the file that the user chose and of `SSLKEYLOGFILE`; later sources win.
    KeyLogSources(SecretText embedded, std::vector<std::string> files, std::vector<PrivateKey> privateKeys = {},
                  std::int64_t mostKeyExchanges = fewKeyExchanges);
    /// These secrets alone, of whatever origin: no file is looked at.
    explicit KeyLogSources(SecretText secrets);

    /// Counts the states of the sources: another number says that what they hold may have changed. A file is looked at twice a
    /// second at the most, so asking costs next to nothing.
    std::uint64_t generation() const;
    /// Looks at the files more often than that, and again at the next question, for who waits for secrets. To be called while nobody
    /// else asks.
    void lookEvery(std::chrono::nanoseconds interval)
    {
        betweenLooks_ = interval;
        nextLook_ = 0;
    }
    /// The sources' bytes one behind another, each source's lines whole. What cannot be read contributes nothing.
    SecretText text() const;
    /// The files among them, in the order of their texts.
    std::vector<MergedKeylog::Source> files() const;
    /// Of servers whose clients encrypt a secret to their certificates.
    const std::vector<PrivateKey>& privateKeys() const { return privateKeys_; }
    /// What these may open, in key exchanges with a key of 2048 bits; with one twice as long each is eight of them.
    std::int64_t mostKeyExchanges() const { return mostKeyExchanges_; }
    bool hasEmbeddedSecrets() const { return !embedded_.empty(); }

    KeyLogSources(const KeyLogSources&) = delete;
    KeyLogSources& operator=(const KeyLogSources&) = delete;

private:
    const SecretText embedded_;
    const std::vector<std::string> named_;
    const bool hasFiles_ = true;
    std::chrono::nanoseconds betweenLooks_ = std::chrono::milliseconds(500);
    const std::vector<PrivateKey> privateKeys_;
    const std::int64_t mostKeyExchanges_ = fewKeyExchanges;
    mutable std::atomic<std::int64_t> nextLook_ = 0;  ///< on the steady clock, in nanoseconds
    mutable std::atomic<std::uint64_t> generation_ = 0;
    mutable std::mutex mutex_;  ///< guards signature_
    mutable std::vector<MergedKeylog::SourceStamp> signature_;
};

}  // namespace sealscope SEALSCOPE_API
