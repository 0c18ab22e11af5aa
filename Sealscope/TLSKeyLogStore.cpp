// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSKeyLogStore.h"

#include "host/VELCommonTools/KeylogUserFile.h"
#include "platform/UserDefaults.h"

#include <cstdlib>
#include <string>
#include <utility>

namespace sealscope {

TLSKeyLogStore& TLSKeyLogStore::shared()
{
    static TLSKeyLogStore store;
    return store;
}

TLSKeyLog TLSKeyLogStore::current()
{
    const auto userPath = KeylogUserFile::resolvedPath(UserDefaults::standard());
    const char* const environment = std::getenv("SSLKEYLOGFILE");
    const auto envPath = environment ? std::optional<std::string>(environment) : std::nullopt;
    const std::vector<MergedKeylog::Source> sources = MergedKeylog::sources(userPath, envPath);
    std::vector<MergedKeylog::SourceStamp> signature = MergedKeylog::signature(sources);
    {
        const std::lock_guard lock(mutex_);
        if (state_.keyLog && state_.signature == signature) return *state_.keyLog;
    }
    const TLSKeyLog keyLog(MergedKeylog::mergedText(sources));
    State fresh{std::move(signature), keyLog};
    // What was there before is let go after the lock. The answer is what this call read: another may have stored less since.
    const std::lock_guard lock(mutex_);
    std::swap(state_, fresh);
    return keyLog;
}

void TLSKeyLogStore::reloadIfNeeded() { current(); }

std::optional<Data> TLSKeyLogStore::secret(std::string_view label, DataView clientRandom)
{
    return current().secrets.find(label, clientRandom);
}

}  // namespace sealscope
