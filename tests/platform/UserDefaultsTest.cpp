// SPDX-License-Identifier: Apache-2.0
#include "platform/UserDefaults.h"

#include "harness/TempDirectory.h"

#include <atomic>
#include <chrono>
#include <fcntl.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace sealscope {

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::Optional;
using Value = UserDefaults::Value;

std::optional<std::string> problemText(const UserDefaults& defaults)
{
    return defaults.lastProblem().transform(&UserDefaultsProblem::text);
}

std::string textOf(const fs::path& file) { return std::string(readFile(file).view().text()); }

/// Names in a folder but for the lock file, in order.
std::vector<std::string> filesIn(const fs::path& folder)
{
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder))
        if (entry.path().extension() != ".lock") names.push_back(entry.path().filename());
    std::ranges::sort(names);
    return names;
}

/// Runs `work` in processes of their own, all at once; true when each came to its end.
template <class Work> bool runProcesses(int count, Work work)
{
    std::vector<pid_t> children;
    for (int number = 0; number < count; ++number) {
        const pid_t child = fork();
        if (child == 0) _exit(work(number) ? 0 : 1);
        children.push_back(child);
    }
    bool allEnded = true;
    for (const pid_t child : children) {
        int status = 0;
        waitpid(child, &status, 0);
        allEnded &= WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }
    return allEnded;
}

}  // namespace

TEST(UserDefaults, KeepsValuesOfEveryTypeForTheNextProcess)
{
    const TempDirectory folder;
    const fs::path file = folder.path() / "config/sealscope/settings.json";
    const std::pair<std::string, Value> values[] = {
        {"a", true},
        {"b", std::int64_t{-9'007'199'254'740'993}},
        {"c", 0.1},
        {"d", std::string("größer \"als\" \n\\")},
        {"e", Data{0x00, 0xFF, 0x7B}},
        {"f", Data{}},
        {"g", std::string("/caf\xE9/keys.txt")},  // a path in an old encoding
        {"h", std::string("data")},
    };
    {
        UserDefaults defaults(file);
        for (const auto& [key, value] : values) EXPECT_TRUE(defaults.set(key, value)) << key;
    }
    UserDefaults defaults(file);
    for (const auto& [key, value] : values) EXPECT_EQ(defaults.object(key), std::optional(value)) << key;
    EXPECT_EQ(defaults.all().size(), std::size(values));
    EXPECT_EQ(defaults.lastProblem(), std::nullopt);
    EXPECT_EQ(fs::status(file).permissions(), fs::perms(0600));
    EXPECT_EQ(fs::status(file.parent_path()).permissions(), fs::perms(0700));

    EXPECT_TRUE(defaults.remove("d"));
    EXPECT_EQ(UserDefaults(file).object("d"), std::nullopt);
}

TEST(UserDefaults, CountsValuesOfAnotherTypeAsAbsent)
{
    const TempDirectory folder;
    UserDefaults defaults(folder.write(
        "settings.json",
        R"({"text": "true", "flag": true, "number": 1, "bytes": {"data": "AAE="}, "list": [1], "none": null,)"
        R"( "broken": {"data": "A"}, "spaced": {"data": "AA E="}, "more": {"data": "AAE=", "x": 1}, "huge": 18446744073709551615})"));
    struct Case {
        const char* key;
        bool isPresent, isTrue;
        std::optional<std::string> string;
        std::optional<Data> data;
    };
    const Case cases[] = {
        {"text", true, false, "true", {}},
        {"flag", true, true, {}, {}},
        {"number", true, false, {}, {}},
        {"bytes", true, false, {}, Data{0, 1}},
        {"list", false, false, {}, {}},
        {"none", false, false, {}, {}},
        {"broken", false, false, {}, {}},
        {"spaced", false, false, {}, {}},
        {"more", false, false, {}, {}},
        {"huge", true, false, {}, {}},
        {"nothing of that name", false, false, {}, {}},
    };
    for (const Case& each : cases) {
        EXPECT_EQ(defaults.object(each.key).has_value(), each.isPresent) << each.key;
        EXPECT_EQ(defaults.boolean(each.key), each.isTrue) << each.key;
        EXPECT_EQ(defaults.string(each.key), each.string) << each.key;
        EXPECT_EQ(defaults.data(each.key), each.data) << each.key;
    }
    // What was not understood is nobody's to throw away.
    EXPECT_TRUE(defaults.set("flag", false));
    EXPECT_THAT(textOf(folder.path() / "settings.json"), AllOf(HasSubstr("\"list\""), HasSubstr("\"none\": null"), HasSubstr("\"more\"")));
}

TEST(UserDefaults, LosesNoWriteOfSeveralProcesses)
{
    const TempDirectory folder;
    const fs::path file = folder.path() / "settings.json";
    constexpr int processes = 8, writes = 25;
    ASSERT_TRUE(runProcesses(processes, [&](int process) {
        UserDefaults defaults(file);
        bool areKept = true;
        for (std::int64_t write = 0; write < writes; ++write) areKept &= defaults.set(fmt::format("{}-{}", process, write), write);
        return areKept;
    }));
    EXPECT_EQ(UserDefaults(file).all().size(), processes * writes);
    EXPECT_THAT(filesIn(folder.path()), testing::ElementsAre("settings.json"));
}

TEST(UserDefaults, ShowsReadersWholeFilesOnly)
{
    const TempDirectory folder;
    const fs::path file = folder.path() / "settings.json";
    const auto text = [](std::int64_t round) { return std::string(static_cast<std::size_t>(20'000 + round % 7), 'x'); };
    UserDefaults(file).set("long", text(0));
    ASSERT_TRUE(runProcesses(4, [&](int process) {
        UserDefaults defaults(file);
        for (std::int64_t round = 0; round < 100; ++round) {
            if (process == 0) {
                if (!defaults.set("long", text(round))) return false;
            } else if (const auto read = defaults.string("long"); !read || read->size() < 20'000 || defaults.lastProblem()) {
                return false;
            }
        }
        return true;
    }));
}

TEST(UserDefaults, SetsADamagedFileAside)
{
    struct Case {
        const char *content, *reason;
    };
    const Case cases[] = {
        {"{\"a\": 1", "it is not JSON"},
        {"[1, 2]", "it is JSON, but no object"},
        {"", "it is empty"},
        {"{\"a\": \"\xFF\"}", "it is not JSON"},
    };
    for (const auto& [content, reason] : cases) {
        const TempDirectory folder;
        const fs::path file = folder.write("settings.json", content);
        folder.write("settings.json.damaged", "an earlier one");

        UserDefaults defaults(file);
        EXPECT_EQ(defaults.object("a"), std::nullopt) << content;
        EXPECT_THAT(problemText(defaults), Optional(AllOf(HasSubstr(file.string()), HasSubstr(reason)))) << content;
        EXPECT_EQ(textOf(file), content) << "reading changes nothing";

        EXPECT_TRUE(defaults.set("b", true)) << content;
        EXPECT_THAT(problemText(defaults), Optional(AllOf(HasSubstr(reason), HasSubstr("kept as settings.json.damaged-2")))) << content;
        EXPECT_EQ(textOf(folder.path() / "settings.json.damaged-2"), content);
        EXPECT_EQ(textOf(folder.path() / "settings.json.damaged"), "an earlier one");
        EXPECT_TRUE(UserDefaults(file).boolean("b")) << content;
    }
}

TEST(UserDefaults, WorksOnWhereNothingCanBeKept)
{
    struct Case {
        const char* name;
        fs::path file;
        std::function<void(const fs::path&)> arrange;
        const char* reason;
    };
    const TempDirectory folder;
    const fs::path top = folder.path();
    const Case cases[] = {
        {"a file stands where the folder should be", top / "a/file/settings.json",
         [](const fs::path& file) { fs::create_directories(file.parent_path().parent_path()), writeFile(file.parent_path(), DataView()); },
         "Not a directory"},
        {"a folder stands where the file should be", top / "b/settings.json", [](const fs::path& file) { fs::create_directories(file); },
         "not a regular file"},
        {"a read-only file", top / "c/settings.json",
         [](const fs::path& file) {
             fs::create_directories(file.parent_path());
             writeFile(file, DataView(std::string_view("{}")));
             fs::permissions(file, fs::perms::owner_read);
         },
         "it is read-only"},
        {"no place for a file at all", "/proc/nothing/settings.json", [](const fs::path&) {}, "No such file or directory"},
    };
    for (const Case& each : cases) {
        each.arrange(each.file);
        UserDefaults defaults(each.file);
        int changes = 0;
        const auto token = defaults.observe("a", [&] { ++changes; });
        EXPECT_FALSE(defaults.set("a", std::string("kept in memory"))) << each.name;
        EXPECT_THAT(problemText(defaults), Optional(AllOf(HasSubstr(each.file.string()), HasSubstr(each.reason)))) << each.name;
        EXPECT_THAT(defaults.string("a"), Optional(std::string("kept in memory"))) << each.name;
        EXPECT_EQ(defaults.all().size(), 1U) << each.name;
        EXPECT_FALSE(defaults.remove("a")) << each.name;
        EXPECT_EQ(defaults.string("a"), std::nullopt) << each.name;
        EXPECT_EQ(changes, 2) << each.name;
    }
    EXPECT_EQ(textOf(top / "c/settings.json"), "{}");
}

TEST(UserDefaults, TakesAlongWhatCouldNotBeWrittenBefore)
{
    const TempDirectory folder;
    const fs::path file = folder.write("settings.json", "{}");
    fs::permissions(file, fs::perms::owner_read);
    UserDefaults defaults(file);
    EXPECT_FALSE(defaults.set("a", true));
    fs::permissions(file, fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_TRUE(defaults.set("b", true));
    EXPECT_EQ(defaults.lastProblem(), std::nullopt);
    EXPECT_EQ(UserDefaults(file).all().size(), 2U);
}

TEST(UserDefaults, LeavesAFileOfAnotherUserAlone)
{
    if (geteuid() != 0) GTEST_SKIP() << "only the administrator can give a file away";
    const TempDirectory folder;
    const fs::path file = folder.write("settings.json", R"({"a": true})");
    ASSERT_EQ(chown(file.c_str(), 1, 1), 0);
    UserDefaults defaults(file);
    EXPECT_TRUE(defaults.boolean("a"));
    EXPECT_FALSE(defaults.set("a", false));
    EXPECT_THAT(problemText(defaults), Optional(HasSubstr("belongs to another user")));

    ASSERT_EQ(chown(folder.path().c_str(), 1, 1), 0);
    EXPECT_FALSE(UserDefaults(folder.path() / "deeper/other.json").set("a", true)) << "it would lock the user out";
    EXPECT_THAT(filesIn(folder.path()), testing::ElementsAre("settings.json"));
}

TEST(UserDefaults, WaitsOnceForAWriterThatHangs)
{
    const TempDirectory folder;
    const int lock = open(folder.file("settings.json.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_EQ(flock(lock, LOCK_EX), 0);
    UserDefaults defaults(folder.path() / "settings.json");
    const auto start = std::chrono::steady_clock::now();
    for (std::int64_t i = 0; i < 5; ++i) EXPECT_FALSE(defaults.set("a", i));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4));
    EXPECT_THAT(problemText(defaults), Optional(HasSubstr("another process keeps it locked")));
    close(lock);
    EXPECT_TRUE(defaults.set("a", std::int64_t{5}));
}

TEST(UserDefaults, WritesThroughASymbolicLink)
{
    const TempDirectory folder;
    const fs::path target = folder.write("dotfiles.json", R"({"a": 1})");
    fs::permissions(target, fs::perms(0640));
    fs::create_symlink(target, folder.path() / "settings.json");
    UserDefaults defaults(folder.path() / "settings.json");
    EXPECT_TRUE(defaults.set("b", true));
    EXPECT_TRUE(fs::is_symlink(folder.path() / "settings.json"));
    EXPECT_EQ(UserDefaults(target).all().size(), 2U);
    EXPECT_EQ(fs::status(target).permissions(), fs::perms(0640));
}

TEST(UserDefaults, TellsObserversOfChangesAndOfNothingElse)
{
    const TempDirectory folder;
    const fs::path file = folder.path() / "settings.json";
    UserDefaults defaults(file), otherProcess(file);
    defaults.set("a", std::string("one"));

    std::vector<std::string> seen;
    auto token = defaults.observe("a", [&] { seen.push_back(defaults.string("a").value_or("nothing")); });
    defaults.set("a", std::string("one"));
    defaults.set("b", std::string("two"));
    defaults.synchronize();
    EXPECT_THAT(seen, testing::IsEmpty());

    defaults.set("a", std::string("two"));
    EXPECT_THAT(seen, testing::ElementsAre("two"));
    otherProcess.set("a", std::string("three"));
    EXPECT_THAT(defaults.string("a"), Optional(std::string("three")));
    defaults.synchronize();
    defaults.synchronize();
    EXPECT_THAT(seen, testing::ElementsAre("two", "three"));
    defaults.remove("a");
    EXPECT_THAT(seen, testing::ElementsAre("two", "three", "nothing"));

    token.reset();
    defaults.set("a", std::string("four"));
    EXPECT_EQ(seen.size(), 3U);
}

TEST(UserDefaults, ServesManyThreads)
{
    const TempDirectory folder;
    UserDefaults defaults(folder.path() / "settings.json");
    std::atomic<int> changes = 0;
    const auto token = defaults.observe("shared", [&] { ++changes; });
    {
        std::vector<std::jthread> threads;
        for (int thread = 0; thread < 4; ++thread) {
            threads.emplace_back([&, thread] {
                for (std::int64_t round = 0; round < 25; ++round) {
                    defaults.set(fmt::format("{}-{}", thread, round), round);
                    defaults.set("shared", round * 4 + thread);
                    defaults.boolean("shared");
                    const auto passing = defaults.observe("shared", [] {});
                }
            });
        }
    }
    EXPECT_EQ(UserDefaults(folder.path() / "settings.json").all().size(), 101U);
    EXPECT_GT(changes, 0);
}

TEST(UserDefaults, LetsAnObserverChangeSettingsAndEndItself)
{
    const TempDirectory folder;
    UserDefaults defaults(folder.path() / "settings.json");
    int calls = 0;
    ObservationToken token = defaults.observe("a", [&] {
        ++calls;
        token.reset();
        defaults.set("a", std::int64_t{2});
    });
    defaults.set("a", std::int64_t{1});
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(defaults.object("a"), std::optional<Value>(std::int64_t{2}));
}

}  // namespace sealscope
