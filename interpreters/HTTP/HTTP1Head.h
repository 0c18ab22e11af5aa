// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "interpreters/HTTP/HeaderFields.h"
#include "platform/Data.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace sealscope {

/// The start line and the header fields of an HTTP/1 message (RFC 9112 §2.1).
struct HTTP1Head {
    enum class Kind : std::uint8_t { request, reply };

    Kind kind = Kind::request;
    std::string method;  ///< of a request
    std::string target;
    int status = 0;  ///< of a reply
    std::string reason;
    int minorVersion = 1;  ///< the 1 of HTTP/1.1
    HeaderFields fields;
    std::string problem;  ///< what a strict parser has against it, as a clause; empty when nothing

    /// Reads a head. One that the standard's grammar refuses, or that stops before its empty line, gives what can be told of it line
    /// by line.
    static HTTP1Head parse(DataView bytes, Kind kind);
    /// Field lines alone: trailers (RFC 9112 §7.1.2).
    static HeaderFields fieldLines(std::string_view text);

    /// Whether a line, its end included or not, is the start line of one kind.
    static bool isStartLine(std::string_view line, Kind kind);
    /// Whether a text without a line's end may be the beginning of one.
    static bool beginsStartLine(std::string_view text, Kind kind);
    /// Characters of a method's name at most.
    static constexpr std::int64_t longestMethod = 32;
    /// Fields beyond this many are counted, not kept.
    static constexpr std::size_t mostFields = 4'096;
};

}  // namespace sealscope
