// SPDX-License-Identifier: Apache-2.0
#include "app/session/PacketAnalyzers.h"

#include "host/VELDependencies/VELPluginPreferencesProtocol.h"
#include "host/VELModels/VELPlugInsController.h"

#include <algorithm>
#include <any>

namespace sealscope {

PacketAnalyzers::PacketAnalyzers()
{
    std::size_t position = 0;
    for (const auto& registration : VELPlugInsController::sharedManager().plugIns()) {
        const VELPlugInStructure& declared = registration.plugIn;
        if (!declared.plugInAnalyzerClass) continue;
        PacketPlugIn& plugIn = plugIns_.emplace_back(PacketPlugIn{.analyzerClass = declared.plugInAnalyzerClass});
        const auto addKey = [&](const std::string& key) {
            // A plug-in adds members to a row; it does not replace those that every row has.
            static constexpr std::string_view taken[] = {"number", "time", "source", "destination", "info"};
            if (std::ranges::find(taken, key) == std::end(taken) && std::ranges::find(plugIn.keys, key) == plugIn.keys.end())
                plugIn.keys.push_back(key);
        };
        for (const VELPlugInColumn& column : declared.plugInColumnKeyBindings) {
            addKey(column.keyPath);
            PacketPlugIn::Column& shown = plugIn.columns.emplace_back(
                PacketPlugIn::Column{.title = column.columnTitle, .key = column.keyPath, .position = position++});
            const auto text = [&](const char* option) -> std::string {
                if (!column.predicateOptions) return {};
                const auto found = column.predicateOptions->find(option);
                return found == column.predicateOptions->end() ? std::string() : displayText(found->second);
            };
            shown.filter = ColumnPredicate::parse(text(VELBindingOption::predicateFormat));
            shown.filterTitle = shown.filter ? text(VELBindingOption::displayName) : std::string();
        }
        for (const VELPlugInAnalyzerAttribute& attribute : declared.plugInAnalyzerAttributes) addKey(attribute.attributeKey);
        if (auto* preferences = declared.plugInPreferencesInstance; preferences && preferences->usesColor())
            plugIn.color = preferences->protocolColor();
    }
}

PacketMatch PacketAnalyzers::match(DataView payload) const
{
    static const std::any noPacket;
    for (const PacketPlugIn& plugIn : plugIns_)
        if (auto analyzer = plugIn.analyzerClass->create(payload, noPacket)) return {&plugIn, std::move(analyzer)};
    return {};
}

std::vector<std::string> PacketAnalyzers::columnTitles() const
{
    std::vector<std::string> titles;
    for (const PacketPlugIn& plugIn : plugIns_)
        for (const PacketPlugIn::Column& column : plugIn.columns) titles.push_back(column.title);
    return titles;
}

}  // namespace sealscope
