// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/StreamMessage.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace sealscope {

/// The messages and pairings of a stream while they are being found. Positions count in the order of adding; the result is in the
/// order of time.
class Conversation {
public:
    std::int64_t add(StreamMessage message)
    {
        messages_.push_back(std::move(message));
        return static_cast<std::int64_t>(messages_.size()) - 1;
    }
    /// So many messages say enough of one connection, and more would need memory out of proportion to its bytes.
    bool isFull() const { return messages_.size() >= 1'000'000; }
    void reserve(std::size_t messages) { messages_.reserve(messages); }
    StreamMessage& operator[](std::int64_t position) { return messages_[static_cast<std::size_t>(position)]; }
    std::int64_t size() const { return static_cast<std::int64_t>(messages_.size()); }

    void pair(std::int64_t request, std::optional<std::int64_t> reply);
    /// Adds what a stream inside this one was taken for.
    void append(StreamInterpretation carried);
    std::vector<Pairing>& pairings() { return pairings_; }

    /// The interpretation, once.
    StreamInterpretation finish();
    /// The same of all messages but those at some positions, which belong to no pairing. These stay, in this order and from position 0
    /// on, and the positions are set to where they are then.
    StreamInterpretation takeAllBut(const std::vector<std::int64_t*>& positions);

private:
    std::vector<StreamMessage> messages_;
    std::vector<Pairing> pairings_;
};

}  // namespace sealscope
