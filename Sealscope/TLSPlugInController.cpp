// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSPlugInController.h"

#include "Sealscope/TLSDecryptionProbe.h"
#include "Sealscope/TLSKeylogSection.h"
#include "Sealscope/TLSNames.h"
#include "Sealscope/TLSProtocolAnalyzer.h"
#include "host/VELCommonTools/Color.h"
#include "host/VELDependencies/VELPlugInBundle.h"
#include "host/VELKonstantsKeys/RandomColor.h"
#include "host/VELLog/velLog.h"
#include "host/VELModels/VELPlugInsController.h"
#include "platform/UserDefaults.h"

#include <charconv>
#include <fmt/format.h>
#include <limits>

namespace sealscope {

namespace {

constexpr std::uint64_t unlimited = std::numeric_limits<std::uint64_t>::max();

std::string localized(std::string_view key) { return std::string(plugInBundle().localizedString(key, localizationTable)); }

void log(const std::string& error, std::string_view function, std::uint_least32_t line)
{
    velLog({error}, "TLSPlugInController.cpp", function, line, ", ", "\n");
}

/// No ports: TLS is recognized by content on any of them.
const std::vector<VELNetworkProtocol>& defaultProtocols()
{
    static const std::vector<VELNetworkProtocol> protocols{{
        .id = UUID::random(),
        .protocolName = "TLS",
        .protocolPorts = "",
        .sourceProtocol = 0,
        .ethertype = "",
        .linktype = "",
        .size = 0,
    }};
    return protocols;
}

VELPlugInColumn serverNameColumn()
{
    return {
        .columnTitle = localized("TLS Server Name"),
        .keyPath = "tlsServerName",
        .bindingOptions = std::nullopt,
        .predicateOptions = {{
            {VELBindingOption::displayName, localized("TLS Server Name contains")},
            {VELBindingOption::predicateFormat, "tlsServerName CONTAINS[c] $value"},
        }},
    };
}

std::vector<VELPlugInAnalyzerAttribute> attributes()
{
    const VELAnalyzerClass* const analyzer = &TLSProtocolAnalyzer::analyzerClass();
    return {
        {analyzer, localized("TLS Size"), "tlsSize", VELValueType::number, 0, unlimited},
        {analyzer, localized("TLS Server Name"), "tlsServerName", VELValueType::string, 0, unlimited},
        {analyzer, localized("TLS Version"), "tlsVersion", VELValueType::string, 0, unlimited},
    };
}

std::vector<std::int64_t> portsOf(std::string text)
{
    std::erase(text, ' ');
    std::vector<std::int64_t> ports;
    for (std::string_view rest = text; !rest.empty();) {
        const std::size_t comma = std::min(rest.find(','), rest.size());
        std::string_view piece = rest.substr(0, comma);
        rest.remove_prefix(std::min(comma + 1, rest.size()));
        if (piece.starts_with('+') && !piece.starts_with("+-")) piece.remove_prefix(1);
        std::int64_t port = 0;
        const auto [end, error] = std::from_chars(piece.data(), piece.data() + piece.size(), port);
        if (error == std::errc() && end == piece.data() + piece.size()) ports.push_back(port);
    }
    return ports;
}

kVELSourceProtocols sourceProtocolOf(std::int64_t raw)
{
    switch (const auto source = static_cast<kVELSourceProtocols>(raw)) {
    case kVELSourceProtocols::tcp:
    case kVELSourceProtocols::udp:
    case kVELSourceProtocols::ethernet:
    case kVELSourceProtocols::ip: return source;
    }
    return kVELSourceProtocols::udp;
}

}  // namespace

constinit const VELPrincipalClass& TLSPlugInController::principalClass = principalClassOf<TLSPlugInController>;

std::optional<std::string> TLSPlugInController::property(std::string_view name)
{
    if (name == "kTLSPlugInNetworkProtocol") return kTLSPlugInNetworkProtocol;
    if (name == "kTLSUsesColor") return kTLSUsesColor;
    if (name == "kTLSColor") return kTLSColor;
    return std::nullopt;
}

std::optional<std::string> TLSPlugInController::pluginTitle() { return localized("Sealscope"); }

std::optional<std::string> TLSPlugInController::pluginDescription() { return localized("TLS Protocol Analyzer"); }

std::optional<std::string> TLSPlugInController::pluginVersion() { return plugInBundleVersion(); }

std::optional<std::string> TLSPlugInController::pluginAuthor() { return localized("The Sealscope developers"); }

TLSPlugInController::TLSPlugInController()
{
    setDefaultSettings(false);
    setupPlugIn();
}

bool TLSPlugInController::setupPlugIn()
{
    const Bundle& bundle = plugInBundle();
    std::vector<VELPlugInColumn> columns{serverNameColumn()};

    std::vector<VELNetworkProtocol> stored;
    if (const auto data = UserDefaults::standard().data(kTLSPlugInNetworkProtocol)) {
        if (auto decoded = decodedProtocols(*data, JSONKeyStrategy::convertFromSnakeCase)) {
            stored = *std::move(decoded);
        } else {
            log(decoded.error().text(), "setupPlugIn()", __LINE__);
            setDefaultSettings(false);
        }
    } else {
        setDefaultSettings(false);
    }

    std::vector<VELPlugInAnalyzerAttribute> analyzerAttributes = attributes();
    std::vector<VELPlugInNetworkProtocol> targetProtocols;
    for (const VELNetworkProtocol& protocol : stored) targetProtocols.push_back(targetProtocol(protocol));

    VELPlugInStructure structure{
        .id = UUID::random(),
        .plugInTitle = *pluginTitle(),
        .plugInDescription = *pluginDescription(),
        .plugInVersion = *pluginVersion(),
        .plugInAuthor = *pluginAuthor(),
        .plugInPrincipalClass = &principalClass,
        .plugInPreferencesInstance = this,
        .plugInAnalyzerClass = &TLSProtocolAnalyzer::analyzerClass(),
        .plugInAnalyzerAttributes = std::move(analyzerAttributes),
        .plugInTargetProtocols = std::move(targetProtocols),
        .plugInColumnKeyBindings = std::move(columns),
    };
    const bool isRegistered = VELPlugInsController::sharedManager().registerVELPlugIn(structure, bundle);
    TLSDecryptionProbeRegistry::shared().registerProbe(std::make_shared<const TLSDecryptionProbe>());
    setPluginStruct(std::move(structure));
    return isRegistered;
}

void TLSPlugInController::setDefaultSettings(bool reset)
{
    UserDefaults& defaults = UserDefaults::standard();
    if (auto data = encodedProtocols(defaultProtocols()))
        defaults.set(kTLSPlugInNetworkProtocol, *std::move(data));
    else
        log(data.error().text(), "setDefaultSettings(reset:)", __LINE__);
    if (reset || !defaults.object(kTLSUsesColor)) defaults.set(kTLSUsesColor, false);
    if (reset || !defaults.string(kTLSColor)) defaults.set(kTLSColor, rawValue(randomColor()));
}

void TLSPlugInController::setPluginStruct(std::optional<VELPlugInStructure> pluginStruct)
{
    objectWillChange().notify();
    pluginStruct_ = std::move(pluginStruct);
}

bool TLSPlugInController::usesColor() { return UserDefaults::standard().boolean(kTLSUsesColor); }

Color TLSPlugInController::protocolColor()
{
    UserDefaults& defaults = UserDefaults::standard();
    if (const auto stored = defaults.string(kTLSColor).and_then(colorOfRawValue)) return *stored;
    const Color color = randomColor();
    defaults.set(kTLSColor, rawValue(color));
    return color;
}

std::optional<AnalyzerSettingsConfig> TLSPlugInController::analyzerSettingsConfig()
{
    return AnalyzerSettingsConfig{
        .toggles = {},
        .color = AnalyzerColorSpec{kTLSUsesColor, kTLSColor},
        .ports = std::nullopt,
        .extraContent = [] { return TLSKeylogSection().body(); },
    };
}

VELPlugInNetworkProtocol TLSPlugInController::targetProtocol(const VELNetworkProtocol& stored)
{
    return {
        .id = stored.id,
        .protocolName = stored.protocolName,
        .protocolPorts = portsOf(stored.protocolPorts),
        .sourceProtocol = sourceProtocolOf(stored.sourceProtocol),
        .ethertype = std::nullopt,
        .linktype = std::nullopt,
        .size = std::nullopt,
    };
}

}  // namespace sealscope
