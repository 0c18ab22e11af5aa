// SPDX-License-Identifier: Apache-2.0
#include "interpreters/HTTP/Conversation.h"

#include "interpreters/HTTP/HTTPMessage.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <numeric>
#include <tuple>
#include <utility>

namespace sealscope {

std::int64_t Conversation::add(StreamMessage message)
{
    double& latest = latest_[message.direction == TCPSegment::Direction::clientToServer ? 0 : 1];
    if (message.timestamp > 0) latest = message.timestamp;
    times_.push_back(latest);
    positions_.push_back(added_);
    const std::size_t bytes = message.heldBytes();
    addedBytes_ += bytes;
    bytes_ += bytes;
    sizes_.push_back(bytes);
    messages_.push_back(std::move(message));
    return added_++;
}

std::int64_t Conversation::addWaiting(StreamMessage message)
{
    waiting_.push_back(added_);
    return add(std::move(message));
}

std::size_t Conversation::placeOf(std::int64_t position) const
{
    // Nothing is missing in most.
    const std::int64_t place = position - positions_.front();
    if (place >= 0 && place < std::ssize(positions_) && positions_[static_cast<std::size_t>(place)] == position)
        return static_cast<std::size_t>(place);
    return static_cast<std::size_t>(std::ranges::lower_bound(positions_, position) - positions_.begin());
}

void Conversation::pair(std::int64_t request, std::optional<std::int64_t> reply)
{
    if (!waiting_.empty() && waiting_.front() == request)
        waiting_.pop_front();
    else if (const auto found = std::ranges::lower_bound(waiting_, request); found != waiting_.end() && *found == request)
        waiting_.erase(found);
    pairings_.push_back({{.requestIndex = request,
                          .replyIndex = reply,
                          .summary = HTTPMessages::pairingSummary((*this)[request], reply ? &(*this)[*reply] : nullptr),
                          .status = reply ? PairingStatus::matched : PairingStatus::unmatched}});
}

void Conversation::append(StreamInterpretation carried)
{
    StreamPart whole = partOf(std::move(carried));
    append(whole, added_);
}

void Conversation::append(StreamPart& carried, std::int64_t first)
{
    for (StreamMessage& message : carried.messages) add(std::move(message));
    for (Pairing& pairing : carried.pairings) {
        pairing.requestIndex += first;
        if (pairing.replyIndex) *pairing.replyIndex += first;
        const auto told = toldRequests_.find(pairing.requestIndex);
        const bool isTold = told != toldRequests_.end();
        if (isTold) pairing.requestIndex = told->second;
        // A pair of which one was handed over long ago can be told by nobody any more.
        if ((isTold || isHeld(pairing.requestIndex)) && (!pairing.replyIndex || isHeld(*pairing.replyIndex)))
            pairings_.push_back({std::move(pairing), isTold});
    }
}

bool Conversation::isHeld(std::int64_t position) const { return std::ranges::binary_search(positions_, position); }

void Conversation::noteToldRequest(std::int64_t position, std::int64_t place)
{
    constexpr std::size_t most = 8'192;
    toldRequests_.emplace(position, place);
    toldInOrder_.push_back(position);
    if (toldInOrder_.size() <= most) return;
    toldRequests_.erase(toldInOrder_.front());
    toldInOrder_.pop_front();
}

StreamInterpretation Conversation::take(std::size_t most)
{
    std::vector<std::size_t> order(messages_.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::ranges::stable_sort(order, {}, [&](std::size_t place) {
        const StreamMessage& message = messages_[place];
        return std::tuple(times_[place], message.direction,
                          message.byteRange ? message.byteRange->lower : std::numeric_limits<std::int64_t>::max());
    });

    // Of those that stay the place is never asked for.
    constexpr std::int64_t stays = -1, isTaken = 0;
    std::vector<std::int64_t> places(messages_.size(), stays);
    for (std::size_t i = 0; i < std::min(most, order.size()); ++i) places[order[i]] = isTaken;
    for (const std::int64_t position : waiting_) places[placeOf(position)] = stays;
    std::int64_t taken = 0;
    for (const std::size_t place : order)
        if (places[place] != stays) places[place] = taken++;

    StreamInterpretation result;
    std::vector<Pairing> pairings;
    std::vector<Open> staying;
    std::vector<bool> arePaired(visit_ ? messages_.size() : 0);
    // Puts the place in place of the position of a message that is taken.
    const auto tell = [&](std::int64_t& position, bool& isTold) {
        if (isTold) return;
        const std::size_t place = placeOf(position);
        if (visit_) arePaired[place] = true;
        if (places[place] == stays) return;
        position = handedOver_ + places[place];
        isTold = true;
    };
    for (Open& open : pairings_) {
        auto& [pairing, isRequestTold, isReplyTold] = open;
        tell(pairing.requestIndex, isRequestTold);
        if (pairing.replyIndex)
            tell(*pairing.replyIndex, isReplyTold);
        else
            isReplyTold = isRequestTold;
        if (!isRequestTold || !isReplyTold) {
            staying.push_back(std::move(open));
            continue;
        }
        pairing.requestIndex -= handedOver_;
        if (pairing.replyIndex) *pairing.replyIndex -= handedOver_;
        pairings.push_back(std::move(pairing));
    }
    pairings_ = std::move(staying);
    std::ranges::stable_sort(pairings, {}, &Pairing::requestIndex);
    if (!pairings.empty()) result.pairings = std::move(pairings);
    for (std::size_t place = 0; place < arePaired.size(); ++place)
        if (places[place] != stays && !arePaired[place] && messages_[place].kind == StreamMessageKind::request)
            noteToldRequest(positions_[place], handedOver_ + places[place]);

    if (taken == std::ssize(messages_) && std::ranges::is_sorted(order)) {
        result.messages = std::exchange(messages_, {});
        times_.clear();
        sizes_.clear();
        positions_.clear();
    } else {
        result.messages.reserve(static_cast<std::size_t>(taken));
        for (const std::size_t place : order)
            if (places[place] != stays) result.messages.push_back(std::move(messages_[place]));
        std::size_t kept = 0;
        for (std::size_t place = 0; place < messages_.size(); ++place) {
            if (places[place] != stays) continue;
            if (kept != place) messages_[kept] = std::move(messages_[place]);
            times_[kept] = times_[place];
            sizes_[kept] = sizes_[place];
            positions_[kept++] = positions_[place];
        }
        const auto cut = [&](auto& list) { list.erase(list.begin() + static_cast<std::ptrdiff_t>(kept), list.end()); };
        cut(messages_);
        cut(times_);
        cut(sizes_);
        cut(positions_);
    }
    bytes_ = std::reduce(sizes_.begin(), sizes_.end());
    return result;
}

void Conversation::hand(StreamInterpretation messages)
{
    if (messages.messages.empty()) return;
    const std::int64_t count = std::ssize(messages.messages);
    StreamPart part = partOf(std::move(messages));
    part.first = handedOver_;
    for (Pairing& pairing : part.pairings) {
        pairing.requestIndex += part.first;
        if (pairing.replyIndex) *pairing.replyIndex += part.first;
    }
    handedOver_ += count;
    isWanted_ = isWanted_ && (*visit_)(part);
}

void Conversation::handOverEarlier() { hand(take(messages_.size() / 2 + 1)); }

void Conversation::handOverRest() { hand(finish()); }

StreamInterpretation Conversation::finish()
{
    waiting_.clear();
    return take(messages_.size());
}

StreamInterpretation Conversation::takeSettled() { return take(messages_.size()); }

}  // namespace sealscope
