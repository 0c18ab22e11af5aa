// SPDX-License-Identifier: Apache-2.0
#include "app/session/Exchanges.h"

#include "app/session/ResumedSessions.h"

#include <utility>
#include <vector>

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

std::size_t fieldBytes(const Exchange& exchange)
{
    std::size_t bytes = 0;
    for (const auto* const message : {&exchange.request, &exchange.reply})
        if (*message)
            for (const DetailRow& row : (*message)->detail) bytes += row.name.size() + row.value.size();
    return bytes;
}

std::unique_ptr<StreamExchangeReader> readerOf(StreamInterpretation interpretation)
{
    return std::make_unique<MadeExchanges>(exchangesOf(std::move(interpretation)));
}

}  // namespace sealscope
