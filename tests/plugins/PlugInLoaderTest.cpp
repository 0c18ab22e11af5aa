// SPDX-License-Identifier: Apache-2.0
#include "app/plugins/PlugInLoader.h"

#include "harness/TempDirectory.h"
#include "host/VELModels/TLSDecryptionProbeRegistry.h"
#include "host/VELModels/VELPlugInsController.h"
#include "host/VELModels/VELStreamInterpreting.h"

#include <cstdlib>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace sealscope {

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

const fs::path testBundles = SEALSCOPE_TEST_BUNDLES;

/// A folder with copies of some of the test's bundles. A plug-in of a program's own is always there; it is loaded before,
/// so that what is loaded here is what the test brings.
class PlugInLoaderTest : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        config = std::make_unique<TempDirectory>();
        setenv("XDG_CONFIG_HOME", config->path().c_str(), 1);
        unsetenv("SEALSCOPE_PLUGIN_PATH");
        own = PlugInLoader::load({});
    }
    static void TearDownTestSuite() { config.reset(); }

    fs::path add(const std::string& name)
    {
        fs::copy(testBundles / (name + ".bundle"), folder.path() / (name + ".bundle"), fs::copy_options::recursive);
        return folder.path() / (name + ".bundle");
    }
    /// The problems as "bundle name: reason".
    std::vector<std::string> problemsOf(const PlugInLoading& loading)
    {
        std::vector<std::string> texts;
        for (const PlugInProblem& problem : loading.problems) texts.push_back(problem.bundle.filename().string() + ": " + problem.reason());
        return texts;
    }

    static inline std::unique_ptr<TempDirectory> config;
    static inline PlugInLoading own;
    TempDirectory folder;
};

/// Everything that plug-ins can register, counted.
std::vector<std::size_t> registered()
{
    return {VELPlugInsController::sharedManager().plugIns().size(), TLSDecryptionProbeRegistry::shared().snapshot().size(),
            VELStreamInterpreterRegistry::shared().snapshot().size()};
}

}  // namespace

TEST_F(PlugInLoaderTest, LoadsTheProgramsOwnPlugIns)
{
    EXPECT_THAT(problemsOf(own), IsEmpty());
    ASSERT_EQ(own.loaded.size(), 3U);
    EXPECT_EQ(own.loaded[0].bundle, PlugInLoader::ownFolder() / "HTTP.bundle");
    EXPECT_EQ(own.loaded[0].principalClass->name, "HTTPPlugInController");
    EXPECT_EQ(own.loaded[1].bundle, PlugInLoader::ownFolder() / "Sealscope.bundle");
    EXPECT_EQ(own.loaded[1].principalClass->name, "TLSPlugInController");
    EXPECT_EQ(own.loaded[2].bundle, PlugInLoader::ownFolder() / "TLSReach.bundle");
    EXPECT_EQ(own.loaded[2].principalClass->name, "ReachPlugIn");

    const auto plugIns = VELPlugInsController::sharedManager().plugIns();
    ASSERT_EQ(plugIns.size(), 3U);
    for (std::size_t i = 0; i < plugIns.size(); ++i) {
        EXPECT_EQ(plugIns[i].bundle->path(), own.loaded[i].bundle);
        EXPECT_EQ(plugIns[i].plugIn.plugInVersion, *own.loaded[i].principalClass->pluginVersion());
    }
    EXPECT_THAT(plugIns[0].plugIn.plugInVersion, testing::MatchesRegex("[0-9]+\\.[0-9]+\\.[0-9]+ \\([0-9]+\\)"));
}

TEST_F(PlugInLoaderTest, TellsWhatIsWrongWithABundleAndLoadsTheRest)
{
    struct Case {
        const char *name, *reason;
    };
    const Case cases[] = {
        {"TestThrowing", "failed while being created: the moon is full"},
        {"TestThrowingNumber", "failed while being created, for a reason that it does not tell"},
        {"TestGivingNothing", "its principal class gave no object"},
        {"TestOfOtherVersion", "is built for version 43 of the plug-in contract, this program has version 2"},
        {"TestWithoutPrincipalClass", "has no principal class"},
        {"TestWithoutEntry", "is no plug-in: its module does not export velBundleEntry"},
        {"TestUnresolved", "does not load: undefined symbol: _Z25someFunctionThatIsNowherev"},
    };
    const auto before = registered();
    for (const auto& [name, reason] : cases) {
        add(name);
        const PlugInLoading loading = PlugInLoader::load({folder.path() / (std::string(name) + ".bundle")});
        EXPECT_THAT(problemsOf(loading), ElementsAre(std::string(name) + ".bundle: " + reason));
        EXPECT_THAT(loading.loaded, IsEmpty());
        EXPECT_EQ(registered(), before) << name << ": what it registered before it failed is gone";
    }

    add("TestFine");
    const PlugInLoading loading = PlugInLoader::load({folder.path()});
    EXPECT_EQ(loading.problems.size(), std::size(cases));
    ASSERT_EQ(loading.loaded.size(), 1U);
    EXPECT_EQ(loading.loaded[0].bundle, folder.path() / "TestFine.bundle");
    EXPECT_EQ(VELPlugInsController::sharedManager().plugIns().back().plugIn.plugInTitle, "Test");
    EXPECT_THAT(PlugInLoader::load({folder.path()}).loaded, IsEmpty()) << "a bundle is loaded once";
}

TEST_F(PlugInLoaderTest, TellsWhatIsWrongWithAFolder)
{
    struct Case {
        const char* name;
        std::function<void(const fs::path& bundle)> spoil;
        const char* reason;
    };
    const Case cases[] = {
        {"module gone", [](const fs::path& bundle) { fs::remove(bundle / "TestFine.so"); }, "has no module TestFine.so"},
        {"module is text", [](const fs::path& bundle) { writeFile(bundle / "TestFine.so", DataView(std::string_view("hello"))); },
         "does not load: file too short"},
        {"other contract",
         [](const fs::path& bundle) {
             // The module would load; it must not be asked.
             writeFile(bundle / "Info.json",
                       DataView(std::string_view(R"({"CFBundleExecutable": "TestFine.so", "VELContractVersion": 1})")));
         },
         "is built for version 1 of the plug-in contract, this program has version 2"},
        {"module elsewhere",
         [](const fs::path& bundle) {
             writeFile(bundle / "Info.json", DataView(std::string_view(R"({"CFBundleExecutable": "../TestFine.so"})")));
         },
         "its information dictionary names a module outside it: ../TestFine.so"},
        {"empty", [](const fs::path& bundle) { fs::remove_all(bundle), fs::create_directory(bundle); }, "has no module TestFine.so"},
        {"a file", [](const fs::path& bundle) { fs::remove_all(bundle), writeFile(bundle, DataView()); }, "has no module TestFine.so"},
    };
    for (const Case& each : cases) {
        const TempDirectory place;
        fs::copy(testBundles / "TestFine.bundle", place.path() / "TestFine.bundle", fs::copy_options::recursive);
        // Another identifier than that of the bundle that was loaded already.
        const fs::path info = place.path() / "TestFine.bundle/Info.json";
        std::string text(readFile(info).view().text());
        text.replace(text.find("test.TestFine"), 13, "test.other");
        writeFile(info, DataView(std::string_view(text)));
        each.spoil(place.path() / "TestFine.bundle");
        EXPECT_THAT(problemsOf(PlugInLoader::load({place.path()})), ElementsAre(std::string("TestFine.bundle: ") + each.reason))
            << each.name;
    }

    const PlugInLoading loading = PlugInLoader::load({folder.path() / "nowhere"});
    ASSERT_EQ(loading.problems.size(), 1U);
    EXPECT_EQ(loading.problems[0].text(),
              (folder.path() / "nowhere").string() + ": cannot be searched for plug-ins: No such file or directory");
}

TEST_F(PlugInLoaderTest, StartsWithoutThoseForStreamsWherePacketsAreAllThatIsWanted)
{
    const TempDirectory place;
    fs::copy(testBundles / "TestFine.bundle", place.path() / "TestFine.bundle", fs::copy_options::recursive);
    const char* const info = R"({"CFBundleExecutable": "TestFine.so", "CFBundleIdentifier": "test.streams", "VELStreamsOnly": true})";
    writeFile(place.path() / "TestFine.bundle/Info.json", DataView(std::string_view(info)));
    const PlugInLoading ofPackets = PlugInLoader::load({place.path()}, PlugInPurpose::packets);
    EXPECT_THAT(ofPackets.loaded, IsEmpty());
    EXPECT_THAT(ofPackets.problems, IsEmpty());
    EXPECT_EQ(PlugInLoader::load({place.path()}).loaded.size(), 1U);
}

TEST_F(PlugInLoaderTest, SearchesTheFoldersOfTheEnvironment)
{
    const TempDirectory one, two;
    fs::copy(testBundles / "TestWithoutEntry.bundle", one.path() / "one.bundle", fs::copy_options::recursive);
    fs::copy(testBundles / "TestWithoutEntry.bundle", two.path() / "two.bundle", fs::copy_options::recursive);
    fs::copy(testBundles / "TestWithoutEntry.bundle", folder.path() / "three.bundle", fs::copy_options::recursive);
    setenv("SEALSCOPE_PLUGIN_PATH", (one.path().string() + "::" + two.path().string()).c_str(), 1);
    const PlugInLoading loading = PlugInLoader::load({folder.path()});
    unsetenv("SEALSCOPE_PLUGIN_PATH");
    EXPECT_THAT(problemsOf(loading), ElementsAre(HasSubstr("three.bundle"), HasSubstr("one.bundle"), HasSubstr("two.bundle")));
}

}  // namespace sealscope
