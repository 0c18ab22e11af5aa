// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/session/SessionPlugIns.h"
#include "app/streams/GrowingBytes.h"
#include "host/VELModels/StreamFollowing.h"

#include <array>
#include <cstdint>
#include <memory>

namespace sealscope {

/// Reads a stream that still goes on, whatever it turns out to be: finds who reads it, and opens it first where it is protected, with
/// secrets that may come later. What it carries, such as the inside of a tunnel, may be such a stream again.
class LiveStream final : public StreamFollowing {
public:
    enum class Place : std::uint8_t { captured, carried };
    /// `context` says what is known of the stream. Outlived by the plug-ins.
    LiveStream(const SessionPlugIns& plugIns, const StreamContext& context, Place place);

    StreamInterpretation goOn(const TCPStream& stream, StreamExtent extent) override;
    std::int64_t neededFrom(TCPSegment::Direction direction) const override;
    bool waits() const override;
    std::int64_t held() const override;

    /// Whether somebody reads it; before that it has to be there from the beginning.
    bool isRead() const { return following_ != nullptr; }
    /// Whether nobody knows what it is, or it is done with.
    bool isIgnored() const { return state_ == State::ignored; }
    bool isSecured() const { return state_ == State::secured; }
    /// Lets go of what is done with, and with it of the bodies of what was given. The next `goOn` does so first.
    void letGo();
    /// Gives up all that is held, and reads no more.
    void ignore();

private:
    using Direction = TCPSegment::Direction;
    enum class State : std::uint8_t { unknown, secured, open, ignored };
    static constexpr std::array directions{Direction::clientToServer, Direction::serverToClient};
    static std::size_t positionOf(Direction direction) { return direction == Direction::clientToServer ? 0 : 1; }

    TCPStream plaintextOf(const TCPStream& stream) const;
    void findInterpreter(const TCPStream& stream);
    void findReaders(const TCPStream& stream);
    void openRecords(const TCPStream& stream);
    StreamInterpretation readPlaintext(const TCPStream& stream, StreamExtent extent);

    const SessionPlugIns& plugIns_;
    const StreamContext context_;
    const Place place_;
    State state_ = State::unknown;
    std::array<std::unique_ptr<PlaintextReader>, 2> readers_;
    std::array<std::shared_ptr<GrowingBytes>, 2> plaintext_;
    std::array<std::int64_t, 2> readUpTo_{};  ///< of captured bytes: where the last record begins that was opened
    std::array<std::int64_t, 2> triedAt_{};   ///< bytes that were there when readers were looked for last
    std::uint64_t generation_ = 0;            ///< of the secrets that were tried last
    std::unique_ptr<StreamFollowing> following_;
};

}  // namespace sealscope
