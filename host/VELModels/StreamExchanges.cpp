// SPDX-License-Identifier: Apache-2.0
#include "host/VELModels/StreamExchanges.h"

#include <algorithm>
#include <utility>

namespace sealscope {

namespace {

/// Exchanges that were all made.
class MadeExchanges final : public StreamExchangeReader {
public:
    explicit MadeExchanges(std::vector<StreamExchange> exchanges) : exchanges_(std::move(exchanges)) {}
    std::optional<double> nextTime() const override
    {
        return next_ < exchanges_.size() ? std::optional(exchanges_[next_].time()) : std::nullopt;
    }
    void next(StreamExchange& exchange) override { exchange = std::exchange(exchanges_[next_++], {}); }

private:
    std::vector<StreamExchange> exchanges_;
    std::size_t next_ = 0;
};

}  // namespace

std::unique_ptr<StreamExchangeReader> readerOf(StreamInterpretation interpretation)
{
    return std::make_unique<MadeExchanges>(exchangesOf(std::move(interpretation)));
}

std::size_t heldBytes(const StreamExchange& exchange)
{
    std::size_t bytes = 0;
    for (const auto* const message : {&exchange.request, &exchange.reply})
        if (*message) bytes += (*message)->heldBytes();
    return bytes;
}

std::vector<StreamExchange> exchangesOf(StreamInterpretation interpretation)
{
    std::vector<StreamMessage>& messages = interpretation.messages;
    std::vector<StreamExchange> exchanges;
    std::vector<bool> isTaken(messages.size());
    // A message is large, and there may be many: each is moved once.
    const auto take = [&](std::int64_t index, StreamMessageKind kind) -> StreamMessage* {
        if (index < 0 || index >= std::ssize(messages)) return nullptr;
        const auto position = static_cast<std::size_t>(index);
        if (isTaken[position] || messages[position].kind != kind) return nullptr;
        isTaken[position] = true;
        return &messages[position];
    };
    static const std::vector<Pairing> none;
    const std::vector<Pairing>& pairings = interpretation.pairings ? *interpretation.pairings : none;
    exchanges.reserve(pairings.size());
    for (const Pairing& pairing : pairings) {
        StreamMessage* const request = take(pairing.requestIndex, StreamMessageKind::request);
        if (!request) continue;
        StreamExchange& exchange = exchanges.emplace_back();
        exchange.request.emplace(std::move(*request));
        StreamMessage* const reply = pairing.replyIndex ? take(*pairing.replyIndex, StreamMessageKind::reply) : nullptr;
        if (reply) exchange.reply.emplace(std::move(*reply));
    }
    for (std::int64_t index = 0; index < std::ssize(messages); ++index) {
        // An interim reply is one more message of an exchange, not one of its own.
        if (messages[static_cast<std::size_t>(index)].attribute("isInterim")) continue;
        if (auto* const request = take(index, StreamMessageKind::request)) exchanges.emplace_back().request.emplace(std::move(*request));
        if (auto* const reply = take(index, StreamMessageKind::reply)) exchanges.emplace_back().reply.emplace(std::move(*reply));
    }
    if (!std::ranges::is_sorted(exchanges, {}, &StreamExchange::time)) std::ranges::stable_sort(exchanges, {}, &StreamExchange::time);
    return exchanges;
}

}  // namespace sealscope
