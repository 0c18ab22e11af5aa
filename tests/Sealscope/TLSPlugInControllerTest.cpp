// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSPlugInController.h"

#include "Sealscope/TLSProtocolAnalyzer.h"
#include "harness/TempDirectory.h"
#include "host/VELCommonTools/Color.h"
#include "host/VELModels/TLSDecryptionProbeRegistry.h"
#include "host/VELModels/VELPlugInsController.h"
#include "platform/UserDefaults.h"

#include <cstdlib>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits>
#include <nlohmann/json.hpp>

namespace sealscope {

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Optional;

constexpr auto protocols = TLSPlugInController::kTLSPlugInNetworkProtocol;
constexpr auto usesColor = TLSPlugInController::kTLSUsesColor;
constexpr auto color = TLSPlugInController::kTLSColor;

/// Each test begins with nothing stored in the standard user defaults, which lie in a folder of the test's own.
class TLSPlugInControllerTest : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        static const TempDirectory config;
        setenv("XDG_CONFIG_HOME", config.path().c_str(), 1);
    }
    void SetUp() override
    {
        for (const auto& [key, value] : defaults().all()) defaults().remove(key);
    }
    static UserDefaults& defaults() { return UserDefaults::standard(); }
    static nlohmann::json storedProtocols() { return nlohmann::json::parse(defaults().data(protocols).value_or(Data()).view().text()); }
    static void storeProtocols(std::string_view json) { defaults().set(protocols, Data::fromText(json)); }
};

}  // namespace

TEST_F(TLSPlugInControllerTest, DescribesThePlugInToTheHost)
{
    const std::size_t probes = TLSDecryptionProbeRegistry::shared().snapshot().size();
    const TLSPlugInController controller;
    EXPECT_EQ(TLSDecryptionProbeRegistry::shared().snapshot().size(), probes + 1);
    ASSERT_TRUE(controller.pluginStruct());
    const VELPlugInStructure& plugIn = *controller.pluginStruct();
    EXPECT_EQ(plugIn.plugInTitle, "Sealscope");
    EXPECT_EQ(plugIn.plugInDescription, "TLS Protocol Analyzer");
    EXPECT_EQ(plugIn.plugInVersion, "0") << "a program that links the code has no bundle to take it from";
    EXPECT_EQ(plugIn.plugInAuthor, TLSPlugInController::pluginAuthor());
    EXPECT_EQ(plugIn.plugInPrincipalClass, &TLSPlugInController::principalClass);
    EXPECT_EQ(plugIn.plugInPreferencesInstance, &controller);
    EXPECT_EQ(plugIn.plugInAnalyzerClass, &TLSProtocolAnalyzer::analyzerClass());

    ASSERT_EQ(plugIn.plugInColumnKeyBindings.size(), 1U);
    const VELPlugInColumn& column = plugIn.plugInColumnKeyBindings[0];
    EXPECT_EQ(column.columnTitle, "TLS Server Name");
    EXPECT_EQ(column.keyPath, "tlsServerName");
    EXPECT_FALSE(column.bindingOptions);
    const std::map<std::string, VELValue> options{{"NSDisplayName", "TLS Server Name contains"},
                                                  {"NSPredicateFormat", "tlsServerName CONTAINS[c] $value"}};
    EXPECT_EQ(column.predicateOptions, options);

    std::vector<std::string> attributes;
    for (const VELPlugInAnalyzerAttribute& attribute : plugIn.plugInAnalyzerAttributes) {
        attributes.push_back(attribute.attributeTitle + "/" + attribute.attributeKey);
        EXPECT_EQ(attribute.plugInAnalyzerClass, &TLSProtocolAnalyzer::analyzerClass());
        EXPECT_EQ(attribute.attributeType, attribute.attributeKey == "tlsSize" ? VELValueType::number : VELValueType::string);
        EXPECT_EQ(attribute.attributeOffset, 0U);
        EXPECT_EQ(attribute.attributeLength, std::numeric_limits<std::uint64_t>::max());
    }
    EXPECT_THAT(attributes, ElementsAre("TLS Size/tlsSize", "TLS Server Name/tlsServerName", "TLS Version/tlsVersion"));

    ASSERT_EQ(plugIn.plugInTargetProtocols.size(), 1U);
    EXPECT_EQ(plugIn.plugInTargetProtocols[0].protocolName, "TLS");
    EXPECT_THAT(plugIn.plugInTargetProtocols[0].protocolPorts, IsEmpty());

    const auto registered = VELPlugInsController::sharedManager().plugIns();
    ASSERT_FALSE(registered.empty());
    EXPECT_EQ(registered.back().plugIn.id, plugIn.id);
}

TEST_F(TLSPlugInControllerTest, StoresDefaultsAtTheFirstStart)
{
    const TLSPlugInController controller;
    const auto stored = storedProtocols();
    ASSERT_EQ(stored.size(), 1U);
    auto expected = nlohmann::json{{"protocolName", "TLS"}, {"protocolPorts", ""}, {"sourceProtocol", 0},
                                   {"ethertype", ""},       {"linktype", ""},      {"size", 0}};
    expected["id"] = controller.pluginStruct()->plugInTargetProtocols.at(0).id.text();
    EXPECT_EQ(stored[0], expected);
    EXPECT_EQ(defaults().object(usesColor), std::optional<UserDefaults::Value>(false));
    EXPECT_TRUE(defaults().string(color).and_then(colorOfRawValue));
}

TEST_F(TLSPlugInControllerTest, KeepsTheColourAndRewritesTheProtocolsAtEachStart)
{
    storeProtocols(
        R"([{"id": "00000000-0000-0000-0000-000000000001", "protocolName": "Other", "protocolPorts": "1", "sourceProtocol": 1}])");
    defaults().set(usesColor, true);
    defaults().set(color, std::string("#123456"));
    TLSPlugInController controller;
    EXPECT_EQ(storedProtocols().at(0).at("protocolName"), "TLS");
    EXPECT_TRUE(controller.usesColor());
    EXPECT_EQ(controller.protocolColor(), (Color{0x12, 0x34, 0x56}));

    const auto id = storedProtocols().at(0).at("id");
    const TLSPlugInController another;
    EXPECT_EQ(storedProtocols().at(0).at("id"), id) << "made once a process";

    controller.setDefaultSettings(true);
    EXPECT_FALSE(controller.usesColor());
    EXPECT_NE(defaults().string(color), "#123456");
}

TEST_F(TLSPlugInControllerTest, FillsInWhatIsStoredInAnotherType)
{
    struct Case {
        const char* name;
        UserDefaults::Value storedSwitch, storedColor;
        UserDefaults::Value expectedSwitch;
    };
    const Case cases[] = {
        {"a switch that is text is an object all the same", std::string("yes"), std::string("#123456"), std::string("yes")},
        {"a colour that is a number is no text", true, std::int64_t{7}, true},
    };
    for (const Case& each : cases) {
        defaults().set(usesColor, each.storedSwitch);
        defaults().set(color, each.storedColor);
        const TLSPlugInController controller;
        EXPECT_EQ(defaults().object(usesColor), std::optional(each.expectedSwitch)) << each.name;
        EXPECT_TRUE(defaults().string(color)) << each.name;
    }
}

TEST_F(TLSPlugInControllerTest, RegistersWhateverProtocolsAreStored)
{
    struct Case {
        const char *name, *json;
        std::vector<std::string> expected;
        bool isLogged;
    };
    const Case cases[] = {
        {"two, in their order",
         R"([{"id": "00000000-0000-0000-0000-000000000001", "protocolName": "B", "protocolPorts": "", "sourceProtocol": 0},)"
         R"( {"id": "00000000-0000-0000-0000-000000000002", "protocol_name": "A", "protocol_ports": "1", "source_protocol": 1, "x": []}])",
         {"B", "A"},
         false},
        {"none", "[]", {}, false},
        {"no list", R"({"id": 1})", {}, true},
        {"no JSON", "[", {}, true},
        {"a record without a name",
         R"([{"id": "00000000-0000-0000-0000-000000000001", "protocolPorts": "", "sourceProtocol": 0}])",
         {},
         true},
    };
    TLSPlugInController controller;
    for (const Case& each : cases) {
        storeProtocols(each.json);
        testing::internal::CaptureStderr();
        EXPECT_TRUE(controller.setupPlugIn()) << each.name;
        EXPECT_EQ(testing::internal::GetCapturedStderr().contains("setupPlugIn()"), each.isLogged) << each.name;
        std::vector<std::string> names;
        for (const auto& protocol : controller.pluginStruct()->plugInTargetProtocols) names.push_back(protocol.protocolName);
        EXPECT_EQ(names, each.expected) << each.name;
        if (each.isLogged) { EXPECT_EQ(storedProtocols().at(0).at("protocolName"), "TLS") << each.name; }
    }

    defaults().remove(protocols);
    EXPECT_TRUE(controller.setupPlugIn());
    EXPECT_THAT(controller.pluginStruct()->plugInTargetProtocols, IsEmpty());
    EXPECT_EQ(storedProtocols().at(0).at("protocolName"), "TLS") << "written for the next start";
}

TEST_F(TLSPlugInControllerTest, ReadsPortsAndSourceOfAStoredProtocol)
{
    struct Case {
        const char* ports;
        std::vector<std::int64_t> expected;
    };
    const Case ports[] = {
        {" 443, 8443,,abc", {443, 8443}},
        {"", {}},
        {",", {}},
        {"4 4 3", {443}},
        {"+1,-1,+-1,--1,+,-", {1, -1}},
        {"9223372036854775807,9223372036854775808,-9223372036854775808", {INT64_MAX, INT64_MIN}},
        {"007,70000,1.0,0x1,1\t", {7, 70000}},
        {"٤", {}},
    };
    for (const auto& [text, expected] : ports) {
        const VELNetworkProtocol stored{.protocolName = "P", .protocolPorts = text, .ethertype = "x", .linktype = "y", .size = 3};
        const VELPlugInNetworkProtocol target = TLSPlugInController::targetProtocol(stored);
        EXPECT_EQ(target.protocolPorts, expected) << text;
        EXPECT_FALSE(target.ethertype || target.linktype || target.size) << text;
    }
    const std::pair<std::int64_t, kVELSourceProtocols> sources[] = {{0, kVELSourceProtocols::tcp},
                                                                    {1, kVELSourceProtocols::udp},
                                                                    {2, kVELSourceProtocols::ethernet},
                                                                    {3, kVELSourceProtocols::ip},
                                                                    {4, kVELSourceProtocols::udp},
                                                                    {-1, kVELSourceProtocols::udp},
                                                                    {std::int64_t{1} << 32, kVELSourceProtocols::udp}};
    for (const auto& [raw, expected] : sources)
        EXPECT_EQ(TLSPlugInController::targetProtocol({.sourceProtocol = raw}).sourceProtocol, expected) << raw;
}

TEST_F(TLSPlugInControllerTest, TellsObserversBeforeTheDescriptionChanges)
{
    TLSPlugInController controller;
    const UUID first = controller.pluginStruct()->id;
    std::vector<UUID> seen;
    const auto token = controller.objectWillChange().add([&] { seen.push_back(controller.pluginStruct()->id); });
    EXPECT_TRUE(controller.setupPlugIn());
    EXPECT_THAT(seen, ElementsAre(first));
    EXPECT_NE(controller.pluginStruct()->id, first);
}

TEST_F(TLSPlugInControllerTest, AnswersForTheSettingsFromTheUserDefaultsAlone)
{
    TLSPlugInController controller;
    EXPECT_FALSE(controller.preferencesSheet());
    const auto config = controller.analyzerSettingsConfig();
    ASSERT_TRUE(config && config->color);
    EXPECT_THAT(config->toggles, IsEmpty());
    EXPECT_FALSE(config->ports);
    EXPECT_EQ(config->color->usesColorKey, "com_quillmarshworks_vel_tls_color_use");
    EXPECT_EQ(config->color->colorKey, "com_quillmarshworks_vel_tls_color");
    EXPECT_TRUE(std::holds_alternative<VStack>(config->extraContent().content()));

    defaults().remove(usesColor);
    EXPECT_FALSE(controller.usesColor());
    EXPECT_FALSE(defaults().object(usesColor)) << "asking stores nothing";

    for (const char* stored : {"", "red", "#12345", "#GG0000", "#1234567890"}) {
        defaults().set(color, std::string(stored));
        const Color replaced = controller.protocolColor();
        EXPECT_THAT(defaults().string(color), Optional(rawValue(replaced))) << stored;
        EXPECT_EQ(controller.protocolColor(), replaced) << stored;
    }
    defaults().set(color, std::string("#0a0B0c80"));
    EXPECT_EQ(controller.protocolColor(), (Color{0x0A, 0x0B, 0x0C, 0x80}));
}

TEST_F(TLSPlugInControllerTest, IsMadeByAnyOfItsInitializers)
{
    const VELPrincipalClass& principal = TLSPlugInController::principalClass;
    EXPECT_TRUE(principal.create());
    EXPECT_TRUE(principal.createWithPlugInsController(std::any(7)));
    EXPECT_TRUE(principal.createWithPlugInManager(std::any()));
    for (const auto tell : {principal.pluginTitle, principal.pluginDescription, principal.pluginVersion, principal.pluginAuthor})
        EXPECT_THAT(tell(), Optional(testing::Not(IsEmpty())));
    EXPECT_EQ(principal.property("kTLSPlugInNetworkProtocol"), "com_quillmarshworks_vel_tls_protocols");
    EXPECT_EQ(principal.property("kTLSUsesColor"), "com_quillmarshworks_vel_tls_color_use");
    EXPECT_EQ(principal.property("kTLSColor"), "com_quillmarshworks_vel_tls_color");
    EXPECT_EQ(principal.property("kTLSSize"), std::nullopt);
}

}  // namespace sealscope
