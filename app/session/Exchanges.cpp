// SPDX-License-Identifier: Apache-2.0
#include "app/session/Exchanges.h"

#include "app/session/ResumedSessions.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace sealscope {

namespace {

/// Exchanges that were all made.
class MadeExchanges final : public StreamExchangeReader {
public:
    explicit MadeExchanges(std::vector<Exchange> exchanges) : exchanges_(std::move(exchanges)) {}
    std::optional<double> nextTime() const override
    {
        return next_ < exchanges_.size() ? std::optional(exchanges_[next_].time()) : std::nullopt;
    }
    void next(StreamExchange& exchange) override { exchange = std::exchange(exchanges_[next_++], {}); }

private:
    std::vector<Exchange> exchanges_;
    std::size_t next_ = 0;
};

}  // namespace

std::optional<StreamInterpretation> applicationInterpretation(const Session& session, const TCPStream& stream)
{
    const SessionPlugIns& plugIns = session.plugIns();
    const VELStreamInterpreting* const interpreter = plugIns.interpreter(stream);
    if (!interpreter) return std::nullopt;
    if (interpreter->layer == StreamLayer::security) {
        auto interpretation = plugIns.decryptedInterpretation(stream, plugIns.context());
        if (interpretation || !foundResumedSession(session, stream)) return interpretation;
        return plugIns.decryptedInterpretation(stream, plugIns.context());
    }
    return interpreter->interpret(stream, plugIns.context());
}

std::unique_ptr<StreamExchangeReader> applicationExchanges(const Session& session, const TCPStream& stream)
{
    const SessionPlugIns& plugIns = session.plugIns();
    const VELStreamInterpreting* const interpreter = plugIns.interpreter(stream);
    if (!interpreter) return nullptr;
    if (interpreter->layer == StreamLayer::security) {
        auto reader = plugIns.decryptedExchanges(stream, plugIns.context());
        if (reader || !foundResumedSession(session, stream)) return reader;
        return plugIns.decryptedExchanges(stream, plugIns.context());
    }
    return plugIns.exchanges(*interpreter, stream, plugIns.context());
}

std::unique_ptr<StreamExchangeReader> readerOf(StreamInterpretation interpretation)
{
    return std::make_unique<MadeExchanges>(exchangesOf(std::move(interpretation)));
}

std::vector<std::optional<std::string>> urlsOf(const StreamInterpretation& interpretation)
{
    const auto own = [](const StreamMessage& message) -> std::optional<std::string> {
        const VELValue* const value = message.attribute("url");
        const auto* const url = value ? std::get_if<std::string>(value) : nullptr;
        return url ? std::optional(*url) : std::nullopt;
    };
    std::vector<std::optional<std::string>> urls;
    std::ranges::transform(interpretation.messages, std::back_inserter(urls), own);
    const auto holds = [&](std::int64_t index) { return index >= 0 && index < std::ssize(urls); };
    for (const Pairing& pairing : interpretation.pairings.value_or(std::vector<Pairing>{}))
        if (pairing.replyIndex && holds(*pairing.replyIndex) && holds(pairing.requestIndex))
            urls[static_cast<std::size_t>(*pairing.replyIndex)] = urls[static_cast<std::size_t>(pairing.requestIndex)];
    return urls;
}

}  // namespace sealscope
