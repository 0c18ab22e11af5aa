// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/StreamData.h"
#include "platform/Data.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace sealscope SEALSCOPE_API {

/// The bytes of a message: at hand, where the capture has them, or made when somebody asks. Cheap to copy; copies share what was
/// made. Any thread may read it.
class StreamBody {
public:
    /// How a body ends.
    struct Ending {
        bool isComplete = true;  ///< false: what there is of the body stops short of its end
        std::string reason;      ///< why, as a clause: "the capture lacks its last 17 bytes"; empty when it is complete
        bool operator==(const Ending&) const = default;
    };

    /// Takes bytes, piece by piece and front to back; false ends the body early. A piece is lent for the call.
    using Take = std::function<bool(DataView)>;

    /// Where the bytes of a body come from. Immutable; any thread may ask.
    class Source {
    public:
        virtual ~Source() = default;
        /// Bytes in all; nothing when that is known only once they were made.
        virtual std::optional<std::int64_t> knownLength() const = 0;
        /// Makes the bytes and hands them over. It may be called more than once, and gives the same each time.
        virtual Ending forEachPiece(const Take& take) const = 0;
        /// All bytes in one place; by default the pieces, joined.
        virtual Data joined() const;
    };

    StreamBody() = default;
    StreamBody(Data bytes) : bytes_(std::move(bytes)) {}
    StreamBody(StreamData bytes);
    explicit StreamBody(std::shared_ptr<const Source> source);
    /// A body of `length` bytes that `make` gives when they are first asked for; it is called once at most.
    static StreamBody lazily(std::int64_t length, std::function<Data()> make);

    /// Bytes in all. May have to make them, once, without keeping any.
    std::int64_t length() const;
    bool isEmpty() const { return length() == 0; }
    /// Bytes that are at hand, and take memory as long as a copy of the body lives.
    std::int64_t heldBytes() const { return bytes_.size(); }
    /// All bytes in one place; made when they are first asked for, and kept as long as a copy of the body lives.
    Data bytes() const;
    /// Hands the bytes over without keeping them.
    Ending forEachPiece(const Take& take) const;
    /// How the body ends. May have to make the bytes, once, without keeping any.
    Ending ending() const;

    bool operator==(const StreamBody& other) const { return bytes() == other.bytes(); }

private:
    struct Made;
    Data bytes_;  ///< of a body without a source
    std::shared_ptr<Made> made_;
};

}  // namespace sealscope SEALSCOPE_API
