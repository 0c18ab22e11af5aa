// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/StreamData.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace sealscope {

/// The header of an HTTP/2 frame (RFC 9113 §4.1). Nothing in it has been validated.
struct HTTP2Frame {
    /// RFC 9113 §6; altSvc RFC 7838 §4, origin RFC 8336 §2, priorityUpdate RFC 9218 §7.1.
    enum class Type : std::uint8_t {
        data,
        headers,
        priority,
        rstStream,
        settings,
        pushPromise,
        ping,
        goAway,
        windowUpdate,
        continuation,
        altSvc,
        origin = 12,
        priorityUpdate = 16
    };
    static constexpr std::int64_t headerLength = 9;
    static constexpr std::uint8_t endStream = 0x01, acknowledged = 0x01, endHeaders = 0x04, padded = 0x08, hasPriority = 0x20;

    std::int64_t length = 0;  ///< of the payload
    Type type = Type::data;
    std::uint8_t flags = 0;
    std::uint32_t stream = 0;
    std::int64_t offset = 0;  ///< of the header's first byte

    ByteRange range() const { return {offset, offset + headerLength + length}; }
    ByteRange payload() const { return {offset + headerLength, offset + headerLength + length}; }
    bool has(std::uint8_t flag) const { return (flags & flag) != 0; }

    /// The nine bytes at an offset; zeros for what is not there.
    static HTTP2Frame read(StreamReader& reader, std::int64_t offset);
    /// Whether a frame may look like this: the lengths and streams that its type allows.
    bool isPossible() const;
    /// The same with a type that is known and the flags that it knows: what bytes of another protocol are hardly ever.
    bool isLikely(std::int64_t longest) const;

    /// Bytes of a frame that nobody has agreed on anything longer for (RFC 9113 §4.2), and what hardly anybody goes beyond.
    static constexpr std::int64_t longestAtFirst = 16'384, longestLikely = 1 << 20;

    std::string typeName() const;
    /// "CANCEL (0x8)" (RFC 9113 §7).
    static std::string errorName(std::uint32_t code);
    /// "MAX_FRAME_SIZE" (RFC 9113 §6.5.2), or "0x99".
    static std::string settingName(std::uint16_t setting);

    static constexpr std::string_view preface = "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n";  ///< RFC 9113 §3.4
    static bool beginsWithPreface(const StreamData& data);
    /// Whether `count` likely frames follow each other from an offset on; fewer are enough where the data ends behind them.
    static bool isChain(StreamReader& reader, std::int64_t offset, int count, std::int64_t longest = longestLikely);
};

}  // namespace sealscope
