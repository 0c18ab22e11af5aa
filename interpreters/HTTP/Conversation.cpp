// SPDX-License-Identifier: Apache-2.0
#include "interpreters/HTTP/Conversation.h"

#include "interpreters/HTTP/HTTPMessage.h"

#include <algorithm>
#include <array>
#include <limits>
#include <numeric>
#include <tuple>
#include <utility>

namespace sealscope {

void Conversation::pair(std::int64_t request, std::optional<std::int64_t> reply)
{
    pairings_.push_back({.requestIndex = request,
                         .replyIndex = reply,
                         .summary = HTTPMessages::pairingSummary((*this)[request], reply ? &(*this)[*reply] : nullptr),
                         .status = reply ? PairingStatus::matched : PairingStatus::unmatched});
}

void Conversation::append(StreamInterpretation carried)
{
    const std::int64_t first = size();
    for (StreamMessage& message : carried.messages) messages_.push_back(std::move(message));
    if (!carried.pairings) return;
    for (Pairing& pairing : *carried.pairings) {
        pairing.requestIndex += first;
        if (pairing.replyIndex) *pairing.replyIndex += first;
        pairings_.push_back(std::move(pairing));
    }
}

StreamInterpretation Conversation::takeAllBut(const std::vector<std::int64_t*>& positions)
{
    Conversation staying, taken;
    std::vector<std::int64_t> places(messages_.size(), 0);
    for (std::int64_t* const position : positions) {
        places[static_cast<std::size_t>(*position)] = -1;
        *position = staying.add(std::move((*this)[*position]));
    }
    for (std::size_t i = 0; i < messages_.size(); ++i)
        if (places[i] == 0) places[i] = taken.add(std::move(messages_[i]));
    for (Pairing& pairing : pairings_) {
        pairing.requestIndex = places[static_cast<std::size_t>(pairing.requestIndex)];
        if (pairing.replyIndex) pairing.replyIndex = places[static_cast<std::size_t>(*pairing.replyIndex)];
    }
    taken.pairings_ = std::move(pairings_);
    *this = std::move(staying);
    return taken.finish();
}

StreamInterpretation Conversation::finish()
{
    // A message without a time stays with the one before it in its direction.
    std::vector<double> times(messages_.size());
    std::array<double, 2> latest{};
    for (std::size_t i = 0; i < messages_.size(); ++i) {
        double& last = latest[messages_[i].direction == TCPSegment::Direction::clientToServer ? 0 : 1];
        times[i] = messages_[i].timestamp > 0 ? messages_[i].timestamp : last;
        last = times[i];
    }
    std::vector<std::int64_t> order(messages_.size());
    std::iota(order.begin(), order.end(), 0);
    std::ranges::stable_sort(order, {}, [&](std::int64_t position) {
        const StreamMessage& message = messages_[static_cast<std::size_t>(position)];
        return std::tuple(times[static_cast<std::size_t>(position)], message.direction,
                          message.byteRange ? message.byteRange->lower : std::numeric_limits<std::int64_t>::max());
    });

    StreamInterpretation result;
    std::vector<std::int64_t> places(messages_.size());
    for (std::size_t place = 0; place < order.size(); ++place)
        places[static_cast<std::size_t>(order[place])] = static_cast<std::int64_t>(place);
    if (std::ranges::is_sorted(order)) {
        result.messages = std::move(messages_);
    } else {
        result.messages.reserve(messages_.size());
        for (const std::int64_t position : order) result.messages.push_back(std::move(messages_[static_cast<std::size_t>(position)]));
        messages_ = {};
    }
    if (pairings_.empty()) return result;
    for (Pairing& pairing : pairings_) {
        pairing.requestIndex = places[static_cast<std::size_t>(pairing.requestIndex)];
        if (pairing.replyIndex) pairing.replyIndex = places[static_cast<std::size_t>(*pairing.replyIndex)];
    }
    std::ranges::stable_sort(pairings_, {}, &Pairing::requestIndex);
    result.pairings = std::move(pairings_);
    return result;
}

}  // namespace sealscope
