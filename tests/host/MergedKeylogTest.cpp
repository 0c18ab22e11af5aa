// SPDX-License-Identifier: Apache-2.0
#include "host/VELCommonTools/MergedKeylog.h"

#include "harness/TempDirectory.h"
#include "host/VELCommonTools/KeyLogSources.h"
#include "host/VELCommonTools/KeylogLocations.h"
#include "host/VELCommonTools/KeylogUserFile.h"
#include "host/VELModels/TLSDecryptionProbeRegistry.h"

#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace sealscope {
namespace {

using Source = MergedKeylog::Source;
using Problem = MergedKeylog::Examination::Problem;

class MergedKeylogTest : public testing::Test {
protected:
    MergedKeylogTest() { setenv("XDG_DATA_HOME", directory.file("data").c_str(), 1); }

    std::string writeManaged(std::string_view text)
    {
        std::filesystem::create_directories(KeylogLocations::liveKeylog().parent_path());
        writeFile(KeylogLocations::liveKeylog(), DataView(text));
        return KeylogLocations::liveKeylog();
    }

    TempDirectory directory;
};

TEST_F(MergedKeylogTest, KeepsTheManagedKeyLogUnderTheDataDirectory)
{
    EXPECT_EQ(KeylogLocations::liveKeylog(), directory.path() / "data/sealscope/keylog.txt");
    setenv("HOME", "/home/somebody", 1);
    for (const char* unusable : {"", "relative/path"}) {
        setenv("XDG_DATA_HOME", unusable, 1);
        EXPECT_EQ(KeylogLocations::liveKeylog(), "/home/somebody/.local/share/sealscope/keylog.txt") << unusable;
    }
}

TEST_F(MergedKeylogTest, ChoosesAndOrdersTheSources)
{
    const Source managed{KeylogLocations::liveKeylog().string()};
    struct Case {
        const char* name;
        std::optional<std::string> userPath, envPath;
        std::vector<Source> expected;
    };
    const Case cases[] = {
        {"nothing is set", {}, {}, {managed}},
        {"the user's file", "/u", {}, {managed, {"/u"}}},
        {"the environment's file", {}, "/e", {managed, {"/e"}}},
        {"the environment has no effect beside the user's", "/u", "/e", {managed, {"/u"}}},
        {"an empty path is none", "", "/e", {managed, {"/e"}}},
        {"in the environment too", {}, "", {managed}},
        {"the managed key log, chosen", managed.file, {}, {managed}},
    };
    for (const auto& [name, userPath, envPath, expected] : cases) EXPECT_EQ(MergedKeylog::sources(userPath, envPath), expected) << name;
    const std::vector<Source> named{managed, {"/b"}, {"/a"}};
    EXPECT_EQ(KeyLogSources({}, {"/a", "/b", "/a"}).files(), named) << "a file that is named twice stands where it wins";
}

TEST_F(MergedKeylogTest, RemembersTheUsersFile)
{
    UserDefaults defaults(directory.path() / "settings.json");
    EXPECT_EQ(KeylogUserFile::resolvedPath(defaults), std::nullopt);
    EXPECT_TRUE(KeylogUserFile::remember("/somewhere/keys.txt", defaults));
    EXPECT_EQ(KeylogUserFile::resolvedPath(defaults), "/somewhere/keys.txt");
    setenv("HOME", "/home/somebody", 1);
    for (const auto& [typed, resolved] :
         {std::pair("~/keys.txt", "/home/somebody/keys.txt"), std::pair("keys~", "keys~"), std::pair("~other/keys", "~other/keys")}) {
        defaults.set(KeylogUserFile::pathDefaultsKey(), std::string(typed));
        EXPECT_EQ(KeylogUserFile::resolvedPath(defaults), resolved);
    }
    defaults.set(KeylogUserFile::pathDefaultsKey(), std::string());
    EXPECT_EQ(KeylogUserFile::resolvedPath(defaults), std::nullopt) << "an empty path is none";
}

TEST_F(MergedKeylogTest, JoinsTheTextsWithTheirLinesWhole)
{
    writeManaged("M 00 02\n");
    const std::string user = directory.write("user", std::string_view("U 00 03"));
    const std::string missing = directory.file("missing");
    const std::string empty = directory.write("empty", std::string_view(""));
    const std::vector<Source> sources{{KeylogLocations::liveKeylog().string()}, {missing}, {directory.path().string()}, {empty}, {user}};
    EXPECT_EQ(MergedKeylog::mergedText(sources), "M 00 02\nU 00 03");
    EXPECT_EQ(KeyLogSources("E 00 01", {user}).text(), "E 00 01\nM 00 02\nU 00 03") << "the capture's own come first";
    EXPECT_EQ(MergedKeylog::mergedText({}), "");
}

TEST_F(MergedKeylogTest, StampsChangeWithTheirSources)
{
    const std::string file = directory.write("log", std::string_view("one\n"));
    const std::vector<Source> sources{{file}};
    auto last = MergedKeylog::signature(sources);
    EXPECT_EQ(MergedKeylog::signature(sources), last) << "nothing changed";
    const auto expectChange = [&](const char* what) {
        const auto signature = MergedKeylog::signature(sources);
        EXPECT_NE(signature, last) << what;
        EXPECT_EQ(MergedKeylog::signature(sources), signature) << what;
        last = signature;
    };
    const auto setTime = [&](long nanoseconds) {
        const timespec times[2] = {{1'700'000'000, nanoseconds}, {1'700'000'000, nanoseconds}};
        ASSERT_EQ(utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
    };
    writeFile(file, DataView(std::string_view("one\ntwo\n")));
    expectChange("another size");
    setTime(5);
    expectChange("another time");
    setTime(6);
    expectChange("a nanosecond later");
    const std::string twin = directory.write("twin", std::string_view("one\ntwo\n"));
    const timespec times[2] = {{1'700'000'000, 6}, {1'700'000'000, 6}};
    ASSERT_EQ(utimensat(AT_FDCWD, twin.c_str(), times, 0), 0);
    std::filesystem::rename(twin, file);
    expectChange("another file of the same size and time");
    std::filesystem::remove(file);
    expectChange("no file");
}

/// Counts every line, and those with a "!" as invalid.
struct CountingProbe final : TLSStreamDecryptionProbing {
    TLSDecryptionOutcome probe(const TCPStream&) const override { return TLSDecryptionOutcome::decrypted(); }
    TLSKeyLogLineCount countKeyLogLines(std::string_view text) const override
    {
        const auto lines = std::ranges::count(text, '\n');
        const auto invalid = std::ranges::count(text, '!');
        return {lines, lines - invalid, invalid > 0 ? 1 : 0};
    }
};

TEST_F(MergedKeylogTest, SaysWhatIsTheMatterWithAFile)
{
    const auto probe = std::make_shared<const CountingProbe>();
    TLSDecryptionProbeRegistry::shared().registerProbe(probe);
    ASSERT_EQ(mkfifo(directory.file("pipe").c_str(), 0600), 0);
    directory.write("empty", std::string_view());
    directory.write("good", std::string_view("a\nb\n"));
    directory.write("partly", std::string_view("a\nb!\n"));
    directory.write("bad", std::string_view("a!\nb!\n"));
    std::string repeated;
    for (int i = 0; i < 50'000; ++i) repeated += "a\n";
    directory.write("long", repeated);
    std::ranges::replace(repeated, 'a', '!');
    directory.write("long and bad", repeated);
    directory.write("long and good at last", repeated + "a\n");
    std::filesystem::create_symlink(directory.file("nowhere"), directory.file("dangling"));
    ASSERT_EQ(truncate(directory.write("sparse", std::string_view("x")).c_str(), std::int64_t{1} << 42), 0);
    struct Case {
        const char* file;
        Problem problem;
        int error;
        std::int64_t lines, validLines;
    };
    const Case cases[] = {
        {"missing", Problem::cannotOpen, ENOENT, 0, 0},
        {"dangling", Problem::cannotOpen, ENOENT, 0, 0},
        {"good/inside", Problem::cannotOpen, ENOTDIR, 0, 0},
        {".", Problem::isDirectory, 0, 0, 0},
        {"pipe", Problem::isNoFile, 0, 0, 0},
        {"sparse", Problem::tooLarge, 0, 0, 0},
        {"empty", Problem::isEmpty, 0, 0, 0},
        {"bad", Problem::noValidLine, 0, 2, 0},
        {"partly", Problem::none, 0, 2, 1},
        {"good", Problem::none, 0, 2, 2},
        {"long", Problem::none, 0, 50'000, 50'000},
        {"long and bad", Problem::noValidLine, 0, 50'000, 0},
        {"long and good at last", Problem::none, 0, 50'001, 1},
    };
    for (const auto& [file, problem, error, lines, validLines] : cases) {
        const auto examination = MergedKeylog::examine(directory.path() / file);
        EXPECT_EQ(examination.problem, problem) << file;
        EXPECT_EQ(examination.error, error) << file;
        EXPECT_EQ(examination.lines, lines) << file;
        EXPECT_EQ(examination.validLines, validLines) << file;
        const auto brief = MergedKeylog::examineBriefly(directory.path() / file);
        EXPECT_EQ(brief.problem, problem) << file;
        EXPECT_EQ(brief.error, error) << file;
    }
    EXPECT_LT(MergedKeylog::examineBriefly(directory.file("long")).lines, 50'000) << "no more of it was read than it took";
    EXPECT_EQ(MergedKeylog::examine("/dev/zero").problem, Problem::isNoFile);
    TLSDecryptionProbeRegistry::shared().unregisterProbe(probe);
    EXPECT_EQ(MergedKeylog::examine(directory.file("bad")).problem, Problem::none) << "nobody is there to count lines";
}

TEST_F(MergedKeylogTest, ReadsWhatAFileHoldsBeyondTheSizeItTells)
{
    // Files of /proc tell a size of 0, as a file does that grows between the question and the reading.
    const SecretText text = MergedKeylog::mergedText({Source{"/proc/self/status"}});
    EXPECT_TRUE(text.starts_with("Name:")) << text.size();
    const std::string large(3'000'000, 'x');
    EXPECT_EQ(MergedKeylog::mergedText({Source{directory.write("large", std::string_view(large))}}), std::string_view(large));
}

}  // namespace
}  // namespace sealscope
