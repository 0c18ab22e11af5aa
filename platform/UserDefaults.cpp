// SPDX-License-Identifier: Apache-2.0
//
// The file is one JSON object, a member a setting: true and false, numbers and strings stand as they are, bytes as
// {"data": "<Base64>"}, and a string that is not UTF-8, such as a path of old, as {"string": "<Base64>"}.
// A member of any other form was not written here; it counts as absent, and stays.
//
// Writers take turns by a lock file beside it, read the file anew, change one member, and rename a complete new file into its place.
// So readers need no lock, and no writer overwrites what another has just written. What cannot be written is kept in memory:
// the program goes on with the setting, and the next write that succeeds takes it along.
#include "platform/UserDefaults.h"

#include "platform/Base64.h"
#include "platform/FileDescriptor.h"
#include "platform/UTF8.h"

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <expected>
#include <fcntl.h>
#include <fmt/format.h>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace sealscope {

namespace {

namespace fs = std::filesystem;
using Value = UserDefaults::Value;
using Json = nlohmann::json;
using Problem = UserDefaultsProblem;
using Cause = Problem::Cause;

constexpr std::int64_t largestFile = 1024 * 1024;
constexpr int deepestNesting = 32;  ///< ours is two deep; what others put beside it stays as it is
constexpr std::chrono::microseconds longestPause{5'000};
constexpr std::chrono::milliseconds longestWait{2'000};  ///< for other writers, each of which needs well under a millisecond

/// Tells one state of a file from another: each write makes a new file, and every edit changes the times.
struct FileStamp {
    bool exists = false;
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    std::int64_t changed = 0;
    std::int64_t modified = 0;
    bool operator==(const FileStamp&) const = default;
};

FileStamp stampOf(const struct stat& status)
{
    const auto nanoseconds = [](const timespec& time) { return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec; };
    return {true, status.st_dev, status.st_ino, status.st_size, nanoseconds(status.st_ctim), nanoseconds(status.st_mtim)};
}

FileStamp stampOf(const fs::path& file)
{
    struct stat status{};
    return stat(file.c_str(), &status) == 0 ? stampOf(status) : FileStamp{};
}

Json jsonOf(const Value& value)
{
    struct Form {
        Json operator()(const std::string& text) const
        {
            const DataView bytes(text);
            return utf8::isWellFormed(bytes) ? Json(text) : Json{{"string", base64(bytes)}};
        }
        Json operator()(const Data& bytes) const { return {{"data", base64(bytes)}}; }
        Json operator()(bool flag) const { return flag; }
        Json operator()(std::int64_t number) const { return number; }
        Json operator()(double number) const { return number; }
    };
    return std::visit(Form{}, value);
}

std::optional<Value> valueOf(const Json& json)
{
    if (json.is_boolean()) return json.get<bool>();
    if (json.is_number_unsigned() && json.get<std::uint64_t>() > INT64_MAX) return json.get<double>();
    if (json.is_number_integer()) return json.get<std::int64_t>();
    if (json.is_number_float()) return json.get<double>();
    if (json.is_string()) return json.get<std::string>();
    if (!json.is_object() || json.size() != 1) return std::nullopt;
    const auto member = json.begin();
    if (!member->is_string()) return std::nullopt;
    const auto bytes = fromBase64(member->get_ref<const std::string&>());
    if (!bytes) return std::nullopt;
    if (member.key() == "data") return *bytes;
    if (member.key() == "string") return std::string(bytes->view().text());
    return std::nullopt;
}

Problem ofSystem(int error) { return {.fileError = FileError::ofSystem(error)}; }

/// What the file holds. Without a file there is nothing stored, and nothing is wrong.
struct Contents {
    enum class State : std::uint8_t { missing, fine, damaged, unreadable };
    State state = State::missing;
    Problem problem;  ///< of the last two
    Json members = Json::object();
    FileStamp stamp;
};

/// Whether a JSON text nests deeper than anybody's settings do: each level costs a hundred bytes of memory for one of text.
bool isNestedTooDeeply(std::string_view text)
{
    int depth = 0;
    bool isInString = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char character = text[i];
        if (isInString) {
            if (character == '\\')
                ++i;
            else if (character == '"')
                isInString = false;
        } else if (character == '"') {
            isInString = true;
        } else if (character == '{' || character == '[') {
            if (++depth > deepestNesting) return true;
        } else if (character == '}' || character == ']') {
            --depth;
        }
    }
    return false;
}

Contents readContents(const fs::path& file)
{
    const auto failed = [](Contents::State state, Cause cause, FileStamp stamp) {
        return Contents{state, {.cause = cause}, Json::object(), stamp};
    };
    const auto unreadable = [](int error, FileStamp stamp) {
        return Contents{Contents::State::unreadable, ofSystem(error), Json::object(), stamp};
    };
    const FileDescriptor descriptor(open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!descriptor) {
        if (errno == ENOENT || errno == ENOTDIR) return {};
        return unreadable(errno, stampOf(file));
    }
    struct stat status{};
    if (fstat(descriptor.number(), &status) != 0) return unreadable(errno, {});
    const FileStamp stamp = stampOf(status);
    if (!S_ISREG(status.st_mode)) return failed(Contents::State::unreadable, Cause::isNoRegularFile, stamp);
    if (status.st_size > largestFile) return failed(Contents::State::unreadable, Cause::isTooLarge, stamp);

    std::string text(static_cast<std::size_t>(status.st_size), '\0');
    std::size_t length = 0;
    while (length < text.size()) {
        const std::int64_t count = descriptor.read({reinterpret_cast<std::uint8_t*>(text.data()) + length, text.size() - length});
        if (count < 0) return unreadable(errno, stamp);
        if (count == 0) break;
        length += static_cast<std::size_t>(count);
    }
    text.resize(length);

    if (isNestedTooDeeply(text)) return failed(Contents::State::damaged, Cause::nestsTooDeeply, stamp);
    Json members = Json::parse(text, nullptr, false);
    if (members.is_discarded()) return failed(Contents::State::damaged, text.empty() ? Cause::isEmpty : Cause::isNoJSON, stamp);
    if (!members.is_object()) return failed(Contents::State::damaged, Cause::isNoObject, stamp);
    return {Contents::State::fine, {}, std::move(members), stamp};
}

/// The first folder of the path's that exists.
fs::path nearestFolder(fs::path folder)
{
    std::error_code error;
    while (!fs::exists(folder, error) && folder.has_relative_path()) folder = folder.parent_path();
    return folder;
}

/// Fails where a file must be left as it is although the system might let us replace it.
std::expected<void, Problem> mayReplace(const fs::path& file)
{
    struct stat status{};
    if (stat(file.c_str(), &status) == 0) {
        if (status.st_uid != geteuid()) return std::unexpected(Problem{.cause = Cause::belongsToAnother});
        if ((status.st_mode & S_IWUSR) == 0) return std::unexpected(Problem{.cause = Cause::isReadOnly});
    } else if (geteuid() == 0 && stat(nearestFolder(file.parent_path()).c_str(), &status) == 0 && status.st_uid != 0) {
        // A file of the administrator's in a user's folder would lock the user out of the settings.
        return std::unexpected(Problem{.cause = Cause::folderBelongsToAnother});
    }
    return {};
}

/// The lock that writers of a file take turns by. It ends with the descriptor.
std::expected<FileDescriptor, Problem> lockFor(const fs::path& file, std::chrono::milliseconds patience)
{
    const fs::path path = file.string() + ".lock";
    FileDescriptor lock(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!lock) return std::unexpected(ofSystem(errno));
    const auto deadline = std::chrono::steady_clock::now() + patience;
    for (std::chrono::microseconds pause{50}; flock(lock.number(), LOCK_EX | LOCK_NB) != 0; pause = std::min(pause * 2, longestPause)) {
        if (errno != EWOULDBLOCK && errno != EINTR) return std::unexpected(ofSystem(errno));
        if (std::chrono::steady_clock::now() > deadline) return std::unexpected(Problem{.cause = Cause::isLocked});
        std::this_thread::sleep_for(pause);
    }
    return lock;
}

/// Puts a complete new file in the place of the old one; readers see either. Gives the new file's stamp.
std::expected<FileStamp, Problem> replaceFile(const fs::path& file, const std::string& text)
{
    // One name for all: writers take turns, and what one that was killed has left is used up by the next.
    const std::string temporary = file.string() + ".new";
    const FileDescriptor descriptor(open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!descriptor) return std::unexpected(ofSystem(errno));
    const auto abandoned = [&](int error) {
        unlink(temporary.c_str());
        return std::unexpected(ofSystem(error));
    };

    if (const int error = descriptor.write(DataView(text)); error != 0) return abandoned(error);
    struct stat status{};
    if (stat(file.c_str(), &status) == 0) fchmod(descriptor.number(), status.st_mode & 0777);
    if (rename(temporary.c_str(), file.c_str()) != 0) return abandoned(errno);
    // After the rename, which changes the file's times.
    if (fstat(descriptor.number(), &status) != 0) return FileStamp{};
    return stampOf(status);
}

/// Moves a file out of the way, under the first free name "<file>.damaged", "<file>.damaged-2" …
std::expected<fs::path, Problem> setAside(const fs::path& file)
{
    for (int number = 1; number < 1'000; ++number) {
        const fs::path aside = fmt::format("{}.damaged{}", file.string(), number == 1 ? std::string{} : fmt::format("-{}", number));
        // A link fails where a name is taken; a rename would overwrite it, and is for file systems without links.
        if (link(file.c_str(), aside.c_str()) == 0) return aside;
        if (errno == EEXIST) continue;
        if (access(aside.c_str(), F_OK) != 0 && rename(file.c_str(), aside.c_str()) == 0) return aside;
        return std::unexpected(Problem{.cause = Cause::cannotBeSetAside, .fileError = FileError::ofSystem(errno)});
    }
    return std::unexpected(Problem{.cause = Cause::tooManySetAside});
}

/// The end of the sentence.
std::string causeText(const Problem& problem)
{
    switch (problem.cause) {
    case Cause::file: return problem.fileError.text();
    case Cause::noHome: return "there is no home directory to keep them in";
    case Cause::homeIsMissing: return fmt::format("the home directory {} does not exist", problem.folder.string());
    case Cause::belongsToAnother: return "it belongs to another user";
    case Cause::isReadOnly: return "it is read-only";
    case Cause::folderBelongsToAnother: return "its folder belongs to another user";
    case Cause::isLocked: return "another process keeps it locked";
    case Cause::isNoRegularFile: return "not a regular file";
    case Cause::isTooLarge: return "too large for settings";
    case Cause::nestsTooDeeply: return "it nests too deeply";
    case Cause::isEmpty: return "it is empty";
    case Cause::isNoJSON: return "it is not JSON";
    case Cause::isNoObject: return "it is JSON, but no object";
    case Cause::cannotBeSetAside: return "they are damaged and cannot be set aside: " + problem.fileError.text();
    case Cause::tooManySetAside: return "they are damaged and cannot be set aside: there are too many damaged ones already";
    }
    std::unreachable();
}

}  // namespace

std::string UserDefaultsProblem::text() const
{
    const std::string name = file.empty() ? "settings" : file.string();
    switch (effect) {
    case Effect::notKept: return fmt::format("{}: settings are not kept: {}", name, causeText(*this));
    case Effect::unreadable: return fmt::format("{}: the settings cannot be read: {}", name, causeText(*this));
    case Effect::countsAsEmpty: return fmt::format("{}: the settings are damaged and count as empty: {}", name, causeText(*this));
    case Effect::wasSetAside:
        return fmt::format("{}: the settings were damaged: {}; they are kept as {}", name, causeText(*this), asideName);
    }
    std::unreachable();
}

class UserDefaults::Implementation {
public:
    Implementation(fs::path file, fs::path home) : file_(std::move(file)), home_(std::move(home)) {}

    const fs::path& file() const { return file_; }

    std::optional<Value> object(std::string_view key) const
    {
        const std::lock_guard lock(mutex_);
        return current(key);
    }

    std::vector<std::pair<std::string, Value>> all() const
    {
        const std::lock_guard lock(mutex_);
        refresh();
        std::map<std::string, Value, std::less<>> values;
        for (const auto& [key, member] : contents_.members.items())
            if (auto value = valueOf(member)) values.emplace(key, std::move(*value));
        for (const auto& [key, value] : unsaved_) {
            values.erase(key);
            if (value) values.emplace(key, *value);
        }
        return {values.begin(), values.end()};
    }

    bool store(std::string_view key, std::optional<Value> value)
    {
        bool isKept = false;
        bool isChange = false;
        {
            const std::lock_guard lock(mutex_);
            isChange = current(key) != value;
            if (!isChange && unsaved_.empty()) return true;
            unsaved_.insert_or_assign(std::string(key), value);
            const auto saved = save();
            isKept = saved.has_value();
            writeProblem_.reset();
            if (!saved) writeProblem_ = about(saved.error(), Problem::Effect::notKept);
        }
        if (isChange) notify(key, value);
        return isKept;
    }

    std::optional<Problem> lastProblem() const
    {
        const std::lock_guard lock(mutex_);
        refresh();
        if (writeProblem_) return writeProblem_;
        if (contents_.state == Contents::State::unreadable) return about(contents_.problem, Problem::Effect::unreadable);
        if (contents_.state == Contents::State::damaged) return about(contents_.problem, Problem::Effect::countsAsEmpty);
        return damage_;
    }

    ObservationToken observe(const std::string& key, std::function<void()> changed)
    {
        const std::lock_guard lock(mutex_);
        const auto [entry, isNew] = observed_.try_emplace(key);
        if (isNew) entry->second.lastSeen = current(key);
        return entry->second.observers.add(std::move(changed));
    }

    void synchronize()
    {
        std::vector<std::pair<std::string, std::optional<Value>>> changes;
        {
            const std::lock_guard lock(mutex_);
            for (const auto& [key, observed] : observed_)
                if (auto value = current(key); value != observed.lastSeen) changes.emplace_back(key, std::move(value));
        }
        for (const auto& [key, value] : changes) notify(key, value);
    }

private:
    struct Observed {
        ObserverList<> observers;
        std::optional<Value> lastSeen;  ///< what they know of
    };

    Problem about(Problem problem, Problem::Effect effect) const
    {
        problem.file = file_;
        problem.effect = effect;
        return problem;
    }

    void refresh() const
    {
        if (file_.empty()) return;
        if (wasRead_ && stampOf(file_) == contents_.stamp) return;
        contents_ = readContents(file_);
        wasRead_ = true;
    }

    std::optional<Value> current(std::string_view key) const
    {
        if (const auto unsaved = unsaved_.find(key); unsaved != unsaved_.end()) return unsaved->second;
        refresh();
        const auto member = contents_.members.find(key);
        return member == contents_.members.end() ? std::nullopt : valueOf(*member);
    }

    /// Writes what is not saved yet.
    std::expected<void, Problem> save()
    {
        if (file_.empty()) return std::unexpected(Problem{.cause = Cause::noHome});
        std::error_code error;
        if (!home_.empty() && !fs::is_directory(home_, error))
            return std::unexpected(Problem{.cause = Cause::homeIsMissing, .folder = home_});
        // Through a symbolic link the file that it points to is meant.
        fs::path target = fs::canonical(file_, error);
        if (error) target = file_;
        if (auto allowed = mayReplace(target); !allowed) return allowed;
        if (auto made = createFolders(target.parent_path().string()); !made) return std::unexpected(Problem{.fileError = made.error()});
        const auto lock = lockFor(target, patience_);
        if (!lock) {
            patience_ = {};  // one wait is enough: who holds it for so long does not write settings
            return std::unexpected(lock.error());
        }

        Contents contents = readContents(target);
        if (contents.state == Contents::State::unreadable) return std::unexpected(contents.problem);
        Json members = contents.members;
        for (const auto& [key, value] : unsaved_) {
            if (value)
                members[key] = jsonOf(*value);
            else
                members.erase(key);
        }
        if (contents.state == Contents::State::damaged) {
            const auto aside = setAside(target);
            if (!aside) return std::unexpected(aside.error());
            damage_ = about(contents.problem, Problem::Effect::wasSetAside);
            damage_->asideName = aside->filename().string();
        } else if (members == contents.members) {
            contents_ = std::move(contents);
            wasRead_ = true;
            unsaved_.clear();
            return {};
        }

        const auto stamp = replaceFile(target, members.dump(4, ' ', false, Json::error_handler_t::replace) + "\n");
        if (!stamp) return std::unexpected(stamp.error());
        contents_ = {Contents::State::fine, {}, std::move(members), *stamp};
        wasRead_ = true;
        unsaved_.clear();
        return {};
    }

    void notify(std::string_view key, const std::optional<Value>& value)
    {
        Observed* observed = nullptr;
        {
            const std::lock_guard lock(mutex_);
            const auto found = observed_.find(key);
            if (found == observed_.end()) return;
            observed = &found->second;
            observed->lastSeen = value;
        }
        observed->observers.notify();
    }

    const fs::path file_;
    const fs::path home_;  ///< has to exist before anything is made in it; empty when nothing has to
    mutable std::mutex mutex_;
    mutable Contents contents_;
    mutable bool wasRead_ = false;
    std::map<std::string, std::optional<Value>, std::less<>> unsaved_;  ///< set or removed, and not in the file yet
    std::optional<Problem> writeProblem_;
    std::optional<Problem> damage_;
    std::chrono::milliseconds patience_ = longestWait;
    std::map<std::string, Observed, std::less<>> observed_;  ///< by key; entries stay
};

UserDefaults::UserDefaults(fs::path file) : UserDefaults(std::move(file), {}) {}

UserDefaults::UserDefaults(fs::path file, fs::path home)
    : implementation_(std::make_unique<Implementation>(std::move(file), std::move(home)))
{}

UserDefaults::~UserDefaults() = default;

UserDefaults& UserDefaults::standard()
{
    // Never torn down: observers and other threads may outlive main.
    static UserDefaults& defaults = [&]() -> UserDefaults& {
        const auto variable = [](const char* name) {
            const char* value = std::getenv(name);
            return fs::path(value ? value : "");
        };
        const fs::path name = "sealscope/settings.json";
        // A path that is not absolute counts as none (XDG Base Directories, Basics).
        if (const fs::path config = variable("XDG_CONFIG_HOME"); config.is_absolute()) return *new UserDefaults(config / name, {});
        fs::path home = variable("HOME");
        if (home.empty())
            if (const passwd* user = getpwuid(geteuid()); user && user->pw_dir) home = user->pw_dir;
        if (home.empty()) return *new UserDefaults({}, {});
        return *new UserDefaults(home / ".config" / name, home);
    }();
    return defaults;
}

const fs::path& UserDefaults::file() const { return implementation_->file(); }

std::optional<Value> UserDefaults::object(std::string_view key) const { return implementation_->object(key); }

std::optional<std::string> UserDefaults::string(std::string_view key) const
{
    const auto value = object(key);
    const auto* text = value ? std::get_if<std::string>(&*value) : nullptr;
    return text ? std::optional(*text) : std::nullopt;
}

std::optional<Data> UserDefaults::data(std::string_view key) const
{
    const auto value = object(key);
    const auto* bytes = value ? std::get_if<Data>(&*value) : nullptr;
    return bytes ? std::optional(*bytes) : std::nullopt;
}

bool UserDefaults::boolean(std::string_view key) const
{
    const auto value = object(key);
    const auto* flag = value ? std::get_if<bool>(&*value) : nullptr;
    return flag && *flag;
}

bool UserDefaults::set(std::string_view key, Value value) { return implementation_->store(key, std::move(value)); }

bool UserDefaults::remove(std::string_view key) { return implementation_->store(key, std::nullopt); }

std::vector<std::pair<std::string, Value>> UserDefaults::all() const { return implementation_->all(); }

std::optional<UserDefaultsProblem> UserDefaults::lastProblem() const { return implementation_->lastProblem(); }

ObservationToken UserDefaults::observe(const std::string& key, std::function<void()> changed)
{
    return implementation_->observe(key, std::move(changed));
}

void UserDefaults::synchronize() { implementation_->synchronize(); }

}  // namespace sealscope
