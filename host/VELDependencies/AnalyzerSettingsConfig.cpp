// SPDX-License-Identifier: Apache-2.0
#include "host/VELDependencies/AnalyzerSettingsConfig.h"

#include "host/VELCommonTools/Color.h"
#include "host/VELCommonTools/Spacing.h"
#include "host/VELDependencies/VELNetworkProtocol.h"
#include "platform/Bundle.h"

#include <algorithm>

namespace sealscope {

namespace {

std::string localized(std::string_view key) { return std::string(Bundle::main().localizedString(key, "Localizable")); }

Binding<std::optional<Color>> colorBinding(UserDefaults& defaults, const std::string& key)
{
    const Binding<std::string> text = bindingToDefaults(defaults, key);
    return {
        .get = [text] { return colorOfRawValue(text.get()); },
        .set = [text](std::optional<Color> color) { text.set(color ? rawValue(*color) : std::string()); },
        .observe = text.observe,
    };
}

Binding<std::string> portsBinding(UserDefaults& defaults, const AnalyzerPortsSpec& spec)
{
    struct Stored {
        std::vector<VELNetworkProtocol> protocols;
        VELNetworkProtocol* edited = nullptr;
    };
    const auto read = [&defaults, spec] {
        Stored stored;
        if (const auto data = defaults.data(spec.protocolsKey))
            stored.protocols = decodedProtocols(*data, JSONKeyStrategy::convertFromSnakeCase).value_or(std::vector<VELNetworkProtocol>());
        const auto found = std::ranges::find(stored.protocols, spec.protocolName, &VELNetworkProtocol::protocolName);
        if (found != stored.protocols.end()) stored.edited = &*found;
        return stored;
    };
    return {
        .get =
            [read] {
                const Stored stored = read();
                return stored.edited ? stored.edited->protocolPorts : std::string();
            },
        .set =
            [read, &defaults, key = spec.protocolsKey](std::string ports) {
                Stored stored = read();
                if (!stored.edited) return;
                stored.edited->protocolPorts = std::move(ports);
                if (auto data = encodedProtocols(stored.protocols)) defaults.set(key, *std::move(data));
            },
        .observe = bindingToDefaults(defaults, spec.protocolsKey).observe,
    };
}

}  // namespace

AnyView settingsPage(const AnalyzerSettingsConfig& config)
{
    UserDefaults& defaults = UserDefaults::standard();
    std::vector<AnyView> rows;
    for (const AnalyzerToggleSpec& toggle : config.toggles) rows.emplace_back(Toggle{toggle.title, bindingToSwitch(defaults, toggle.key)});
    if (config.color) {
        rows.emplace_back(HStack{
            .spacing = rawValue(Spacing::regular),
            .children = {Toggle{localized("Use color"), bindingToSwitch(defaults, config.color->usesColorKey)},
                         ColorWell{localized("Color"), colorBinding(defaults, config.color->colorKey)}},
        });
    }
    if (config.ports) rows.emplace_back(TextField{localized("Ports"), portsBinding(defaults, *config.ports), "443, 8443", true});
    if (config.extraContent) rows.push_back(config.extraContent());
    return AnyView(VStack{HorizontalAlignment::leading, rawValue(Spacing::large), std::move(rows)}).fillingWidth();
}

}  // namespace sealscope
