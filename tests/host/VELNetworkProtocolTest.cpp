// SPDX-License-Identifier: Apache-2.0
#include "host/VELDependencies/VELNetworkProtocol.h"

#include <gtest/gtest.h>

namespace sealscope {

namespace {

const UUID someId = *UUID::fromText("0a1B2c3D-0000-4000-8000-00000000000F");

std::string record(std::string_view members)
{
    return std::string(R"([{"id":"0a1b2c3d-0000-4000-8000-00000000000f","protocolName":"P","protocolPorts":"1","sourceProtocol":2)") +
           std::string(members) + "}]";
}

}  // namespace

TEST(VELNetworkProtocol, IsDecodedStrictlyWhereItMatters)
{
    const VELNetworkProtocol plain{.id = someId, .protocolName = "P", .protocolPorts = "1", .sourceProtocol = 2};
    VELNetworkProtocol full = plain;
    full.ethertype = "0x0800";
    full.linktype = "";
    full.size = -3;
    struct Case {
        const char* name;
        std::string json;
        std::optional<std::vector<VELNetworkProtocol>> expected;  ///< nothing when it is refused
    };
    const Case cases[] = {
        {"an empty list", "[]", {{}}},
        {"the fields that there must be", record(""), {{plain}}},
        {"all of them", record(R"(,"ethertype":"0x0800","linktype":"","size":-3.0)"), {{full}}},
        {"null counts as missing", record(R"(,"ethertype":null,"size":null)"), {{plain}}},
        {"what is unknown is ignored", record(R"(,"color":{"red":1})"), {{plain}}},
        {"words joined by underscores",
         R"([{"id":"0A1B2C3D-0000-4000-8000-00000000000F","protocol_name":"P","protocol_PORTS":"1","source__protocol":2e0}])",
         {{plain}}},
        {"underscores around a key stay",
         R"([{"id":"0A1B2C3D-0000-4000-8000-00000000000F","_protocolName":"P","protocolPorts":"","sourceProtocol":0}])",
         {}},
        {"ports that are no text",
         R"([{"id":"0A1B2C3D-0000-4000-8000-00000000000F","protocolName":"P","protocolPorts":1,"sourceProtocol":0}])",
         {}},
        {"no UUID", R"([{"id":"0A1B2C3D0000-4000-8000-00000000000F","protocolName":"P","protocolPorts":"","sourceProtocol":0}])", {}},
        {"a size with a fraction", record(R"(,"size":1.5)"), {}},
        {"a size beyond 64 bits", record(R"(,"size":9223372036854775808)"), {}},
        {"a size that is a switch", record(R"(,"size":true)"), {}},
        {"an ethertype that is a number", record(R"(,"ethertype":2048)"), {}},
        {"an element that is no object", "[1]", {}},
        {"no list", "{}", {}},
        {"more than a list", "[] []", {}},
        {"nothing", "", {}},
    };
    for (const auto& [name, json, expected] : cases) {
        const auto decoded = decodedProtocols(DataView(json), JSONKeyStrategy::convertFromSnakeCase);
        EXPECT_EQ(decoded.has_value(), expected.has_value()) << name;
        if (decoded && expected) { EXPECT_EQ(*decoded, *expected) << name; }
    }
    EXPECT_FALSE(decodedProtocols(DataView(std::string_view(cases[5].json)), JSONKeyStrategy::useDefaultKeys));
}

TEST(VELNetworkProtocol, ReadsBackWhatItWrote)
{
    const std::vector<VELNetworkProtocol> protocols{
        {.id = someId, .protocolName = "Ä \"quoted\" \\ /", .protocolPorts = "443,8443", .sourceProtocol = INT64_MIN},
        {.id = UUID::random(),
         .protocolName = "",
         .protocolPorts = "",
         .sourceProtocol = 3,
         .ethertype = "",
         .linktype = "1",
         .size = INT64_MAX},
    };
    for (const auto strategy : {JSONKeyStrategy::useDefaultKeys, JSONKeyStrategy::convertFromSnakeCase})
        EXPECT_EQ(decodedProtocols(encodedProtocols(protocols).value(), strategy).value(), protocols);
    EXPECT_FALSE(encodedProtocols({{.protocolName = "caf\xE9"}})) << "JSON is UTF-8";
}

}  // namespace sealscope
