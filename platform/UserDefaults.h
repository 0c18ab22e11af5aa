// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Data.h"
#include "platform/FileDescriptor.h"
#include "platform/ObserverList.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace sealscope SEALSCOPE_API {

/// What stands in the way of reading or keeping settings.
struct UserDefaultsProblem {
    enum class Effect : std::uint8_t {
        notKept,
        unreadable,
        countsAsEmpty,  ///< until something is stored
        wasSetAside,    ///< and the settings began anew
    };
    enum class Cause : std::uint8_t {
        file,  ///< what `fileError` says
        noHome,
        homeIsMissing,
        belongsToAnother,
        isReadOnly,
        folderBelongsToAnother,
        isLocked,  ///< by another process
        isNoRegularFile,
        isTooLarge,
        nestsTooDeeply,
        isEmpty,
        isNoJSON,
        isNoObject,
        cannotBeSetAside,  ///< though it is damaged; `fileError` says why
        tooManySetAside,
    };
    Cause cause = Cause::file;
    FileError fileError = {};
    Effect effect = Effect::notKept;
    std::filesystem::path file = {};    ///< of the settings; empty where there is no place for them
    std::filesystem::path folder = {};  ///< the home folder that is missing
    std::string asideName = {};         ///< that a damaged file has now
    bool operator==(const UserDefaultsProblem&) const = default;

    /// "settings.json: settings are not kept: it is read-only"
    std::string text() const;
};

/// Typed settings by key, kept in one JSON file, `$XDG_CONFIG_HOME/sealscope/settings.json`. A write reads the file anew and
/// replaces it as a whole, so that several processes lose none of each other's; a damaged file is kept beside it. What
/// cannot be written lasts as long as the object. Any thread may call it; no value is cached longer than the file stays as
/// it was read.
class UserDefaults {
public:
    using Value = std::variant<bool, std::int64_t, double, std::string, Data>;

    /// The user's own settings.
    static UserDefaults& standard();
    /// Settings in a file of their own.
    explicit UserDefaults(std::filesystem::path file);
    ~UserDefaults();

    /// The file that holds them; empty where there is no home folder.
    const std::filesystem::path& file() const;
    /// What is stored under a key, of whatever type.
    std::optional<Value> object(std::string_view key) const;
    // A stored value of another type counts as absent.
    std::optional<std::string> string(std::string_view key) const;
    std::optional<Data> data(std::string_view key) const;
    /// False when nothing is stored.
    bool boolean(std::string_view key) const;

    /// Stores a value; a number must be finite. False when it could not be written; `lastProblem` then says why.
    bool set(std::string_view key, Value value);
    bool remove(std::string_view key);
    std::vector<std::pair<std::string, Value>> all() const;

    /// What stands in the way of reading or keeping settings; nothing when all is well.
    std::optional<UserDefaultsProblem> lastProblem() const;

    /// Calls `changed` on the writing thread after the value under a key has changed through this object, and on
    /// `synchronize` after another process changed it. The observation ends with the returned token.
    [[nodiscard]] ObservationToken observe(const std::string& key, std::function<void()> changed);
    /// Looks for changes that other processes made and tells the observers.
    void synchronize();

    UserDefaults(const UserDefaults&) = delete;
    UserDefaults& operator=(const UserDefaults&) = delete;

private:
    class Implementation;
    /// `home` has to exist before anything is made in it.
    UserDefaults(std::filesystem::path file, std::filesystem::path home);
    std::unique_ptr<Implementation> implementation_;
};

}  // namespace sealscope SEALSCOPE_API
