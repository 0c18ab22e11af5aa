// SPDX-License-Identifier: Apache-2.0
#include "app/cli/commands/Commands.h"
#include "app/texts/DisplayText.h"
#include "app/plugins/PlugInLoader.h"
#include "app/records/JSONLineWriter.h"
#include "host/VELModels/VELExporting.h"
#include "host/VELModels/VELPlugInsController.h"
#include "host/VELModels/VELStreamInterpreting.h"

#include <fmt/format.h>
#include <limits>

namespace sealscope::cli {

namespace {

constexpr std::uint64_t unlimited = std::numeric_limits<std::uint64_t>::max();

std::string_view nameOf(kVELSourceProtocols source)
{
    switch (source) {
    case kVELSourceProtocols::tcp: return "tcp";
    case kVELSourceProtocols::udp: return "udp";
    case kVELSourceProtocols::ethernet: return "ethernet";
    case kVELSourceProtocols::ip: return "ip";
    }
    return "unknown";
}

std::string_view nameOf(VELValueType type)
{
    switch (type) {
    case VELValueType::boolean: return "boolean";
    case VELValueType::number: return "number";
    case VELValueType::real: return "real";
    case VELValueType::string: return "string";
    case VELValueType::data: return "data";
    }
    return "unknown";
}

/// What stands under a name in a column's filter, as text.
std::optional<std::string> filterText(const VELPlugInColumn& column, const char* option)
{
    if (!column.predicateOptions) return std::nullopt;
    const auto found = column.predicateOptions->find(option);
    return found == column.predicateOptions->end() ? std::nullopt : std::optional(displayText(found->second));
}

/// The display names of the interpreters that a plug-in registers.
std::vector<std::string> interpreterNames(const VELPlugInStructure& plugIn)
{
    std::vector<std::string> names;
    if (const auto* analyzer = plugIn.plugInAnalyzerClass; analyzer && analyzer->streamInterpreter)
        names.emplace_back(analyzer->streamInterpreter->streamDisplayName);
    for (const VELStreamInterpreting* interpreter : plugIn.plugInStreamInterpreters) names.emplace_back(interpreter->streamDisplayName);
    return names;
}

std::vector<std::string> formatNames(const VELPlugInStructure& plugIn)
{
    std::vector<std::string> names;
    for (const StreamExportFormat* format : plugIn.plugInExportFormats) names.emplace_back(format->name);
    return names;
}

void writeNames(JSONLineWriter& json, std::string_view key, const std::vector<std::string>& names)
{
    json.key(key);
    json.beginArray();
    for (const std::string& name : names) json.value(name);
    json.endArray();
}

/// What a loaded plug-in says about itself. One that registers no description has at least what its class tells.
std::vector<VELPlugInStructure> descriptionsOf(const LoadedPlugIn& loaded)
{
    std::vector<VELPlugInStructure> descriptions;
    for (auto& registration : VELPlugInsController::sharedManager().plugIns())
        if (registration.plugIn.plugInPrincipalClass == loaded.principalClass) descriptions.push_back(std::move(registration.plugIn));
    if (!descriptions.empty()) return descriptions;

    const auto told = [](std::optional<std::string> (*tell)()) { return tell ? tell().value_or("") : std::string(); };
    const VELPrincipalClass& principal = *loaded.principalClass;
    VELPlugInStructure description{.plugInTitle = told(principal.pluginTitle), .plugInDescription = told(principal.pluginDescription)};
    description.plugInVersion = told(principal.pluginVersion);
    description.plugInAuthor = told(principal.pluginAuthor);
    if (description.plugInTitle.empty()) description.plugInTitle = loaded.bundle.stem().string();
    return {description};
}

void appendJSON(std::string& text, const LoadedPlugIn& loaded, const VELPlugInStructure& plugIn)
{
    JSONLineWriter json(text);
    json.beginObject();
    json.member("title", plugIn.plugInTitle);
    json.member("description", plugIn.plugInDescription);
    json.member("version", plugIn.plugInVersion);
    json.member("author", plugIn.plugInAuthor);
    json.key("columns");
    json.beginArray();
    for (const VELPlugInColumn& column : plugIn.plugInColumnKeyBindings) {
        json.beginObject();
        json.member("title", column.columnTitle);
        json.member("key", column.keyPath);
        json.member("filterTitle", filterText(column, VELBindingOption::displayName));
        json.member("filter", filterText(column, VELBindingOption::predicateFormat));
        json.endObject();
    }
    json.endArray();
    json.key("attributes");
    json.beginArray();
    for (const VELPlugInAnalyzerAttribute& attribute : plugIn.plugInAnalyzerAttributes) {
        json.beginObject();
        json.member("title", attribute.attributeTitle);
        json.member("key", attribute.attributeKey);
        json.member("type", nameOf(attribute.attributeType));
        json.member("offset", attribute.attributeOffset);
        json.key("length");
        if (attribute.attributeLength == unlimited)
            json.null();
        else
            json.value(attribute.attributeLength);
        json.endObject();
    }
    json.endArray();
    json.key("targetProtocols");
    json.beginArray();
    for (const VELPlugInNetworkProtocol& protocol : plugIn.plugInTargetProtocols) {
        json.beginObject();
        json.member("id", protocol.id.text());
        json.member("name", protocol.protocolName);
        json.key("ports");
        json.beginArray();
        for (const std::int64_t port : protocol.protocolPorts) json.value(port);
        json.endArray();
        json.member("source", nameOf(protocol.sourceProtocol));
        json.endObject();
    }
    json.endArray();
    const std::vector<std::string> interpreters = interpreterNames(plugIn);
    json.member("streams", interpreters.empty() ? std::nullopt : std::optional(interpreters.front()));
    writeNames(json, "interpreters", interpreters);
    writeNames(json, "exportFormats", formatNames(plugIn));
    json.member("principalClass", loaded.principalClass->name);
    json.member("bundle", loaded.bundle.string());
    json.endObject();
    text += '\n';
}

class PlugInText {
public:
    PlugInText(std::string& text, const Terminal& terminal) : text_(text), hasColors_(terminal.hasColors) {}

    void append(const LoadedPlugIn& loaded, const VELPlugInStructure& plugIn)
    {
        if (hasColors_) text_ += sequence(Style::strong);
        appendDisplaySafe(text_, plugIn.plugInTitle);
        if (hasColors_) text_ += resetSequence;
        row("description", plugIn.plugInDescription);
        row("version", plugIn.plugInVersion);
        row("author", plugIn.plugInAuthor);
        for (const VELPlugInColumn& column : plugIn.plugInColumnKeyBindings) {
            const auto filter = filterText(column, VELBindingOption::displayName);
            row("column", fmt::format("{} ({}){}", column.columnTitle, column.keyPath, filter ? "; filter: " + *filter : ""));
        }
        for (const VELPlugInAnalyzerAttribute& attribute : plugIn.plugInAnalyzerAttributes)
            row("attribute", fmt::format("{} ({}, {})", attribute.attributeTitle, attribute.attributeKey, nameOf(attribute.attributeType)));
        for (const VELPlugInNetworkProtocol& protocol : plugIn.plugInTargetProtocols) {
            const std::string ports =
                protocol.protocolPorts.empty() ? "any port" : fmt::format("{}", fmt::join(protocol.protocolPorts, ", "));
            row("protocol", fmt::format("{} over {}, {}", protocol.protocolName, nameOf(protocol.sourceProtocol), ports));
        }
        row("streams", fmt::format("{}", fmt::join(interpreterNames(plugIn), ", ")));
        row("exports", fmt::format("{}", fmt::join(formatNames(plugIn), ", ")));
        row("bundle", loaded.bundle.string());
        text_ += '\n';
    }

private:
    void row(std::string_view name, std::string_view value)
    {
        if (value.empty()) return;
        text_ += fmt::format("\n  {}{:<12}{}", hasColors_ ? sequence(Style::faint) : "", name, hasColors_ ? resetSequence : "");
        appendDisplaySafe(text_, value);
    }

    std::string& text_;
    bool hasColors_;
};

ExitStatus runPlugIns(const CommandContext& context)
{
    std::string text;
    for (const LoadedPlugIn& loaded : PlugInLoader::loaded()) {
        for (const VELPlugInStructure& plugIn : descriptionsOf(loaded)) {
            if (context.options.json) {
                appendJSON(text, loaded, plugIn);
                continue;
            }
            if (!text.empty()) text += '\n';
            PlugInText(text, context.terminal).append(loaded, plugIn);
        }
    }
    context.output.write(text);
    return done;
}

}  // namespace

const Command plugInsCommand{
    .name = "plugins",
    .arguments = "",
    .summary = "the loaded plug-ins, and what each brings",
    .description = "Prints title, description, version and author of each plug-in, the columns that it adds to the packet list, the\n"
                   "values that its analyzer gives, and the protocols that it serves. Plug-ins come from the folders of --plugin-path,\n"
                   "those of SEALSCOPE_PLUGIN_PATH, and the folder that belongs to the program; of two with one identifier the first\n"
                   "is used.",
    .examples = "sealscope plugins|the list\n"
                "sealscope plugins --plugin-path ~/my-plugins|with those of a folder\n"
                "sealscope plugins --json|one JSON object a line\n",
    .options = {Option::json},
    .fewestArguments = 0,
    .mostArguments = 0,
    .run = runPlugIns};

}  // namespace sealscope::cli
