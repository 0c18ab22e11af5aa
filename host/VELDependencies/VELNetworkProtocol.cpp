// SPDX-License-Identifier: Apache-2.0
#include "host/VELDependencies/VELNetworkProtocol.h"

#include "platform/UTF8.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>
#include <map>
#include <nlohmann/json.hpp>
#include <utility>

namespace sealscope {

namespace {

using Json = nlohmann::ordered_json;
using ListProblem = ProtocolListError::Problem;

char upper(char letter) { return letter >= 'a' && letter <= 'z' ? static_cast<char>(letter - 'a' + 'A') : letter; }
char lower(char letter) { return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter; }

/// "one_two_three" as "oneTwoThree". Underscores at either end stay, and so does a key of one word.
std::string camelCase(const std::string& key)
{
    const std::size_t first = key.find_first_not_of('_');
    if (first == std::string::npos) return key;
    const std::size_t end = key.find_last_not_of('_') + 1;
    if (key.substr(first, end - first).find('_') == std::string::npos) return key;

    std::string result = key.substr(0, first);
    bool isFirstWord = true;
    bool startsWord = true;
    for (std::size_t i = first; i < end; ++i) {
        if (key[i] == '_') {
            isFirstWord = false;
            startsWord = true;
            continue;
        }
        result += startsWord && !isFirstWord ? upper(key[i]) : lower(key[i]);
        startsWord = false;
    }
    return result + key.substr(end);
}

/// The members of one record, by the names of its fields. Throws a `ProtocolListError` about a field.
class Members {
public:
    Members(const Json& object, JSONKeyStrategy keys)
    {
        if (!object.is_object()) throw ProtocolListError{.problem = ListProblem::elementIsNoObject};
        for (const auto& [key, value] : object.items())
            members_.try_emplace(keys == JSONKeyStrategy::convertFromSnakeCase ? camelCase(key) : key, &value);
    }

    std::string text(const char* field) const { return optionalText(field) ? *optionalText(field) : throw missing(field); }
    std::int64_t number(const char* field) const { return optionalNumber(field) ? *optionalNumber(field) : throw missing(field); }

    std::optional<std::string> optionalText(const char* field) const
    {
        const Json* value = find(field);
        if (!value) return std::nullopt;
        if (!value->is_string()) throw ProtocolListError{.problem = ListProblem::fieldIsNoString, .field = field};
        return value->get<std::string>();
    }

    std::optional<std::int64_t> optionalNumber(const char* field) const
    {
        const Json* value = find(field);
        if (!value) return std::nullopt;
        if (value->is_number_unsigned() && value->get<std::uint64_t>() > INT64_MAX)
            throw ProtocolListError{.problem = ListProblem::fieldIsNoInteger, .field = field};
        if (value->is_number_integer()) return value->get<std::int64_t>();
        // 80.0 is a way to write 80.
        const double number = value->is_number_float() ? value->get<double>() : 0.5;
        if (number != std::trunc(number) || number < -0x1p63 || number >= 0x1p63)
            throw ProtocolListError{.problem = ListProblem::fieldIsNoInteger, .field = field};
        return static_cast<std::int64_t>(number);
    }

private:
    const Json* find(const char* field) const
    {
        const auto member = members_.find(field);
        return member == members_.end() || member->second->is_null() ? nullptr : member->second;
    }
    static ProtocolListError missing(const char* field) { return {.problem = ListProblem::fieldIsMissing, .field = field}; }

    std::map<std::string, const Json*, std::less<>> members_;
};

VELNetworkProtocol decodedProtocol(const Json& json, JSONKeyStrategy keys)
{
    const Members members(json, keys);
    const auto id = UUID::fromText(members.text("id"));
    if (!id) throw ProtocolListError{.problem = ListProblem::fieldIsNoUUID, .field = "id"};
    return {
        .id = *id,
        .protocolName = members.text("protocolName"),
        .protocolPorts = members.text("protocolPorts"),
        .sourceProtocol = members.number("sourceProtocol"),
        .ethertype = members.optionalText("ethertype"),
        .linktype = members.optionalText("linktype"),
        .size = members.optionalNumber("size"),
    };
}

}  // namespace

std::string ProtocolListError::text() const
{
    switch (problem) {
    case ListProblem::isNotUTF8: return "a text of the list is not UTF-8";
    case ListProblem::isNotJSON: return "the data are not JSON";
    case ListProblem::isNoArray: return "the data are no JSON array";
    case ListProblem::elementIsNoObject: return fmt::format("element {}: an element is no object", element);
    case ListProblem::fieldIsMissing: return fmt::format("element {}: {} is missing", element, field);
    case ListProblem::fieldIsNoString: return fmt::format("element {}: {} is not a string", element, field);
    case ListProblem::fieldIsNoInteger: return fmt::format("element {}: {} is not a 64-bit integer", element, field);
    case ListProblem::fieldIsNoUUID: return fmt::format("element {}: {} is not a UUID", element, field);
    }
    std::unreachable();
}

std::expected<Data, ProtocolListError> encodedProtocols(const std::vector<VELNetworkProtocol>& protocols)
{
    Json list = Json::array();
    for (const VELNetworkProtocol& protocol : protocols) {
        Json& object = list.emplace_back(Json{
            {"id", protocol.id.text()},
            {"protocolName", protocol.protocolName},
            {"protocolPorts", protocol.protocolPorts},
            {"sourceProtocol", protocol.sourceProtocol},
        });
        if (protocol.ethertype) object["ethertype"] = *protocol.ethertype;
        if (protocol.linktype) object["linktype"] = *protocol.linktype;
        if (protocol.size) object["size"] = *protocol.size;
    }
    try {
        return Data::fromText(list.dump());
    } catch (const Json::type_error&) {
        return std::unexpected(ProtocolListError{.problem = ListProblem::isNotUTF8});
    }
}

std::expected<std::vector<VELNetworkProtocol>, ProtocolListError> decodedProtocols(DataView json, JSONKeyStrategy keys)
{
    const Json list = Json::parse(json.begin(), json.end(), nullptr, false);
    if (list.is_discarded()) return std::unexpected(ProtocolListError{.problem = ListProblem::isNotJSON});
    if (!list.is_array()) return std::unexpected(ProtocolListError{.problem = ListProblem::isNoArray});
    std::vector<VELNetworkProtocol> protocols;
    try {
        for (const Json& element : list) protocols.push_back(decodedProtocol(element, keys));
    } catch (const ProtocolListError& error) {
        return std::unexpected(ProtocolListError{error.problem, std::ssize(protocols), error.field});
    }
    return protocols;
}

}  // namespace sealscope
