// SPDX-License-Identifier: Apache-2.0
#include "host/VELModels/StreamExchanges.h"

#include <algorithm>
#include <utility>

namespace sealscope {

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
