// SPDX-License-Identifier: Apache-2.0
#include "interpreters/HTTP/HARValues.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <fmt/format.h>

namespace sealscope {

namespace {

/// Calls `visit` with name and value of each part that a separator ends, up to a number that no browser sends. The list as a whole stands
/// in the archive too.
template <class Visit> void forEachPair(std::string_view list, char separator, const Visit& visit)
{
    int left = 10'000;
    while (!list.empty()) {
        const std::size_t end = std::min(list.find(separator), list.size());
        const std::string_view part = HeaderField::trimmed(list.substr(0, end));
        list.remove_prefix(std::min(end + 1, list.size()));
        if (part.empty()) continue;
        if (--left < 0) return;
        const std::size_t equals = std::min(part.find('='), part.size());
        visit(HeaderField::trimmed(part.substr(0, equals)), HeaderField::trimmed(part.substr(std::min(equals + 1, part.size()))));
    }
}

std::string formText(std::string_view text)
{
    std::string spaced(text);
    std::ranges::replace(spaced, '+', ' ');
    return HeaderField::text(HeaderField::percentDecoded(spaced));
}

}  // namespace

HeaderFields HARValues::headerFields(const StreamMessage& message)
{
    HeaderFields fields;
    std::size_t first = 0;
    // Whoever decrypted the message said so in front.
    if (message.isDecrypted)
        while (first < message.detail.size() && message.detail[first] == DetailRow{"TLS", "decrypted"}) ++first;
    for (; first < message.detail.size(); ++first) {
        const std::string_view name = message.detail[first].name;
        if (HeaderField::isToken(name.substr(name.starts_with(':')))) fields.push_back(message.detail[first]);
    }
    return fields;
}

std::string HARValues::headers(const HeaderFields& fields)
{
    std::string list = "[";
    for (const auto& [name, value] : fields)
        list.append(list.size() > 1 ? ",{\"name\":" : "{\"name\":").append(quoted(name)).append(",\"value\":").append(quoted(value)) += '}';
    return list += ']';
}

std::string HARValues::text(const JSON& value)
{
    if (value.is_array() && value.empty()) return "[]";
    return value.dump(-1, ' ', false, JSON::error_handler_t::replace);
}

std::string HARValues::quoted(std::string_view value)
{
    const auto isPlain = [](char letter) { return letter >= 0x20 && letter < 0x7F && letter != '"' && letter != '\\'; };
    if (!std::ranges::all_of(value, isPlain)) return text(JSON(value));
    std::string plain;
    plain.reserve(value.size() + 2);
    return plain.append(1, '"').append(value) += '"';
}

HARValues::JSON HARValues::requestCookies(const HeaderFields& fields)
{
    JSON list = JSON::array();
    for (const DetailRow& field : fields)
        if (HeaderField::isNamed(field.name, "cookie"))
            forEachPair(field.value, ';',
                        [&](std::string_view name, std::string_view value) { list.push_back({{"name", name}, {"value", value}}); });
    return list;
}

HARValues::JSON HARValues::replyCookies(const HeaderFields& fields)
{
    JSON list = JSON::array();
    for (const DetailRow& field : fields) {
        if (!HeaderField::isNamed(field.name, "set-cookie")) continue;
        JSON cookie;
        forEachPair(field.value, ';', [&](std::string_view name, std::string_view value) {
            if (cookie.empty())
                cookie = {{"name", name}, {"value", value}, {"httpOnly", false}, {"secure", false}};
            else if (HeaderField::isNamed(name, "path"))
                cookie["path"] = value;
            else if (HeaderField::isNamed(name, "domain"))
                cookie["domain"] = value;
            else if (HeaderField::isNamed(name, "httponly"))
                cookie["httpOnly"] = true;
            else if (HeaderField::isNamed(name, "secure"))
                cookie["secure"] = true;
            else if (const std::string date = HeaderField::isNamed(name, "expires") ? dateText(std::string(value)) : std::string();
                     !date.empty())
                cookie["expires"] = date;
        });
        if (!cookie.empty()) list.push_back(std::move(cookie));
    }
    return list;
}

std::string_view HARValues::queryOf(std::string_view url)
{
    url = url.substr(0, url.find('#'));
    const std::size_t mark = url.find('?');
    return mark == std::string_view::npos ? std::string_view() : url.substr(mark + 1);
}

HARValues::JSON HARValues::parameters(std::string_view query)
{
    JSON list = JSON::array();
    forEachPair(query, '&', [&](std::string_view name, std::string_view value) {
        list.push_back({{"name", formText(name)}, {"value", formText(value)}});
    });
    return list;
}

std::string HARValues::dateText(double seconds)
{
    const auto milliseconds = static_cast<std::int64_t>(std::llround(std::clamp(seconds, 0.0, 253'402'300'799.0) * 1'000));
    const std::time_t whole = milliseconds / 1'000;
    std::tm date{};
    gmtime_r(&whole, &date);
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}Z", date.tm_year + 1900, date.tm_mon + 1, date.tm_mday, date.tm_hour,
                       date.tm_min, date.tm_sec, milliseconds % 1'000);
}

std::string HARValues::dateText(const std::string& httpDate)
{
    std::tm date{};
    for (const char* format : {"%a, %d %b %Y %H:%M:%S GMT", "%a, %d-%b-%Y %H:%M:%S GMT"}) {
        const char* const end = strptime(httpDate.c_str(), format, &date);
        if (end && *end == 0) return dateText(static_cast<double>(timegm(&date)));
    }
    return {};
}

}  // namespace sealscope
