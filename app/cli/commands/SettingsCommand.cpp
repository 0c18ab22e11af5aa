// SPDX-License-Identifier: Apache-2.0
#include "app/cli/commands/Commands.h"
#include "app/texts/DisplayText.h"
#include "app/records/JSONLineWriter.h"
#include "app/settings/PlugInSettings.h"
#include "app/cli/text/Messages.h"
#include "app/cli/text/ViewText.h"
#include "host/VELCommonTools/Color.h"
#include "host/VELCommonTools/KeylogLocations.h"
#include "host/VELCommonTools/KeylogUserFile.h"
#include "host/VELDependencies/VELPluginPreferencesProtocol.h"
#include "platform/UserDefaults.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fmt/format.h>

namespace sealscope::cli {

namespace {

namespace fs = std::filesystem;
using Value = UserDefaults::Value;

/// A setting that is stored, or that a plug-in declares.
struct Setting {
    enum class Kind { boolean, color, text, number, real, data };
    std::string key;
    Kind kind = Kind::text;
    std::optional<Value> value;
};

Setting::Kind kindOf(const Value& value)
{
    static constexpr Setting::Kind kinds[] = {Setting::Kind::boolean, Setting::Kind::number, Setting::Kind::real, Setting::Kind::text,
                                              Setting::Kind::data};
    return kinds[value.index()];
}

std::string_view nameOf(Setting::Kind kind)
{
    static constexpr std::string_view names[] = {"boolean", "color", "string", "number", "real", "data"};
    return names[static_cast<std::size_t>(kind)];
}

/// What plug-ins declare, then the key log, then whatever else is stored.
std::vector<Setting> settings()
{
    std::vector<Setting> all;
    const auto add = [&](std::string key, Setting::Kind kind) {
        if (std::ranges::find(all, key, &Setting::key) == all.end()) all.push_back({.key = std::move(key), .kind = kind});
    };
    for (const auto& [title, instance] : plugInSettings()) {
        const auto config = instance->analyzerSettingsConfig();
        if (!config) continue;
        for (const AnalyzerToggleSpec& toggle : config->toggles) add(toggle.key, Setting::Kind::boolean);
        if (config->color) add(config->color->usesColorKey, Setting::Kind::boolean), add(config->color->colorKey, Setting::Kind::color);
        if (config->ports) add(config->ports->protocolsKey, Setting::Kind::data);
    }
    add(std::string(KeylogUserFile::pathDefaultsKey()), Setting::Kind::text);
    for (const auto& [key, value] : UserDefaults::standard().all()) add(key, kindOf(value));
    for (Setting& setting : all) setting.value = UserDefaults::standard().object(setting.key);
    return all;
}

/// The value as it is typed and shown; bytes as the text that they are.
std::string textOf(const Value& value)
{
    if (const auto* bytes = std::get_if<Data>(&value)) return std::string(bytes->view().text());
    return displayText(value);
}

/// What a text is not that a setting should be.
enum class NoValue : std::uint8_t { boolean, color, wholeNumber, number };

std::string_view textOf(NoValue problem)
{
    switch (problem) {
    case NoValue::boolean: return "is neither true nor false";
    case NoValue::color: return "is no colour; one is written as in \"#FFCC66\"";
    case NoValue::wholeNumber: return "is no whole number";
    case NoValue::number: return "is no number";
    }
    std::unreachable();
}

std::expected<Value, NoValue> valueOf(const Setting& setting, const std::string& text)
{
    const auto number = [&]<class Number>(Number value) -> std::optional<Value> {
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
        return error == std::errc() && end == text.data() + text.size() ? std::optional<Value>(value) : std::nullopt;
    };
    switch (setting.kind) {
    case Setting::Kind::boolean:
        for (const std::string_view yes : {"true", "yes", "on", "1"})
            if (text == yes) return true;
        for (const std::string_view no : {"false", "no", "off", "0"})
            if (text == no) return false;
        return std::unexpected(NoValue::boolean);
    case Setting::Kind::color:
        if (const auto color = colorOfRawValue(text)) return rawValue(*color);
        return std::unexpected(NoValue::color);
    case Setting::Kind::number:
        if (const auto whole = number(std::int64_t{})) return *whole;
        return std::unexpected(NoValue::wholeNumber);
    case Setting::Kind::real:
        if (const auto real = number(double{})) return *real;
        return std::unexpected(NoValue::number);
    case Setting::Kind::data: return Data::fromText(text);
    case Setting::Kind::text: break;
    }
    // The next run may begin in another folder; "~" is looked up by who opens the path.
    if (setting.key == KeylogUserFile::pathDefaultsKey() && !text.empty() && !text.starts_with('~'))
        return fs::absolute(text).lexically_normal().string();
    return text;
}

ExitStatus unknownSetting(std::string_view verb, std::string_view key, const std::vector<Setting>& all)
{
    std::vector<std::string_view> keys;
    for (const Setting& setting : all) keys.push_back(setting.key);
    const std::string_view near = nearestMatch(key, keys);
    complain(near.empty() ? fmt::format("settings {}: there is no setting '{}'; 'sealscope settings list' shows them", verb, key)
                          : fmt::format("settings {}: there is no setting '{}'; did you mean '{}'?", verb, key, near));
    return wrongCommandLine;
}

/// Says what keeps settings from being kept.
ExitStatus notKept()
{
    const auto problem = UserDefaults::standard().lastProblem();
    complain(problem ? problem->text() : "the settings cannot be kept");
    return failed;
}

void appendJSON(std::string& text, const Setting& setting)
{
    JSONLineWriter json(text);
    json.beginObject();
    json.member("key", setting.key);
    json.member("type", nameOf(setting.kind));
    json.member("value", setting.value);
    json.endObject();
    text += '\n';
}

ExitStatus list(const CommandContext& context)
{
    const std::vector<Setting> all = settings();
    std::size_t width = 0;
    for (const Setting& setting : all) width = std::max(width, setting.key.size());
    std::string text;
    for (const Setting& setting : all) {
        if (context.options.json) {
            appendJSON(text, setting);
            continue;
        }
        std::string key;
        const auto columns = static_cast<std::size_t>(appendDisplaySafe(key, setting.key));
        text += key;
        if (setting.value) {
            text.append(width + 2 - std::min(columns, width), ' ');
            appendDisplaySafe(text, textOf(*setting.value));
        }
        text += '\n';
    }
    context.output.write(text);
    return done;
}

ExitStatus get(const CommandContext& context)
{
    const std::vector<Setting> all = settings();
    const auto found = std::ranges::find(all, context.options.arguments[1], &Setting::key);
    if (found == all.end()) return unknownSetting("get", context.options.arguments[1], all);
    std::string text;
    if (context.options.json)
        appendJSON(text, *found);
    else
        text = (found->value ? textOf(*found->value) : std::string()) + '\n';
    context.output.write(text);
    return done;
}

ExitStatus set(const CommandContext& context)
{
    const std::vector<Setting> all = settings();
    const std::string& key = context.options.arguments[1];
    const std::string& text = context.options.arguments[2];
    const auto found = std::ranges::find(all, key, &Setting::key);
    if (found == all.end()) return unknownSetting("set", key, all);
    const auto value = valueOf(*found, text);
    if (!value) {
        complain(fmt::format("settings set {}: '{}' {}", key, text, textOf(value.error())));
        return wrongCommandLine;
    }
    return UserDefaults::standard().set(key, *value) ? done : notKept();
}

ExitStatus reset(const CommandContext&) { return resetSettings() ? done : notKept(); }

/// Prints the line that points a program at the managed key log, and sees to it that there is a file to write to.
ExitStatus keylogLine(const CommandContext& context)
{
    const fs::path keylog = KeylogLocations::liveKeylog();
    if (!KeylogLocations::makeLiveKeylog())
        remark(fmt::format("{}: cannot be created; programs will not write their secrets there", keylog.string()));
    context.output.write(fmt::format("SSLKEYLOGFILE={}\n", keylog.string()));
    return done;
}

/// The settings pages of the plug-ins, one below the other.
ExitStatus show(const CommandContext& context)
{
    if (context.options.json) return list(context);
    std::string text;
    for (const auto& [title, instance] : plugInSettings()) {
        if (!text.empty()) text += '\n';
        const bool hasColors = context.terminal.hasColors;
        if (hasColors) text += sequence(Style::accent);
        appendDisplaySafe(text, title);
        text += fmt::format("{}\n\n", hasColors ? resetSequence : "");
        const AnyView page = instance->settingsView({.get = [] { return Size{}; }, .set = [](Size) {}, .observe = {}});
        const ObservationToken shown = page.show();
        appendViewText(text, page, context.terminal);
    }
    context.output.write(text);
    return done;
}

struct Verb {
    std::string_view name;
    std::string_view arguments;
    std::size_t count;  ///< of words, its own included
    ExitStatus (*run)(const CommandContext&);
};
constexpr Verb verbs[] = {
    {"list", "", 1, list},
    {"get", " KEY", 2, get},
    {"set", " KEY VALUE", 3, set},
    {"reset", "", 1, reset},
    {"keylog-line", "", 1, keylogLine},
};

ExitStatus runSettings(const CommandContext& context)
{
    const std::vector<std::string>& words = context.options.arguments;
    const auto problem = UserDefaults::standard().lastProblem();
    if (words.empty()) {
        if (problem) remark(problem->text());
        return show(context);
    }
    const auto verb = std::ranges::find(verbs, words[0], &Verb::name);
    if (verb == std::end(verbs)) {
        std::vector<std::string_view> names;
        for (const Verb& each : verbs) names.push_back(each.name);
        const std::string_view near = nearestMatch(words[0], names);
        complain(near.empty() ? fmt::format("settings: '{}' is none of {}", words[0], fmt::join(names, ", "))
                              : fmt::format("settings: there is no '{}'; did you mean '{}'?", words[0], near));
        return wrongCommandLine;
    }
    if (words.size() != verb->count) {
        complain(fmt::format("settings {0}: the command is written 'sealscope settings {0}{1}'", verb->name, verb->arguments));
        return wrongCommandLine;
    }
    // Who changes settings hears it from the change.
    if (problem && verb->run != set && verb->run != reset) remark(problem->text());
    return verb->run(context);
}

}  // namespace

const Command settingsCommand{
    .name = "settings",
    .arguments = "[list | get KEY | set KEY VALUE | reset | keylog-line]",
    .summary = "show, set and reset the settings",
    .description =
        "Without a word shows the settings page of each plug-in. 'list' prints the keys and what is stored under them, 'get' and\n"
        "'set' read and change one, 'reset' restores all defaults. 'keylog-line' prints the line that points a browser or curl\n"
        "at the managed key log, whose secrets are always read, and creates the file when it is not there.",
    .examples = "sealscope settings|the settings, as a page\n"
                "sealscope settings list|keys and values\n"
                "sealscope settings set com_quillmarshworks_vel_tls_color_use true|colour the rows of the packet list\n"
                "export \"$(sealscope settings keylog-line)\"|let what is started from here write its secrets\n",
    .options = {Option::json},
    .fewestArguments = 0,
    .mostArguments = 3,
    .access = Access::settings,
    .run = runSettings};

}  // namespace sealscope::cli
