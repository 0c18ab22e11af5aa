// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSKeyLogStore.h"

#include "host/VELCommonTools/KeylogUserFile.h"
#include "platform/UserDefaults.h"

#include <absl/container/flat_hash_set.h>
#include <algorithm>
#include <array>
#include <cstdlib>
#include <string>
#include <utility>

namespace sealscope {

namespace {

TLSKeyMaterialReport materialOf(const TLSSecrets& secrets)
{
    absl::flat_hash_set<std::string_view> clientRandoms;
    clientRandoms.reserve(static_cast<std::size_t>(secrets.size()));
    std::array<std::int64_t, TLSKeyLog::knownLabels.size()> counts{};
    std::string_view last;
    secrets.forEach([&](std::string_view label, DataView clientRandom, DataView) {
        const auto known = std::ranges::find(TLSKeyLog::knownLabels, label);
        if (known != TLSKeyLog::knownLabels.end()) ++counts[static_cast<std::size_t>(known - TLSKeyLog::knownLabels.begin())];
        // The lines of a connection mostly follow one another.
        if (std::exchange(last, clientRandom.text()) != clientRandom.text()) clientRandoms.insert(clientRandom.text());
    });
    TLSKeyMaterialReport report{.secrets = secrets.size(), .clientRandoms = static_cast<std::int64_t>(clientRandoms.size()), .labels = {}};
    for (std::size_t i = 0; i < counts.size(); ++i)
        if (counts[i] > 0) report.labels.emplace_back(TLSKeyLog::knownLabels[i], counts[i]);
    return report;
}

}  // namespace

TLSKeyLogStore& TLSKeyLogStore::shared()
{
    static TLSKeyLogStore store;
    return store;
}

TLSKeyLog TLSKeyLogStore::replaced(State fresh)
{
    const TLSKeyLog keyLog = *fresh.keyLog;
    // What was there before is let go after the lock. The answer is what this call read: another may have stored less since.
    const std::lock_guard lock(mutex_);
    std::swap(state_, fresh);
    return keyLog;
}

TLSKeyLog TLSKeyLogStore::current()
{
    if (sources_) {
        const std::uint64_t generation = sources_->generation();
        {
            const std::lock_guard lock(mutex_);
            if (state_.keyLog && state_.generation == generation) return *state_.keyLog;
        }
        return replaced({.generation = generation, .keyLog = TLSKeyLog(sources_->text())});
    }
    const auto userPath = KeylogUserFile::resolvedPath(UserDefaults::standard());
    const char* const environment = std::getenv("SSLKEYLOGFILE");
    const auto envPath = environment ? std::optional<std::string>(environment) : std::nullopt;
    const std::vector<MergedKeylog::Source> sources = MergedKeylog::sources(userPath, envPath);
    std::vector<MergedKeylog::SourceStamp> signature = MergedKeylog::signature(sources);
    {
        const std::lock_guard lock(mutex_);
        if (state_.keyLog && state_.signature == signature) return *state_.keyLog;
    }
    return replaced({.signature = std::move(signature), .keyLog = TLSKeyLog(MergedKeylog::mergedText(sources))});
}

void TLSKeyLogStore::reloadIfNeeded() { current(); }

TLSKeyMaterialReport TLSKeyLogStore::material()
{
    const TLSKeyLog keyLog = current();
    const auto isOf = [&](const State& state) { return state.keyLog && state.keyLog->secrets.isSame(keyLog.secrets); };
    {
        const std::lock_guard lock(mutex_);
        if (isOf(state_) && state_.material) return *state_.material;
    }
    TLSKeyMaterialReport report = materialOf(keyLog.secrets);
    const std::lock_guard lock(mutex_);
    if (isOf(state_)) state_.material = report;
    return report;
}

std::optional<Data> TLSKeyLogStore::secret(std::string_view label, DataView clientRandom)
{
    return current().secrets.find(label, clientRandom);
}

}  // namespace sealscope
