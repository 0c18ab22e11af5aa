// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Export.h"

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace sealscope SEALSCOPE_API {

/// A folder with a loadable module, an information dictionary (`Info.json`) and localized string tables
/// (`Resources/<language>.lproj/<table>.json`). Immutable once made, apart from string tables read on first use;
/// any thread may ask.
class Bundle {
public:
    using InfoValue = std::variant<std::string, std::int64_t, double, bool>;

    /// The bundle in a folder; one without information dictionary or tables when there are none.
    explicit Bundle(std::filesystem::path folder);
    /// The bundle that contains the code or data at an address, found by the path of its loaded module; an empty bundle
    /// when the address belongs to no bundle, as in a program that links the code. Kept for the life of the process.
    static const Bundle& containing(const void* address);
    /// The application's own bundle: `share/sealscope` beside the folder of its programs, for texts outside plug-ins.
    static const Bundle& main();

    const std::filesystem::path& path() const { return folder_; }
    const std::map<std::string, InfoValue, std::less<>>& infoDictionary() const { return info_; }
    /// The value under a key when it is a string.
    std::optional<std::string> infoString(std::string_view key) const;

    /// The text under `key` in a table, in the first of the user's languages that has the table; `key` itself when there
    /// is no entry. The result lives as long as the bundle and the key.
    std::string_view localizedString(std::string_view key, std::string_view table) const;

    Bundle(const Bundle&) = delete;
    Bundle& operator=(const Bundle&) = delete;
    ~Bundle();

private:
    struct Tables;
    std::filesystem::path folder_;
    std::map<std::string, InfoValue, std::less<>> info_;
    std::unique_ptr<Tables> tables_;
};

/// The user's languages, preferred first, from LANGUAGE, LC_ALL, LC_MESSAGES and LANG as gettext reads them; empty in the
/// "C" and "POSIX" locales. "de_AT.UTF-8" gives "de_AT" and then "de".
std::vector<std::string> preferredLanguages();

}  // namespace sealscope SEALSCOPE_API
