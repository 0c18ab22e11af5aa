// SPDX-License-Identifier: Apache-2.0
#include "app/session/Exchanges.h"

#include <algorithm>
#include <utility>

namespace sealscope {

std::optional<double> Exchange::duration() const
{
    if (!request || !reply) return std::nullopt;
    return std::max(0.0, reply->endTimestamp.value_or(reply->timestamp) - request->timestamp);
}

std::optional<StreamInterpretation> applicationInterpretation(const Session& session, const TCPStream& stream)
{
    const SessionPlugIns& plugIns = session.plugIns();
    const VELStreamInterpreting* const interpreter = plugIns.interpreter(stream);
    if (!interpreter) return std::nullopt;
    if (interpreter->layer == StreamLayer::security) return plugIns.decryptedInterpretation(stream, plugIns.context());
    return interpreter->interpret(stream, plugIns.context());
}

std::vector<Exchange> exchangesOf(StreamInterpretation interpretation)
{
    std::vector<StreamMessage>& messages = interpretation.messages;
    std::vector<Exchange> exchanges;
    std::vector<bool> isTaken(messages.size());
    const auto take = [&](std::int64_t index, StreamMessageKind kind) -> std::optional<StreamMessage> {
        if (index < 0 || index >= std::ssize(messages)) return std::nullopt;
        const auto position = static_cast<std::size_t>(index);
        if (isTaken[position] || messages[position].kind != kind) return std::nullopt;
        isTaken[position] = true;
        return std::move(messages[position]);
    };
    for (const Pairing& pairing : interpretation.pairings.value_or(std::vector<Pairing>{})) {
        Exchange exchange;
        exchange.request = take(pairing.requestIndex, StreamMessageKind::request);
        if (!exchange.request) continue;
        if (pairing.replyIndex) exchange.reply = take(*pairing.replyIndex, StreamMessageKind::reply);
        exchanges.push_back(std::move(exchange));
    }
    for (std::int64_t index = 0; index < std::ssize(messages); ++index) {
        // An interim reply is one more message of an exchange, not one of its own.
        if (messages[static_cast<std::size_t>(index)].attribute("isInterim")) continue;
        if (auto request = take(index, StreamMessageKind::request)) exchanges.push_back({.request = std::move(request)});
        if (auto reply = take(index, StreamMessageKind::reply)) exchanges.push_back({.reply = std::move(reply)});
    }
    std::ranges::stable_sort(exchanges, {}, &Exchange::time);
    return exchanges;
}

}  // namespace sealscope
