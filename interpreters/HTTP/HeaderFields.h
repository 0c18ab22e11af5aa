// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/StreamMessage.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sealscope {

/// Header fields as rows, in wire order.
using HeaderFields = std::vector<DetailRow>;

/// Questions about header fields. Names compare without case (RFC 9110 §5.1).
struct HeaderField {
    HeaderField() = delete;

    static bool isNamed(std::string_view name, std::string_view wanted);
    /// The value of the first field of a name, or null.
    static const std::string* find(const HeaderFields& fields, std::string_view name);
    /// The members of a list-based field, from all its lines, without white space around them (RFC 9110 §5.6.1).
    static std::vector<std::string_view> list(const HeaderFields& fields, std::string_view name);
    static bool listContains(const HeaderFields& fields, std::string_view name, std::string_view member);
    /// "text/html" of "text/html; charset=utf-8".
    static std::string_view mediaType(std::string_view contentType);
    /// A parameter's value without its quotes: "utf-8" of "text/html; charset=\"utf-8\"" (RFC 9110 §5.6.6).
    static std::optional<std::string> parameter(std::string_view value, std::string_view name);
    /// How to show a body of this Content-Type.
    static StreamBodyHint bodyHint(std::string_view contentType);
    /// What Content-Disposition calls the body (RFC 6266), else the last component of the URL's path; nothing where both are empty.
    static std::optional<std::string> suggestedName(const HeaderFields& fields, std::string_view url);
    /// The bytes of a percent-encoded text (RFC 3986 §2.1); what is no escape stands for itself.
    static std::string percentDecoded(std::string_view text);
    static bool isASCII(std::string_view bytes);
    /// Text from the wire as UTF-8.
    static std::string text(std::string_view bytes);
    /// The characters of a field name (RFC 9110 §5.6.2).
    static bool isToken(std::string_view text);
    static std::string_view trimmed(std::string_view text);
};

}  // namespace sealscope
