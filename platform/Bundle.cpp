// SPDX-License-Identifier: Apache-2.0
#include "platform/Bundle.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <dlfcn.h>
#include <fstream>
#include <nlohmann/json.hpp>
#include <unordered_map>

namespace sealscope {

namespace {

namespace fs = std::filesystem;

struct TextHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const { return std::hash<std::string_view>{}(text); }
};
using Texts = std::unordered_map<std::string, std::string, TextHash, std::equal_to<>>;

/// The JSON object in a file; nothing when the file is not there or holds anything else.
std::optional<nlohmann::json> readObject(const fs::path& file)
{
    std::ifstream stream(file);
    if (!stream) return std::nullopt;
    nlohmann::json object = nlohmann::json::parse(stream, nullptr, false);
    if (!object.is_object()) return std::nullopt;
    return object;
}

/// The text of an entry: the entry itself, or its "text" where a "comment" for translators stands beside it.
const nlohmann::json& textOf(const nlohmann::json& entry)
{
    const auto text = entry.is_object() ? entry.find("text") : entry.end();
    return text == entry.end() ? entry : *text;
}

/// The texts of a table in one language. An entry that is empty or no text counts as not translated.
std::optional<Texts> readTexts(const fs::path& file)
{
    const auto object = readObject(file);
    if (!object) return std::nullopt;
    Texts texts;
    texts.reserve(object->size());
    for (const auto& [key, entry] : object->items()) {
        const nlohmann::json& value = textOf(entry);
        if (!value.is_string()) continue;
        if (const auto& text = value.get_ref<const std::string&>(); !text.empty()) texts.emplace(key, text);
    }
    return texts;
}

std::optional<Bundle::InfoValue> infoValue(const nlohmann::json& value)
{
    if (value.is_string()) return value.get<std::string>();
    if (value.is_boolean()) return value.get<bool>();
    if (value.is_number_integer()) return value.get<std::int64_t>();
    if (value.is_number_float()) return value.get<double>();
    return std::nullopt;
}

std::string_view environment(const char* name)
{
    const char* const value = std::getenv(name);
    return value ? std::string_view(value) : std::string_view();
}

bool isUntranslatedLocale(std::string_view locale)
{
    return locale.empty() || locale == "C" || locale == "POSIX" || locale.starts_with("C.");
}

/// Appends the names under which a locale's tables may stand, the closest first: "sr_RS.UTF-8@latin" gives "sr_RS@latin",
/// "sr@latin", "sr_RS" and "sr".
void appendLanguages(std::vector<std::string>& languages, std::string_view locale)
{
    // The name becomes part of a path.
    if (isUntranslatedLocale(locale) || locale.contains('/')) return;
    const std::size_t at = std::min(locale.find('@'), locale.size());
    const std::string_view modifier = locale.substr(at);
    const std::string_view territorial = locale.substr(0, std::min(locale.find('.'), at));
    const std::string_view plain = territorial.substr(0, territorial.find('_'));
    const auto append = [&](std::string language) {
        if (std::ranges::find(languages, language) == languages.end()) languages.push_back(std::move(language));
    };
    for (const std::string_view suffix : {modifier, std::string_view()})
        for (const std::string_view name : {territorial, plain}) append(std::string(name).append(suffix));
    // Chinese is written in two ways, and tables are called after the way, not after where it is used.
    if (plain != "zh") return;
    const bool isTraditional = territorial == "zh_TW" || territorial == "zh_HK" || territorial == "zh_MO";
    append(isTraditional ? "zh-Hant" : "zh-Hans");
}

/// The texts of a table in the first of the user's languages that has it; none without such a language.
Texts readTexts(const fs::path& bundle, std::string_view table)
{
    if (bundle.empty()) return {};
    const std::string file = std::string(table) + ".json";
    for (const std::string& language : preferredLanguages()) {
        if (auto texts = readTexts(bundle / "Resources" / (language + ".lproj") / file)) return *std::move(texts);
        // The keys are the English texts: who prefers English to a further language needs no table.
        if (language == "en") return {};
    }
    return {};
}

/// The bundle of a folder, made when it is first asked for and never let go: views of its texts are held everywhere.
const Bundle& keptBundle(const fs::path& folder)
{
    static std::mutex mutex;
    static auto& bundles = *new std::map<fs::path, std::unique_ptr<const Bundle>>;
    const std::lock_guard lock(mutex);
    std::unique_ptr<const Bundle>& bundle = bundles[folder];
    if (!bundle) bundle = std::make_unique<const Bundle>(folder);
    return *bundle;
}

}  // namespace

/// The tables read so far, as a list that only grows at its front: a lookup takes no lock.
struct Bundle::Tables {
    struct Table {
        std::string name;
        Texts texts;
        const Table* next = nullptr;
    };

    const Table* find(std::string_view name) const
    {
        const Table* table = newest.load(std::memory_order_acquire);
        while (table && table->name != name) table = table->next;
        return table;
    }

    ~Tables()
    {
        for (const Table* table = newest.load(); table;) delete std::exchange(table, table->next);
    }

    std::mutex reading;
    std::atomic<const Table*> newest = nullptr;
};

Bundle::Bundle(fs::path folder) : folder_(std::move(folder)), tables_(std::make_unique<Tables>())
{
    if (folder_.empty()) return;
    const auto info = readObject(folder_ / "Info.json");
    if (!info) return;
    for (const auto& [key, value] : info->items()) {
        if (auto known = infoValue(value)) info_.emplace(key, *std::move(known));
    }
}

Bundle::~Bundle() = default;

const Bundle& Bundle::containing(const void* address)
{
    Dl_info module{};
    if (dladdr(address, &module) == 0 || !module.dli_fname) return keptBundle({});
    std::error_code unresolved;
    fs::path folder = fs::absolute(module.dli_fname, unresolved).lexically_normal();
    while (folder.has_relative_path() && folder.extension() != ".bundle") folder = folder.parent_path();
    return keptBundle(folder.extension() == ".bundle" ? folder : fs::path());
}

const Bundle& Bundle::main()
{
    static const Bundle& bundle = []() -> const Bundle& {
        std::error_code unreadable;
        return keptBundle(fs::read_symlink("/proc/self/exe", unreadable).parent_path().parent_path() / "share" / "sealscope");
    }();
    return bundle;
}

std::optional<std::string> Bundle::infoString(std::string_view key) const
{
    const auto found = info_.find(key);
    const auto* const text = found == info_.end() ? nullptr : std::get_if<std::string>(&found->second);
    return text ? std::optional(*text) : std::nullopt;
}

std::string_view Bundle::localizedString(std::string_view key, std::string_view table) const
{
    const Tables::Table* found = tables_->find(table);
    if (!found) {
        const std::lock_guard lock(tables_->reading);
        found = tables_->find(table);
        if (!found) {
            found = new Tables::Table{std::string(table), readTexts(folder_, table), tables_->newest.load()};
            tables_->newest.store(found, std::memory_order_release);
        }
    }
    if (found->texts.empty()) return key;
    const auto entry = found->texts.find(key);
    return entry == found->texts.end() ? key : std::string_view(entry->second);
}

std::vector<std::string> preferredLanguages()
{
    std::string_view locale = environment("LC_ALL");
    if (locale.empty()) locale = environment("LC_MESSAGES");
    if (locale.empty()) locale = environment("LANG");
    std::vector<std::string> languages;
    // As with gettext, LANGUAGE refines a locale and does not make one.
    if (isUntranslatedLocale(locale)) return languages;
    std::string_view list = environment("LANGUAGE");
    while (!list.empty()) {
        const std::size_t colon = std::min(list.find(':'), list.size());
        appendLanguages(languages, list.substr(0, colon));
        list.remove_prefix(std::min(colon + 1, list.size()));
    }
    if (languages.empty()) appendLanguages(languages, locale);
    return languages;
}

}  // namespace sealscope
