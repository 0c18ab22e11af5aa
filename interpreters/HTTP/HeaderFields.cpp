// SPDX-License-Identifier: Apache-2.0
#include "interpreters/HTTP/HeaderFields.h"

#include "platform/UTF8.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace sealscope {

namespace {

constexpr char lower(char letter) { return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter | 0x20) : letter; }

constexpr int hexDigit(char letter)
{
    if (letter >= '0' && letter <= '9') return letter - '0';
    letter = lower(letter);
    return letter >= 'a' && letter <= 'f' ? letter - 'a' + 10 : -1;
}

constexpr std::array<bool, 256> tokenCharacters = [] {
    std::array<bool, 256> table{};
    for (const char letter : std::string_view("!#$%&'*+-.^_`|~0123456789")) table[static_cast<unsigned char>(letter)] = true;
    for (char letter = 'a'; letter <= 'z'; ++letter)
        table[static_cast<unsigned char>(letter)] = table[static_cast<unsigned char>(letter - 32)] = true;
    return table;
}();

/// Where a member or parameter ends: at the next separator outside of a quoted string.
std::size_t endOfPart(std::string_view value, char separator)
{
    bool isQuoted = false;
    for (std::size_t i = 0; i < value.size(); ++i) {
        if (isQuoted && value[i] == '\\') {
            ++i;
        } else if (value[i] == '"') {
            isQuoted = !isQuoted;
        } else if (value[i] == separator && !isQuoted) {
            return i;
        }
    }
    return value.size();
}

std::string unquoted(std::string_view value)
{
    if (!value.starts_with('"')) return std::string(value);
    std::string text;
    for (std::size_t i = 1; i < value.size() && value[i] != '"'; ++i) {
        if (value[i] == '\\' && i + 1 < value.size()) ++i;
        text += value[i];
    }
    return text;
}

std::string fromLatin1(std::string_view bytes)
{
    std::string text;
    for (const char byte : bytes) utf8::append(text, static_cast<unsigned char>(byte));
    return text;
}

/// charset'language'percent-encoded (RFC 8187 §3.2.1).
std::optional<std::string> extendedValue(std::string_view value)
{
    const std::size_t language = value.find('\'');
    const std::size_t text = language == std::string_view::npos ? language : value.find('\'', language + 1);
    if (text == std::string_view::npos) return std::nullopt;
    const std::string bytes = HeaderField::percentDecoded(value.substr(text + 1));
    const std::string_view charset = value.substr(0, language);
    if (HeaderField::isNamed(charset, "utf-8")) return utf8::decoded(DataView(bytes));
    if (HeaderField::isNamed(charset, "iso-8859-1")) return fromLatin1(bytes);
    return std::nullopt;
}

}  // namespace

bool HeaderField::isNamed(std::string_view name, std::string_view wanted)
{
    return name.size() == wanted.size() && std::ranges::equal(name, wanted, {}, lower, lower);
}

const std::string* HeaderField::find(const HeaderFields& fields, std::string_view name)
{
    const auto found = std::ranges::find_if(fields, [&](const DetailRow& field) { return isNamed(field.name, name); });
    return found == fields.end() ? nullptr : &found->value;
}

std::string_view HeaderField::trimmed(std::string_view text)
{
    const std::size_t start = text.find_first_not_of(" \t\r\n");
    if (start == std::string_view::npos) return {};
    return text.substr(start, text.find_last_not_of(" \t\r\n") + 1 - start);
}

std::vector<std::string_view> HeaderField::list(const HeaderFields& fields, std::string_view name)
{
    std::vector<std::string_view> members;
    for (const DetailRow& field : fields) {
        if (!isNamed(field.name, name)) continue;
        for (std::string_view rest = field.value; !rest.empty();) {
            const std::size_t end = endOfPart(rest, ',');
            if (const std::string_view member = trimmed(rest.substr(0, end)); !member.empty()) members.push_back(member);
            rest.remove_prefix(std::min(end + 1, rest.size()));
        }
    }
    return members;
}

bool HeaderField::listContains(const HeaderFields& fields, std::string_view name, std::string_view member)
{
    return std::ranges::any_of(list(fields, name), [&](std::string_view one) { return isNamed(one, member); });
}

std::string_view HeaderField::mediaType(std::string_view contentType) { return trimmed(contentType.substr(0, contentType.find(';'))); }

std::optional<std::string> HeaderField::parameter(std::string_view value, std::string_view name)
{
    for (std::string_view rest = value.substr(endOfPart(value, ';')); !rest.empty();) {
        rest.remove_prefix(1);
        const std::size_t end = endOfPart(rest, ';');
        const std::string_view part = rest.substr(0, end);
        rest.remove_prefix(end);
        const std::size_t equals = part.find('=');
        if (equals != std::string_view::npos && isNamed(trimmed(part.substr(0, equals)), name))
            return unquoted(trimmed(part.substr(equals + 1)));
    }
    return std::nullopt;
}

StreamBodyHint HeaderField::bodyHint(std::string_view contentType)
{
    std::string type(mediaType(contentType));
    std::ranges::transform(type, type.begin(), lower);
    static constexpr std::array<std::string_view, 17> texts{"application/json",
                                                            "application/xml",
                                                            "application/javascript",
                                                            "application/x-javascript",
                                                            "application/ecmascript",
                                                            "application/graphql",
                                                            "application/yaml",
                                                            "application/x-yaml",
                                                            "application/x-ndjson",
                                                            "application/x-www-form-urlencoded",
                                                            "application/sql",
                                                            "application/toml",
                                                            "application/jose",
                                                            "application/jwt",
                                                            "application/x-sh",
                                                            "application/x-mpegurl",
                                                            "application/vnd.apple.mpegurl"};
    if (!type.starts_with("text/") && !type.ends_with("+json") && !type.ends_with("+xml") &&
        std::ranges::find(texts, std::string_view(type)) == texts.end())
        return StreamBodyHint::binary();
    const auto charset = parameter(contentType, "charset");
    if (!charset || isNamed(*charset, "utf-8") || isNamed(*charset, "utf8") || isNamed(*charset, "us-ascii"))
        return StreamBodyHint::text(TextEncoding::utf8);
    if (isNamed(*charset, "iso-8859-1") || isNamed(*charset, "latin1") || isNamed(*charset, "windows-1252"))
        return StreamBodyHint::text(TextEncoding::latin1);
    return StreamBodyHint::binary();
}

std::optional<std::string> HeaderField::suggestedName(const HeaderFields& fields, std::string_view url)
{
    if (const std::string* disposition = find(fields, "content-disposition")) {
        std::optional<std::string> name;
        if (const auto extended = parameter(*disposition, "filename*")) name = extendedValue(*extended);  // it wins (RFC 6266 §4.3)
        if (!name) name = parameter(*disposition, "filename");
        if (name && !name->empty()) return text(*name);
    }
    url = url.substr(0, std::min(url.find('?'), url.find('#')));
    if (const std::size_t authority = url.find("://"); authority != std::string_view::npos) {
        const std::size_t path = url.find('/', authority + 3);
        url = path == std::string_view::npos ? std::string_view() : url.substr(path);
    }
    url = url.substr(url.rfind('/') + 1);
    if (url.empty()) return std::nullopt;
    if (!url.contains('%')) return text(url);
    return text(percentDecoded(url));
}

std::string HeaderField::percentDecoded(std::string_view text)
{
    std::string bytes;
    bytes.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        const int high = text[i] == '%' && i + 2 < text.size() ? hexDigit(text[i + 1]) : -1;
        const int low = high >= 0 ? hexDigit(text[i + 2]) : -1;
        if (low < 0) {
            bytes += text[i];
            continue;
        }
        bytes += static_cast<char>(high << 4 | low);
        i += 2;
    }
    return bytes;
}

bool HeaderField::isASCII(std::string_view bytes)
{
    constexpr std::uint64_t tops = 0x8080'8080'8080'8080;
    std::uint64_t all = 0, word = 0;
    if (bytes.size() < sizeof word) {
        for (const char byte : bytes) all |= static_cast<unsigned char>(byte);
        return (all & tops) == 0;
    }
    for (std::size_t offset = 0; bytes.size() - offset > sizeof word; offset += sizeof word) {
        std::memcpy(&word, bytes.data() + offset, sizeof word);
        all |= word;
    }
    std::memcpy(&word, bytes.data() + bytes.size() - sizeof word, sizeof word);  // some of them once more
    return ((all | word) & tops) == 0;
}

std::string HeaderField::text(std::string_view bytes) { return isASCII(bytes) ? std::string(bytes) : utf8::repaired(DataView(bytes)); }

bool HeaderField::isToken(std::string_view text)
{
    return !text.empty() && std::ranges::all_of(text, [](char letter) { return tokenCharacters[static_cast<unsigned char>(letter)]; });
}

}  // namespace sealscope
