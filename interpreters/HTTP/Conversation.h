// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/StreamMessage.h"

#include <absl/container/flat_hash_map.h>
#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

namespace sealscope {

/// What is told of a connection: all of it, or requests and replies alone.
enum class Told : std::uint8_t { everything, exchanges };

/// The messages and pairings of a stream while they are being found. Positions count in the order of adding; the result is in the
/// order of time. Where somebody takes parts, few messages are held: `handOver` gives the earliest away.
class Conversation {
public:
    Conversation() = default;
    /// `visit` is outlived by whom it belongs to; null for a conversation that is held whole. `mostBytes` are held at the most, about.
    Conversation(const StreamPartVisitor* visit, std::size_t mostBytes) : visit_(visit), mostBytes_(mostBytes) {}

    /// The message's position.
    std::int64_t add(StreamMessage message);
    /// The same of a message that stays until it is paired.
    std::int64_t addWaiting(StreamMessage message);
    /// So many messages say enough of one connection, and more would need memory out of proportion to its bytes. Of those that are
    /// handed over there may be any number, as long as somebody takes them.
    bool isFull() const { return visit_ ? !isWanted_ : messages_.size() >= 1'000'000; }
    void reserve(std::size_t messages) { messages_.reserve(messages); }
    /// A message that is held.
    StreamMessage& operator[](std::int64_t position) { return messages_[placeOf(position)]; }
    bool isToldInParts() const { return visit_ != nullptr; }
    /// How many were added, and how many of them are held.
    std::int64_t size() const { return added_; }
    std::int64_t held() const { return static_cast<std::int64_t>(messages_.size()); }
    /// Bytes that all took that were added, about.
    std::size_t addedBytes() const { return addedBytes_; }

    /// Both are held.
    void pair(std::int64_t request, std::optional<std::int64_t> reply);
    /// Adds what a stream inside this one was taken for.
    void append(StreamInterpretation carried);
    /// Adds a part of it: the next, where others were added before. `first` is where the first part's first message came to stand.
    void append(StreamPart& carried, std::int64_t first);

    /// Where somebody takes parts, and much is held: hands over the earlier half of it, but nothing that waits. What is still to be paired
    /// by position has to wait.
    void handOver()
    {
        if (visit_ && (messages_.size() >= mostHeld || bytes_ >= mostBytes_)) handOverEarlier();
    }
    /// Hands over all that is left.
    void handOverRest();
    /// The interpretation, once.
    StreamInterpretation finish();
    /// The same of all messages but those that wait, which keep their positions.
    StreamInterpretation takeSettled();

private:
    // As packets were captured in another order than that of their bytes, and replies came late.
    static constexpr std::size_t mostHeld = 2'048;

    /// A pairing of which not all was handed over. What was has its place among all that were handed over in place of its position.
    struct Open {
        Pairing pairing;
        bool isRequestTold = false, isReplyTold = false;
    };

    std::size_t placeOf(std::int64_t position) const;
    bool isHeld(std::int64_t position) const;
    void handOverEarlier();
    /// Takes messages away, in the order of their times: the earliest `most`, but none that waits.
    StreamInterpretation take(std::size_t most);
    void hand(StreamInterpretation messages);
    void noteToldRequest(std::int64_t position, std::int64_t place);

    std::vector<StreamMessage> messages_;
    std::vector<double> times_;            ///< of the messages; of one without a time that of the one before it in its direction
    std::vector<std::size_t> sizes_;       ///< of the messages: bytes that they take, about
    std::vector<std::int64_t> positions_;  ///< of the messages, ascending
    std::deque<std::int64_t> waiting_;     ///< positions of those that wait, ascending
    std::vector<Open> pairings_;
    /// Requests without a pairing that were handed over last, and where: what is carried may answer them.
    absl::flat_hash_map<std::int64_t, std::int64_t> toldRequests_;
    std::deque<std::int64_t> toldInOrder_;
    std::array<double, 2> latest_{};
    std::int64_t added_ = 0;
    std::size_t addedBytes_ = 0, bytes_ = 0;  ///< of all, and of those that are held
    const StreamPartVisitor* visit_ = nullptr;
    std::size_t mostBytes_ = 0;
    bool isWanted_ = true;
    std::int64_t handedOver_ = 0;
};

}  // namespace sealscope
