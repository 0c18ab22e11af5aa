// SPDX-License-Identifier: Apache-2.0
#include "host/VELCommonTools/KeyLogSources.h"

#include "host/VELCommonTools/KeylogUserFile.h"
#include "platform/UserDefaults.h"

#include <chrono>
#include <cstdlib>
#include <utility>

namespace sealscope {

namespace {

std::int64_t now() { return std::chrono::steady_clock::now().time_since_epoch() / std::chrono::nanoseconds(1); }

}  // namespace

KeyLogSources::KeyLogSources(SecretText embedded, std::vector<std::string> files, std::vector<PrivateKey> privateKeys,
                             std::int64_t mostKeyExchanges)
    : embedded_(std::move(embedded)), named_(std::move(files)), privateKeys_(std::move(privateKeys)), mostKeyExchanges_(mostKeyExchanges)
{}

KeyLogSources::KeyLogSources(SecretText secrets) : embedded_(std::move(secrets)), hasFiles_(false) {}

std::vector<MergedKeylog::Source> KeyLogSources::files() const
{
    if (!hasFiles_) return {};
    if (named_.empty()) {
        const char* const environment = std::getenv("SSLKEYLOGFILE");
        return MergedKeylog::sources(KeylogUserFile::resolvedPath(UserDefaults::standard()),
                                     environment ? std::optional<std::string>(environment) : std::nullopt);
    }
    auto sources = MergedKeylog::sources(std::nullopt, std::nullopt);
    for (const std::string& file : named_) {
        // A source that is listed twice stands where it wins.
        std::erase(sources, MergedKeylog::Source{file});
        sources.push_back({file});
    }
    return sources;
}

std::uint64_t KeyLogSources::generation() const
{
    if (now() < nextLook_.load(std::memory_order_relaxed)) return generation_.load(std::memory_order_acquire);
    std::vector<MergedKeylog::SourceStamp> signature = MergedKeylog::signature(files());
    const std::lock_guard lock(mutex_);
    if (generation_ == 0 || signature != signature_) {
        signature_ = std::move(signature);
        ++generation_;
    }
    nextLook_.store(now() + betweenLooks_.count(), std::memory_order_relaxed);
    return generation_;
}

SecretText KeyLogSources::text() const
{
    SecretText text = embedded_;
    if (!text.empty() && text.back() != '\n') text += '\n';
    text += MergedKeylog::mergedText(files());
    return text;
}

}  // namespace sealscope
