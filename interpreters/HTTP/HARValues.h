// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/StreamMessage.h"
#include "interpreters/HTTP/HeaderFields.h"

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace sealscope {

/// The parts of an entry in an HTTP archive (HAR 1.2).
struct HARValues {
    HARValues() = delete;
    using JSON = nlohmann::ordered_json;

    /// The rows of a message that are header fields.
    static HeaderFields headerFields(const StreamMessage& message);
    /// A list of them.
    static std::string headers(const HeaderFields& fields);
    /// Of Cookie (RFC 6265 §4.2.1).
    static JSON requestCookies(const HeaderFields& fields);
    /// Of Set-Cookie (RFC 6265 §4.1.1).
    static JSON replyCookies(const HeaderFields& fields);
    /// The parameters of a URL's query, or of a form.
    static JSON parameters(std::string_view query);
    /// A value as it is written. Most archives are many small values.
    static std::string text(const JSON& value);
    /// A string as it is written, in its quotes.
    static std::string quoted(std::string_view value);
    static std::string_view queryOf(std::string_view url);
    /// "2023-11-14T22:13:20.250Z" (ISO 8601).
    static std::string dateText(double seconds);
    /// A date of HTTP (RFC 9110 §5.6.7) as one of HAR; empty when it is none.
    static std::string dateText(const std::string& httpDate);
};

}  // namespace sealscope
